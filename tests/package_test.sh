#!/usr/bin/env bash
# The Debian packages as a device image or a workstation gets them: built
# from the release tree, unpacked into a temporary root, and the unpacked
# webapi-host runs the unpacked module (a query answers as on a device where
# nobody is signed in). The binaries are hardened, as built and as shipped;
# the shipped ones are stripped and their debug information is in the -dbgsym
# packages, where the ABI check reads them. A host of one's own (examples/)
# builds on the unpacked root and answers. Then lintian reads them; the one
# warning that stays is explained in docs/packaging.md.
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
"$scripts/hardening.sh" --unfortified libsyslogcapture.so "$build"/pellixcenter.so "$build"/installed/webapi-host "$build"/lib*.so \
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

# The ABI check reads the shipped module with the -dbgsym package's debug
# information, and refuses it without.
"$scripts/abi.sh" --debug-info "$work/root/usr/lib/debug" "$module"
if "$scripts/abi.sh" "$module" 2>/dev/null; then echo "abi.sh passed a stripped module it could not read"; exit 1; fi

# A host of one's own (examples/), built on the unpacked packages through
# pkg-config and through find_package, runs the unpacked module on the
# unpacked stand-ins of the platform's libraries.
examples=$(dirname "$0")/../examples
devkit=$(dirname "$(find "$work/root" -name libtalvwebapi.so)")
export PKG_CONFIG_PATH=$(dirname "$(find "$work/root" -name pellixcenter.pc)")
mkdir -p "$work/host-pc"
# shellcheck disable=SC2046
g++ -std=c++17 "$examples/minimal_host.cpp" -o "$work/host-pc/minimal_host" $(pkg-config --cflags pellixcenter) \
  -L"$devkit" -ltalvwebapi $(pkg-config --libs jsoncpp libcurl)
configured=$(cmake -S "$examples" -B "$work/host-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/root/usr")
cmake --build "$work/host-cmake" >/dev/null
for host in pkg-config:"$work/host-pc/minimal_host":"$(pkg-config --variable=module pellixcenter)" \
            cmake:"$work/host-cmake/minimal_host":"$(sed -n 's/^-- pellixcenter module: //p' <<<"$configured")"; do
  IFS=: read -r how program found <<<"$host"
  [[ "$(realpath "$found")" == "$(realpath "$module")" ]] || { echo "$how names the module $found"; exit 1; }
  out=$(LD_LIBRARY_PATH=$devkit "$program" "$found" TALV.Core.PellixCenter 2 query)
  [[ "$out" == '{"success":true,"data":{"is_logged_in":false}}' ]] || { echo "minimal host ($how): $out"; exit 1; }
done

lintian --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "$work"/debs/*.deb "$work"/debs/*.ddeb
echo "packages: unpacked module answers, lintian clean"
