# The examples as tests. Each runs on a bus of its own, so they need no root and may run at the same time.

set(examples_bus ${CMAKE_CURRENT_LIST_DIR}/with-private-bus)

add_test(NAME examples.demo COMMAND ${CMAKE_CURRENT_LIST_DIR}/demo/run-demo ${CMAKE_BINARY_DIR})
set_tests_properties(examples.demo PROPERTIES TIMEOUT 180)

add_test(NAME examples.thermostat
    COMMAND ${examples_bus} --server $<TARGET_FILE:thermostat_server> $<TARGET_FILE:thermostat_client>)

add_test(NAME examples.epoll_client
    COMMAND ${examples_bus} --server $<TARGET_FILE:thermostat_server> $<TARGET_FILE:epoll_client>)

add_test(NAME examples.one_interface
    COMMAND ${examples_bus} --server $<TARGET_FILE:one_interface_server> $<TARGET_FILE:one_interface_client>)

add_test(NAME examples.calls_in_flight
    COMMAND ${examples_bus} --server $<TARGET_FILE:thermostat_server> $<TARGET_FILE:calls_in_flight>)

add_test(NAME examples.timers
    COMMAND ${examples_bus} --server $<TARGET_FILE:timers_server> $<TARGET_FILE:timers_client>)

add_test(NAME examples.surviving_client
    COMMAND ${examples_bus} ${CMAKE_CURRENT_LIST_DIR}/surviving_client/restart-server
        $<TARGET_FILE:thermostat_server> $<TARGET_FILE:surviving_client>)

# Those that need what not every machine has.
set(further_tests)
foreach(client glib_client sd_event_client)
    if(TARGET ${client})
        add_test(NAME examples.${client}
            COMMAND ${examples_bus} --server $<TARGET_FILE:thermostat_server> $<TARGET_FILE:${client}>)
        list(APPEND further_tests examples.${client})
    endif()
endforeach()
foreach(test bus_test scripted_server_test)
    if(TARGET ${test})
        add_test(NAME examples.${test} COMMAND ${test})
        list(APPEND further_tests examples.${test})
    endif()
endforeach()

add_test(NAME examples.client_without_server COMMAND ${examples_bus} $<TARGET_FILE:thermostat_client>)
set_tests_properties(examples.client_without_server PROPERTIES
    PASS_REGULAR_EXPRESSION "nobody owns org.example.climate on the bus")

add_test(NAME examples.command_without_end COMMAND ${examples_bus} --limit 1 sleep 60)
set_tests_properties(examples.command_without_end PROPERTIES
    TIMEOUT 50 PASS_REGULAR_EXPRESSION "sleep did not end within 1 seconds")

# A shell in which somebody works has no limit, and the terminal to itself: whoever has not is stopped by such a command.
add_test(NAME examples.command_with_a_terminal COMMAND script -qec "'${examples_bus}' --limit 0 stty sane" /dev/null)
set_tests_properties(examples.command_with_a_terminal PROPERTIES TIMEOUT 30)

# With a policy, a bus allows what it says and nothing else.
set(policies ${CMAKE_CURRENT_BINARY_DIR}/policies)
file(WRITE ${policies}/open.conf "<busconfig><policy context=\"default\"><allow own=\"org.example.climate\"/>"
    "<allow send_destination=\"org.example.climate\"/></policy></busconfig>")
file(WRITE ${policies}/closed.conf "<busconfig/>")
add_test(NAME examples.policy_that_allows COMMAND ${examples_bus} --policy ${policies}/open.conf
    --server $<TARGET_FILE:thermostat_server> $<TARGET_FILE:thermostat_client>)
add_test(NAME examples.policy_that_refuses
    COMMAND ${examples_bus} --policy ${policies}/closed.conf $<TARGET_FILE:thermostat_server>)
set_tests_properties(examples.policy_that_refuses PROPERTIES
    PASS_REGULAR_EXPRESSION "it does not give the name org.example.climate")

add_test(NAME examples.local_test COMMAND local_test)

# By the system's Python, because the bus bindings are installed for that one.
set(python_client ${CMAKE_CURRENT_LIST_DIR}/python_client)
add_test(NAME examples.python_client
    COMMAND ${examples_bus} --server $<TARGET_FILE:thermostat_server> /usr/bin/python3 -B ${python_client}/thermostat.py)
add_test(NAME examples.python_client_values COMMAND /usr/bin/python3 -B ${python_client}/test_values.py)

# What the documentation shows is what is there.
add_test(NAME docs.readme COMMAND ${CMAKE_CURRENT_LIST_DIR}/check-readme
    ${CMAKE_CURRENT_LIST_DIR}/../README.md examples/thermostat/server.cpp examples/thermostat/client.cpp)

add_test(NAME docs.guide COMMAND ${CMAKE_CURRENT_LIST_DIR}/check-readme
    ${CMAKE_CURRENT_LIST_DIR}/../docs/guide.md ../examples/thermostat/server.cpp ../examples/thermostat/client.cpp)

add_test(NAME docs.logs COMMAND ${CMAKE_CURRENT_LIST_DIR}/check-logs
    ${CMAKE_CURRENT_LIST_DIR}/../docs/logs.md ${CMAKE_CURRENT_LIST_DIR}/../src)

set_tests_properties(examples.thermostat examples.epoll_client examples.one_interface examples.calls_in_flight examples.timers
    examples.surviving_client examples.client_without_server examples.policy_that_allows examples.policy_that_refuses
    examples.local_test examples.python_client examples.python_client_values ${further_tests}
    docs.readme docs.guide docs.logs
    PROPERTIES TIMEOUT 90)
