#!/usr/bin/env bash
# The ABI check must notice a change that keeps every symbol but alters the
# layout of the exported table: a copy of the module is built with one field
# of the table's row type narrowed, and abidiff against the baseline must
# report an ABI change (bit 4 of its exit status) naming grgTable's type. The
# copy also calls one platform function more, which scripts/abi.sh must name.
#   abi_probe_test.sh SOURCE_DIR WORK_DIR
set -uo pipefail
src=$1
work=$2
rm -rf "$work" && mkdir -p "$work"
cp -r "$src/include" "$work/include"
sed -i 's/^  int32_t iReserved;  \/\/ always 0$/  int16_t iReserved;  \/\/ narrowed by the probe/' "$work/include/talv/webapi.h"
grep -q 'narrowed by the probe' "$work/include/talv/webapi.h" || { echo "probe: the row type was not found"; exit 1; }
echo 'int TALVProbeNewCall(); int ProbeCaller() { return TALVProbeNewCall(); }' >"$work/new_call.cpp"
g++ -std=c++17 -g -O2 -fPIC -shared -I "$work/include" $(pkg-config --cflags jsoncpp) \
  -Wl,--version-script="$src/src/pellixcenter.map" \
  "$src/src/pellixcenter.cpp" "$src/src/account_register.cpp" "$src/src/https_request.cpp" "$work/new_call.cpp" \
  -o "$work/pellixcenter.so" || { echo "probe: the copy did not build"; exit 1; }
abidiff --no-show-locs "$src/abi/pellixcenter.abi" "$work/pellixcenter.so" >"$work/report.txt"
status=$?
cat "$work/report.txt"
if (( (status & 4) == 0 )); then
  echo "probe: abidiff did not report the changed row type (exit status $status)"
  exit 1
fi
grep -q "APITableEntry" "$work/report.txt" || { echo "probe: the report does not name the row type"; exit 1; }
echo "probe: the changed row type was reported"
"$src/scripts/abi.sh" "$work/pellixcenter.so" >"$work/check.txt" && { echo "probe: scripts/abi.sh passed the copy"; exit 1; }
grep -q "^  _Z16TALVProbeNewCallv$" "$work/check.txt" || { cat "$work/check.txt"; echo "probe: the new platform call is not named"; exit 1; }
echo "probe: the new platform call was named"
