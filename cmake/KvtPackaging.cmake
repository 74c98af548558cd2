# Debian packages of the library, one per install component:
#   libkvtframework<soversion>  the shared library (component runtime)
#   libkvtframework-dev         headers, .so link, pkg-config file, CMake package
# Built by `cpack` in the build directory; installed under /usr.
set(KVT_RUNTIME_PACKAGE libkvtframework${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kvtframework)
set(CPACK_PACKAGE_VENDOR "kvtframework developers")
set(CPACK_PACKAGE_CONTACT "kvtframework developers <kvtframework@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Runtime services for networked host programs: threads, event queues, reactor, timers, DNS, sockets, message blocks, tracing")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${KVT_RUNTIME_PACKAGE})
# Depends on the libc and libstdc++ the library was linked against; the shlibs
# file and the ldconfig trigger let the system find the new library at once.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkvtframework-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${KVT_RUNTIME_PACKAGE} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "kvtframework shared library")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "kvtframework development files: headers, pkg-config file and CMake package")

include(CPack)
