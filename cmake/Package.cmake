# Debian packages by `cpack`: the library, and what builds against it. The library's own dependencies
# are read from it (dpkg-shlibdeps).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orbel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "orbel developers <orbel@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liborbel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Base library for robot processes")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME liborbel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "liborbel${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libjsoncpp-dev, pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers, CMake package and pkg-config file of orbel")
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
include(CPack)
