# Debian packages of the three install components (cmake/Install.cmake):
# `cpack -G DEB` in a build tree writes pellixcenter, pellixcenter-dev and
# pellixcenter-devkit, each with its dependencies from dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pellixcenter)
set(CPACK_PACKAGE_VENDOR "Pellix")
set(CPACK_PACKAGE_CONTACT "Pellix device software <device-software@pellix.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL module development devkit)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The shipped module and programs are stripped; their debug information goes
# into a -dbgsym package per package that has any, as files found by build id
# (/usr/lib/debug/.build-id/xx/yyyy.debug), so that a backtrace from a device
# can be symbolised with the build it came from (docs/packaging.md). CPack
# strips the files itself for that: CPACK_STRIP_FILES would leave it nothing.
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
configure_file(${CMAKE_CURRENT_LIST_DIR}/CPackProject.cmake.in ${CMAKE_BINARY_DIR}/CPackProject.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/CPackProject.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/Dbgsym.cmake)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The platform's own libraries are the device's, not any package's here:
# dpkg-shlibdeps finds the stand-ins of them in the build tree and leaves them
# out of the dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME pellixcenter)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_MODULE_DESCRIPTION
    "Web API module linking the device to a Pellix account
pellixcenter.so is loaded by the device's web API host. It serves the
account methods of the administration interface: status and profile
queries, sign-in by password, key, OAuth token or PKCE code, sign-out
behind the platform's feasibility check, registration, profile changes
and purchase history, through the platform's account-client library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME pellixcenter-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "pellixcenter (= ${PROJECT_VERSION}-1), libjsoncpp-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "Development files of the Pellix account web API module
The module's exported declarations (API table, registration form request,
HTTPS form-post client), the platform interface declarations they rest
on, a pkg-config file and a CMake package configuration for hosts that
load the module.")

set(CPACK_DEBIAN_DEVKIT_PACKAGE_NAME pellixcenter-devkit)
set(CPACK_DEBIAN_DEVKIT_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_DEVKIT_PACKAGE_DEPENDS "pellixcenter (= ${PROJECT_VERSION}-1)")
set(CPACK_DEBIAN_DEVKIT_DESCRIPTION
    "Development device for the Pellix account web API module
Stand-ins for the closed platform services the module calls, the host
harness that loads it as the device's web API host does, and webapi-host,
which runs its methods from the command line or serves them over HTTP.")

include(CPack)
