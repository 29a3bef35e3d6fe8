# The Debian packages, made by CPack from a build that is configured for /usr. scripts/package does all of it.
#
# There is one package for each install component that exists.

set(NELO_RPC_DEBIAN_REVISION 1)
set(maintainer "The libnelo-rpc authors <maintainers@nelo-rpc.invalid>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nelo-rpc)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "actor-style remote procedure calls over D-Bus")
set(CPACK_PACKAGE_CONTACT ${maintainer})
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${NELO_RPC_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The number behind the library's name is that of its soname: packages of two incompatible versions can be installed
# together.
set(library libnelo-rpc${NELO_RPC_SOVERSION})
set(debian ${PROJECT_BINARY_DIR}/debian)
set(this_version "(= ${PROJECT_VERSION}-${NELO_RPC_DEBIAN_REVISION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${debian}/shlibs ${debian}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "A server offers types of objects; a client makes objects of its own there,
calls them with typed functions and receives their typed callbacks.
A call that hangs is killed and answered, and the server goes on.
.
This package has the library that programs need to run.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libnelo-rpc-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library} ${this_version}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "A server offers types of objects; a client makes objects of its own there,
calls them with typed functions and receives their typed callbacks.
.
This package has the headers, a CMake package and a pkg-config file.")

# The program's library is in no package yet when its dependencies are looked for.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME nelo-rpc-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library} ${this_version}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "It lists the servers on the bus, calls their actors, and shows callbacks
and the traffic.")

# What packages of programs need to depend on, and what has to happen when the library comes and goes.
file(WRITE ${debian}/shlibs "libnelo-rpc ${NELO_RPC_SOVERSION} ${library} (>= ${PROJECT_VERSION})\n")
file(WRITE ${debian}/triggers "activate-noawait ldconfig\n")

# What each package has to have in its folder of documents.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
    set(date --date=@$ENV{SOURCE_DATE_EPOCH})
endif()
execute_process(COMMAND date --utc --rfc-email ${date} OUTPUT_VARIABLE NELO_RPC_DEBIAN_DATE
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
configure_file(packaging/debian/changelog.in ${debian}/changelog.Debian @ONLY)
configure_file(CHANGELOG.md ${debian}/changelog COPYONLY)
execute_process(COMMAND gzip -9nf ${debian}/changelog.Debian ${debian}/changelog COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_COMPONENTS_ALL)
get_cmake_property(components COMPONENTS)
foreach(component Runtime Development tools)
    if(component IN_LIST components)
        list(APPEND CPACK_COMPONENTS_ALL ${component})
        string(TOUPPER ${component} upper)
        install(FILES ${debian}/changelog.Debian.gz ${debian}/changelog.gz packaging/debian/copyright
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
    endif()
endforeach()

include(CPack)
