# Code that must not compile, and what the compiler must say about it. Each compile_fail/*.cpp is one test. The lines
# behind "// EXPECT:" in it are texts that the message must contain; a file without such a line must compile, which
# shows that the others fail for the reason they name and not for a missing header.
file(GLOB snippets CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/compile_fail/*.cpp)
foreach(snippet IN LISTS snippets)
    cmake_path(GET snippet STEM name)
    add_test(NAME unit.compile_fail.${name}
        COMMAND ${CMAKE_COMMAND}
            -D COMPILER=${CMAKE_CXX_COMPILER}
            -D INCLUDE_DIR=${PROJECT_SOURCE_DIR}/include
            -D SNIPPET=${snippet}
            -P ${CMAKE_CURRENT_LIST_DIR}/compile_fail/check.cmake)
    set_tests_properties(unit.compile_fail.${name} PROPERTIES TIMEOUT 60 LABELS unit_tests)
endforeach()
