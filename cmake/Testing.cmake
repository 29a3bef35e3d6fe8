# nelo-rpc-testing: what tests of an application need, and what our own tests use.

# The configuration of the private bus is compiled in, so that a test needs no file. Tests in other languages read it.
set(bus_conf ${PROJECT_SOURCE_DIR}/src/testing/bus.conf)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${bus_conf})
file(READ ${bus_conf} NELO_RPC_BUS_CONFIG)
configure_file(src/testing/BusConfig.h.in ${PROJECT_BINARY_DIR}/testing/BusConfig.h @ONLY)

file(GLOB testing_sources CONFIGURE_DEPENDS src/testing/*.cpp)
add_library(nelo-rpc-testing STATIC ${testing_sources})
add_library(nelo_rpc::nelo-rpc-testing ALIAS nelo-rpc-testing)
set_target_properties(nelo-rpc-testing PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_include_directories(nelo-rpc-testing PRIVATE ${PROJECT_BINARY_DIR}/testing)
target_link_libraries(nelo-rpc-testing PUBLIC nelo-rpc)
nelo_rpc_own_code(nelo-rpc-testing)
