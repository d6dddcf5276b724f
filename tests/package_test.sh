#!/usr/bin/env bash
# The Debian packages as a device image or a workstation gets them: built
# from the release tree, unpacked into a temporary root, and the unpacked
# webapi-host runs the unpacked module (a query answers as on a device where
# nobody is signed in). Then lintian reads them; the one warning that stays
# is explained in docs/packaging.md.
#   package_test.sh BUILD_DIR WORK_DIR
set -euo pipefail
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work/root"
(cd "$build" && cpack -G DEB -B "$work/debs" >/dev/null)
ls "$work"/debs/*.deb
for deb in "$work"/debs/*.deb; do dpkg -x "$deb" "$work/root"; done

module=$(find "$work/root" -name pellixcenter.so)
[[ -n "$module" ]] || { echo "no module in the packages"; exit 1; }
out=$(env -u PELLIXCENTER_SO "$work/root/usr/bin/webapi-host" call TALV.Core.PellixCenter 2 query '{}')
echo "$out"
[[ "$out" == '{"success":true,"data":{"is_logged_in":false}}' ]] || { echo "unexpected answer"; exit 1; }
# It was the unpacked module that answered, with the unpacked stand-ins.
out=$(env -u PELLIXCENTER_SO LD_DEBUG=libs "$work/root/usr/bin/webapi-host" list 2>&1 >/dev/null)
grep -q "calling init: $work/root/.*/pellixcenter.so" <<<"$out" || { echo "the unpacked module was not the one loaded"; exit 1; }
if grep "calling init: $build/" <<<"$out" | grep -vq "calling init: $work/"; then
  echo "something was loaded from the build tree"
  exit 1
fi

lintian --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "$work"/debs/*.deb
echo "packages: unpacked module answers, lintian clean"
