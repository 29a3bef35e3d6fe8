include(CMakePackageConfigHelpers)

set(NELO_RPC_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nelo-rpc)

install(TARGETS nelo-rpc EXPORT nelo-rpc-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(DIRECTORY include/nelo_rpc DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
    FILES_MATCHING PATTERN "*.h" PATTERN testing EXCLUDE)

# find_package(nelo-rpc)
install(EXPORT nelo-rpc-targets NAMESPACE nelo_rpc:: DESTINATION ${NELO_RPC_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(cmake/nelo-rpc-config.cmake.in ${PROJECT_BINARY_DIR}/nelo-rpc-config.cmake
    INSTALL_DESTINATION ${NELO_RPC_CMAKE_DIR} NO_SET_AND_CHECK_MACRO)
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/nelo-rpc-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/nelo-rpc-config.cmake ${PROJECT_BINARY_DIR}/nelo-rpc-config-version.cmake
    DESTINATION ${NELO_RPC_CMAKE_DIR} COMPONENT Development)

# pkg-config nelo-rpc: the prefix is found from where the file lies, because `cmake --install --prefix` may choose
# another one than was configured.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(NELO_RPC_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
        OUTPUT_VARIABLE up)
    set(NELO_RPC_PC_PREFIX "\${pcfiledir}/${up}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
        set(NELO_RPC_PC_${dir} "${CMAKE_INSTALL_${dir}}")
    else()
        set(NELO_RPC_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    endif()
endforeach()
if(TARGET nelo-rpc-testing)
    install(TARGETS nelo-rpc-testing EXPORT nelo-rpc-testing-targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
    install(DIRECTORY include/nelo_rpc/testing DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nelo_rpc
        COMPONENT Development FILES_MATCHING PATTERN "*.h")
    # find_package(nelo-rpc COMPONENTS testing)
    install(EXPORT nelo-rpc-testing-targets NAMESPACE nelo_rpc:: DESTINATION ${NELO_RPC_CMAKE_DIR}
        COMPONENT Development)
    configure_file(cmake/nelo-rpc-testing.pc.in ${PROJECT_BINARY_DIR}/nelo-rpc-testing.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/nelo-rpc-testing.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT Development)
endif()
configure_file(cmake/nelo-rpc.pc.in ${PROJECT_BINARY_DIR}/nelo-rpc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nelo-rpc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# nelo_rpc_add_service, and what it makes for an example: documentation, and not in force.
install(FILES cmake/nelo-rpc-service.cmake DESTINATION ${NELO_RPC_CMAKE_DIR} COMPONENT Development)
install(DIRECTORY cmake/service DESTINATION ${NELO_RPC_CMAKE_DIR} COMPONENT Development)
include(cmake/nelo-rpc-service.cmake)
set(example ${PROJECT_BINARY_DIR}/example-service)
nelo_rpc_write_service(${example} org.example.climate /usr/bin/climate-server climate.service climate climate-users FALSE
    "Example climate server")
install(FILES ${example}/org.example.climate.conf ${example}/unit/climate.service
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT Development)
if(NOT NELO_RPC_DEBIAN_PACKAGES) # which have both under other names
    install(FILES LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Runtime)
endif()
