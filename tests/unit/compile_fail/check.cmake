# usage: cmake -D COMPILER=... -D INCLUDE_DIR=... -D SNIPPET=... -P check.cmake
# Compiles a snippet and holds the outcome against its "// EXPECT:" lines.

file(STRINGS ${SNIPPET} expectations REGEX "^// EXPECT: ")
execute_process(
    COMMAND ${COMPILER} -std=c++17 -fsyntax-only -I${INCLUDE_DIR} ${SNIPPET}
    RESULT_VARIABLE result
    OUTPUT_VARIABLE output
    ERROR_VARIABLE output)

if(NOT expectations)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${SNIPPET} does not compile:\n${output}")
    endif()
    return()
endif()

if(result EQUAL 0)
    message(FATAL_ERROR "${SNIPPET} compiles, but should not")
endif()
foreach(expectation IN LISTS expectations)
    string(REGEX REPLACE "^// EXPECT: " "" text "${expectation}")
    string(FIND "${output}" "${text}" position)
    if(position EQUAL -1)
        message(FATAL_ERROR "the compiler does not say '${text}' about ${SNIPPET} but:\n${output}")
    endif()
endforeach()
