#!/usr/bin/env bash
# The Debian packages as a device image or a workstation gets them: built
# from the release tree, unpacked into a temporary root, and the unpacked
# webapi-host runs the unpacked module (a query answers as on a device where
# nobody is signed in). The binaries are hardened, as built and as shipped;
# the shipped ones are stripped and their debug information is in the -dbgsym
# packages. Then lintian reads them; the one warning that stays is explained
# in docs/packaging.md.
#   package_test.sh BUILD_DIR WORK_DIR
set -euo pipefail
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work/root"
scripts=$(dirname "$0")/../scripts
(cd "$build" && cpack -G DEB -B "$work/debs" >/dev/null)
ls "$work"/debs/*.deb "$work"/debs/*.ddeb
for deb in "$work"/debs/*.deb "$work"/debs/*.ddeb; do dpkg -x "$deb" "$work/root"; done

module=$(find "$work/root" -name pellixcenter.so)
[[ -n "$module" ]] || { echo "no module in the packages"; exit 1; }
# Hardened as built and as shipped.
"$scripts/hardening.sh" "$build"/pellixcenter.so "$build"/installed/webapi-host "$build"/lib*.so \
  "$module" "$work"/root/usr/bin/webapi-host "$work"/root/usr/lib/*/pellixcenter/devkit/*.so
# Shipped stripped, its debug information found by build id in the -dbgsym
# package, naming the module's own sources.
if readelf -SW "$module" | grep -q '\.debug_info'; then echo "the shipped module is not stripped"; exit 1; fi
id=$(readelf -n "$module" | sed -n 's/.*Build ID: //p')
debug=$work/root/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
[[ -f "$debug" ]] || { echo "no debug information for build id $id"; exit 1; }
at=$(nm -D "$module" | sed -n 's/^\([0-9a-f]*\) T GetAPITable$/0x\1/p')
addr2line -e "$debug" "$at" | grep -q '^/usr/src/pellixcenter/src/pellixcenter.cpp:[0-9]' ||
  { echo "GetAPITable ($at) is not symbolised: $(addr2line -e "$debug" "$at")"; exit 1; }
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

lintian --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "$work"/debs/*.deb "$work"/debs/*.ddeb
echo "packages: unpacked module answers, lintian clean"
