# What a server needs to run on a system bus.
#
#   nelo_rpc_add_service(
#       NAME <bus name>             the name that the server gives its port
#       TARGET <target>             the server's executable; install it with install(TARGETS)
#       USER <user>                 who runs it; the user has to exist when the bus reads the policy
#       [GROUP <group> | EVERYBODY] who may call it beside that user and root
#       [ACTIVATABLE]               the bus starts it when it is called
#       [DESCRIPTION <text>]        for systemd; default: the target and the name
#       [DESTINATION <folder>])     where the executable is installed; default: CMAKE_INSTALL_BINDIR
#
# Makes and installs
#
#   share/dbus-1/system.d/<name>.conf               the policy of the bus
#   lib/systemd/system/<target>.service             a unit with few rights
#   share/dbus-1/system-services/<name>.service     the activation file, if ACTIVATABLE
#
# under the prefix. The bus reads the first from /usr and /etc alone: for a prefix other than /usr set
# NELO_RPC_POLICY_DIR to /etc/dbus-1/system.d. The unit and the activation file name the executable under
# CMAKE_INSTALL_PREFIX: to stage an installation use DESTDIR, and not `cmake --install --prefix`. Since 0.1.

set(NELO_RPC_POLICY_DIR share/dbus-1/system.d CACHE STRING "Where bus policies are installed")

# The files of a service, in a folder: <name>.conf, <unit>, and <name>.service for the activation.
function(nelo_rpc_write_service folder name executable unit user group everybody description)
    set(templates ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/service)
    set(caller_policies "user=\"${user}\"" "user=\"root\"")
    if(group)
        list(APPEND caller_policies "group=\"${group}\"")
    endif()
    if(everybody)
        set(caller_policies "context=\"default\"")
    endif()
    list(REMOVE_DUPLICATES caller_policies)

    file(READ ${templates}/callers.in callers_template)
    set(callers)
    foreach(caller IN LISTS caller_policies)
        string(CONFIGURE "${callers_template}" policy @ONLY)
        string(APPEND callers "${policy}")
    endforeach()
    string(REPLACE "%" "%%" description "${description}") # which systemd would take for the beginning of a specifier
    configure_file(${templates}/bus-policy.in ${folder}/${name}.conf @ONLY)
    configure_file(${templates}/unit.in ${folder}/unit/${unit} @ONLY)
    configure_file(${templates}/activation.in ${folder}/${name}.service @ONLY)
endfunction()

function(nelo_rpc_add_service)
    cmake_parse_arguments(PARSE_ARGV 0 arg "ACTIVATABLE;EVERYBODY" "NAME;TARGET;USER;GROUP;DESCRIPTION;DESTINATION" "")
    if(arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "nelo_rpc_add_service does not know: ${arg_UNPARSED_ARGUMENTS}")
    endif()
    # An empty variable, perhaps: to go on without a GROUP would be another policy than the one that was meant.
    foreach(keyword IN LISTS arg_KEYWORDS_MISSING_VALUES)
        message(FATAL_ERROR "nelo_rpc_add_service: ${keyword} has no value")
    endforeach()
    foreach(needed NAME TARGET USER)
        if(NOT arg_${needed})
            message(FATAL_ERROR "nelo_rpc_add_service needs ${needed}")
        endif()
    endforeach()
    if(NOT arg_NAME MATCHES "^[A-Za-z_-][A-Za-z0-9_-]*(\\.[A-Za-z_-][A-Za-z0-9_-]*)+$")
        message(FATAL_ERROR "nelo_rpc_add_service: ${arg_NAME} is no bus name; one looks like org.example.climate")
    endif()
    if(NOT TARGET ${arg_TARGET})
        message(FATAL_ERROR "nelo_rpc_add_service: there is no target ${arg_TARGET}")
    endif()
    if(arg_GROUP AND arg_EVERYBODY)
        message(FATAL_ERROR "nelo_rpc_add_service: GROUP and EVERYBODY exclude each other")
    endif()

    include(GNUInstallDirs)
    if(NOT arg_DESCRIPTION)
        set(arg_DESCRIPTION "${arg_TARGET}, ${arg_NAME} on the system bus")
    endif()
    if(NOT arg_DESTINATION)
        set(arg_DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
    get_target_property(program ${arg_TARGET} OUTPUT_NAME)
    if(NOT program)
        set(program ${arg_TARGET})
    endif()
    cmake_path(ABSOLUTE_PATH arg_DESTINATION BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE folder_of_program)

    set(folder ${CMAKE_CURRENT_BINARY_DIR}/services/${arg_TARGET})
    set(unit ${arg_TARGET}.service)
    nelo_rpc_write_service(${folder} ${arg_NAME} ${folder_of_program}/${program} ${unit} ${arg_USER}
        "${arg_GROUP}" "${arg_EVERYBODY}" "${arg_DESCRIPTION}")

    if(NOT IS_ABSOLUTE ${NELO_RPC_POLICY_DIR} AND NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        message(NOTICE "The bus does not read policies under ${CMAKE_INSTALL_PREFIX}: "
            "to install there, set NELO_RPC_POLICY_DIR to /etc/dbus-1/system.d")
    endif()
    install(FILES ${folder}/${arg_NAME}.conf DESTINATION ${NELO_RPC_POLICY_DIR})
    install(FILES ${folder}/unit/${unit} DESTINATION lib/systemd/system)
    if(arg_ACTIVATABLE)
        install(FILES ${folder}/${arg_NAME}.service DESTINATION share/dbus-1/system-services)
    endif()
endfunction()
