# What `cmake --install` puts where, in three components, and the Debian
# packages CPack makes of them:
#   module       pellixcenter.so in the library directory's pellixcenter/ folder:
#                what a device image needs, nothing else;
#   development  the module's exported declarations (and the platform interface
#                declarations they include), a pkg-config file and a CMake
#                package config, for a host project;
#   devkit       the platform stand-ins, the host harness, the log capture and
#                the trust library, webapi-host and the administration page: a
#                development device on a workstation.
# Debian's multiarch library directory, as for any library of the image.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(PELLIX_MODULE_DIR ${CMAKE_INSTALL_LIBDIR}/pellixcenter)
set(PELLIX_DEVKIT_DIR ${CMAKE_INSTALL_LIBDIR}/pellixcenter/devkit)
set(PELLIX_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/pellixcenter)

# On the device the platform's libraries are where the loader looks anyway:
# the module carries no search path of its own.
install(TARGETS pellixcenter LIBRARY DESTINATION ${PELLIX_MODULE_DIR} COMPONENT module)

install(FILES include/pellixcenter.h include/account_register.h include/https_request.h
        DESTINATION ${PELLIX_INCLUDE_DIR} COMPONENT development)
install(DIRECTORY include/talv DESTINATION ${PELLIX_INCLUDE_DIR} COMPONENT development)
file(RELATIVE_PATH PELLIX_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" PELLIX_PC_TO_PREFIX "${PELLIX_PC_TO_PREFIX}")
configure_file(cmake/pellixcenter.pc.in ${CMAKE_BINARY_DIR}/pellixcenter.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/pellixcenter.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
# The module's own documentation, and the minimal host that docs/platform.md
# describes, for those who write a host.
install(FILES docs/api.md docs/platform.md docs/security.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/pellixcenter-dev
        COMPONENT development)
install(FILES examples/minimal_host.cpp examples/CMakeLists.txt
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/pellixcenter-dev/examples COMPONENT development)
configure_package_config_file(cmake/pellixcenterConfig.cmake.in ${CMAKE_BINARY_DIR}/pellixcenterConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pellixcenter
                              PATH_VARS PELLIX_MODULE_DIR PELLIX_INCLUDE_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/pellixcenterConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/pellixcenterConfig.cmake ${CMAKE_BINARY_DIR}/pellixcenterConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pellixcenter COMPONENT development)

# The stand-ins find each other beside themselves.
set(PELLIX_STANDINS talvseam tlibc talvwebapi talvpellix talvsdk talvcloud talvrelay talvfeasibility syslogcapture
                    trustbundle)
set_target_properties(${PELLIX_STANDINS} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${PELLIX_STANDINS} LIBRARY DESTINATION ${PELLIX_DEVKIT_DIR} COMPONENT devkit)
install(TARGETS webapihost ARCHIVE DESTINATION ${PELLIX_DEVKIT_DIR} COMPONENT devkit)

# webapi-host loads the installed module, whose platform libraries are the
# stand-ins here: the host links every one of them (kept even where it uses
# none of their symbols), so that the module's needs are met by what is
# already loaded, and finds them through its own search path.
file(RELATIVE_PATH PELLIX_MODULE_FROM_BIN /${CMAKE_INSTALL_BINDIR} /${PELLIX_MODULE_DIR}/pellixcenter.so)
file(RELATIVE_PATH PELLIX_DEVKIT_FROM_BIN /${CMAKE_INSTALL_BINDIR} /${PELLIX_DEVKIT_DIR})
target_compile_definitions(webapi-host PRIVATE PELLIX_INSTALLED_MODULE="${PELLIX_MODULE_FROM_BIN}")
target_link_libraries(webapi-host PRIVATE talvwebapi talvpellix tlibc talvsdk talvcloud talvrelay talvfeasibility)
target_link_options(webapi-host PRIVATE LINKER:--no-as-needed)
set_target_properties(webapi-host PROPERTIES INSTALL_RPATH "$ORIGIN/${PELLIX_DEVKIT_FROM_BIN}")
# The build tree's webapi-host records the source tree's web/ folder, so that
# an edit to the page shows at the next reload; the one the packages ship is
# the same program without that path (it finds the installed page beside
# itself), so that the packages are the same bytes from any folder. The
# instrumented trees make no packages and build only the first.
if(PELLIX_SANITIZE OR PELLIX_VALGRIND OR PELLIX_FUZZ OR PELLIX_COVERAGE)
  install(TARGETS webapi-host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT devkit)
else()
  add_executable(webapi-host-installed ${PROJECT_SOURCE_DIR}/host/webapi_host.cpp)
  foreach(property LINK_LIBRARIES LINK_OPTIONS COMPILE_DEFINITIONS INSTALL_RPATH)
    get_target_property(value webapi-host ${property})
    list(FILTER value EXCLUDE REGEX "^WEBAPI_HOST_(PAGES|SCHEMA|FIXTURES)=")
    set_property(TARGET webapi-host-installed PROPERTY ${property} "${value}")
  endforeach()
  set_target_properties(webapi-host-installed PROPERTIES OUTPUT_NAME webapi-host
                        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/installed)
  install(TARGETS webapi-host-installed RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT devkit)
endif()
# webapi-host looks for its administration page in ../share/webapi-host/web
# from its own folder before the source tree's web/; web/types/ is the page's
# type check (tsconfig.json, the pinned TypeScript), not a part of it.
install(DIRECTORY web/ DESTINATION ${CMAKE_INSTALL_DATADIR}/webapi-host/web COMPONENT devkit
        PATTERN types EXCLUDE)
# The description of the web API, which serve answers at /webapi/schema.json.
install(FILES docs/webapi.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/webapi-host COMPONENT devkit)
# The named state documents of `serve --seed NAME`, found the same way.
install(DIRECTORY dev/fixtures/ DESTINATION ${CMAKE_INSTALL_DATADIR}/webapi-host/fixtures COMPONENT devkit)
# The manual page names the project's version.
configure_file(packaging/webapi-host.1 ${CMAKE_BINARY_DIR}/webapi-host.1 @ONLY)
set(PELLIX_MANPAGE ${CMAKE_BINARY_DIR}/webapi-host.1.gz)
add_custom_command(OUTPUT ${PELLIX_MANPAGE}
                   COMMAND gzip -9n -c ${CMAKE_BINARY_DIR}/webapi-host.1 > ${PELLIX_MANPAGE}
                   DEPENDS ${CMAKE_BINARY_DIR}/webapi-host.1)
add_custom_target(manpage ALL DEPENDS ${PELLIX_MANPAGE})
install(FILES ${PELLIX_MANPAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT devkit)
install(FILES host/harness.h host/syslog_capture.h host/trust.h DESTINATION ${PELLIX_INCLUDE_DIR}/devkit COMPONENT devkit)
install(DIRECTORY platform/ DESTINATION ${PELLIX_INCLUDE_DIR}/devkit COMPONENT devkit
        FILES_MATCHING PATTERN "*.h")

# Each package's copyright and changelog, as Debian policy wants them.
set(PELLIX_CHANGELOG ${CMAKE_BINARY_DIR}/changelog.Debian.gz)
add_custom_command(OUTPUT ${PELLIX_CHANGELOG}
                   COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog > ${PELLIX_CHANGELOG}
                   DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog)
add_custom_target(changelog ALL DEPENDS ${PELLIX_CHANGELOG})
foreach(component_package module:pellixcenter development:pellixcenter-dev devkit:pellixcenter-devkit)
  string(REPLACE ":" ";" pair ${component_package})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES packaging/copyright ${PELLIX_CHANGELOG} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
          COMPONENT ${component})
endforeach()
