# Run by cpack once the packages are made (CPACK_POST_BUILD_SCRIPTS). CPack's
# -dbgsym packages list their files in DEBIAN/md5sums under the absolute path
# of cpack's staging folder rather than relative to the root, as dpkg and
# debsums read them (and as every other package has them), and install the
# .debug files executable, and give no copyright or changelog: each is rebuilt
# with dpkg-deb, its md5sums relative, its files 0644, its documentation folder
# a link to its package's (as debhelper makes them; it depends on exactly that
# version), its members sorted and timed by SOURCE_DATE_EPOCH.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  if(NOT package MATCHES "\\.ddeb$")
    continue()
  endif()
  set(root "${package}.root")
  file(REMOVE_RECURSE "${root}")
  execute_process(COMMAND dpkg-deb -R "${package}" "${root}" COMMAND_ERROR_IS_FATAL ANY)
  file(READ "${root}/DEBIAN/md5sums" sums)
  string(REGEX REPLACE "  /[^\n]*-dbgsym/" "  " sums "${sums}")
  file(WRITE "${root}/DEBIAN/md5sums" "${sums}")
  file(GLOB_RECURSE debug_files "${root}/usr/*")
  file(CHMOD ${debug_files} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(STRINGS "${root}/DEBIAN/control" name REGEX "^Package: ")
  string(REGEX REPLACE "^Package: (.*)-dbgsym$" "\\1" name "${name}")
  file(MAKE_DIRECTORY "${root}/usr/share/doc")
  file(CREATE_LINK "${name}" "${root}/usr/share/doc/${name}-dbgsym" SYMBOLIC)
  execute_process(COMMAND dpkg-deb --root-owner-group --build "${root}" "${package}"
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${root}")
endforeach()
