# Where the program is that the scripts try, and what is installed with it.
foreach(script IN LISTS scripts)
    cmake_path(GET script STEM name)
    set_property(TEST ${suite}.${name} APPEND PROPERTY ENVIRONMENT
        "NELO_RPC_TOOL=$<TARGET_FILE:nelo-rpc-tool>"
        "NELO_RPC_TOOL_SOURCE=${PROJECT_SOURCE_DIR}/tools")
endforeach()
