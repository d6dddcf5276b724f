# The release and package builds: hardened as a Debian package is by default
# (dpkg-buildflags with hardening=+all), and reproducible (the same bytes from
# any source and build folder). The sanitizer, valgrind, fuzz and coverage
# trees keep their own flags: their instrumentation is what they test.
if(PELLIX_SANITIZE OR PELLIX_VALGRIND OR PELLIX_FUZZ OR PELLIX_COVERAGE)
  return()
endif()

include(CheckCXXCompilerFlag)
include(CheckPIESupported)
# Programs are position-independent executables (CMAKE_POSITION_INDEPENDENT_CODE
# alone compiles them so, but links them as PIE only once this says it can).
check_pie_supported(LANGUAGES C CXX)

# The module reads network input in a process that raises its effective ids
# to root: a smashed stack or a fortifiable overflow ends the process rather
# than run on.
add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security)
# Not every target has them (control-flow protection is x86's).
foreach(flag -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "PELLIX_HAS${flag}" var)
  check_cxx_compiler_flag(${flag} ${var})
  if(${var})
    add_compile_options(${flag})
  endif()
endforeach()
# _FORTIFY_SOURCE needs the optimiser; a Debug build here would only warn.
add_compile_definitions($<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
# Every relocation done at load time, then the tables made read-only.
add_link_options(LINKER:-z,relro LINKER:-z,now)

# No build path in any file: the debug information and __FILE__ name the
# source tree as /usr/src/pellixcenter and the build tree as its build/ (the
# build tree's map comes last, so it wins where the build tree lies inside the
# source tree); build-tree programs find the libraries beside them through
# $ORIGIN rather than the build folder's path.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=/usr/src/pellixcenter
                    -ffile-prefix-map=${PROJECT_BINARY_DIR}=/usr/src/pellixcenter/build)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
# Installed folders 0755 whatever the umask of the one who builds.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
