# Warnings for the project's own code, never for its users.
function(nelo_rpc_own_code target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
    if(NELO_RPC_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

if(NELO_RPC_SANITIZE)
    add_compile_options(-fsanitize=${NELO_RPC_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${NELO_RPC_SANITIZE})
endif()
