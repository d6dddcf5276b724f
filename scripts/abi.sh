#!/usr/bin/env bash
# The module's interface against its recorded baseline, both sides of it:
# what it exports (pellixcenter.abi: symbols and the layout of their types,
# compared by abidiff) and the platform symbols it leaves for the device's
# libraries to define (pellixcenter.undefined: a build that needs one more may
# not load on an image that lacks it).
#   scripts/abi.sh [OPTIONS] [MODULE]            compare; non-zero on any change
#   scripts/abi.sh --accept [OPTIONS] [MODULE]   record MODULE as the baseline
#     --debug-info DIR   where a stripped MODULE's debug information is, by build
#                        id (/usr/lib/debug of the unpacked pellixcenter-dbgsym)
#     --baseline DIR     the baseline's folder (default: the committed abi/)
# MODULE defaults to the release tree's build/default/pellixcenter.so.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
folder=$root/abi
accept=0
debug=()
while [[ $# -gt 0 ]]; do
  case "$1" in
    --accept) accept=1; shift ;;
    --debug-info) debug=("$2"); shift 2 ;;
    --baseline) folder=$2; shift 2 ;;
    *) break ;;
  esac
done
module=${1:-$root/build/default/pellixcenter.so}
baseline=$folder/pellixcenter.abi
needs=$folder/pellixcenter.undefined

# Undefined, unversioned (the C and C++ runtimes, libcurl and OpenSSL version
# theirs) and not JsonCpp's: the platform's.
platform_needs() {
  nm -D --undefined-only "$1" | awk '$1 == "U" && $2 !~ /@/ {print $2}' | grep -Ev '^_ZN?K?4Json' | LC_ALL=C sort
}

# Without debug information abidw and abidiff see the symbols alone: a
# change of a type would pass.
if [[ ${#debug[@]} -eq 0 ]] && ! readelf -SW "$module" | grep -q '\.debug_info'; then
  echo "$module has no debug information: give its folder with --debug-info (docs/packaging.md)" >&2
  exit 2
fi
if [[ $accept -eq 1 ]]; then
  mkdir -p "$folder"
  abidw --no-corpus-path --no-show-locs ${debug[@]:+--debug-info-dir "${debug[0]}"} --out-file "$baseline" "$module"
  platform_needs "$module" >"$needs"
  echo "recorded $module as $baseline and $needs"
  exit 0
fi

status=0
abidiff --no-show-locs ${debug[@]:+--d2 "${debug[0]}"} "$baseline" "$module" || status=$?
added=$(LC_ALL=C comm -13 "$needs" <(platform_needs "$module"))
gone=$(LC_ALL=C comm -23 "$needs" <(platform_needs "$module"))
if [[ -n "$added" ]]; then
  echo "platform symbols needed that the baseline does not record (an image may lack them):"
  sed 's/^/  /' <<<"$added"
  status=1
fi
if [[ -n "$gone" ]]; then
  echo "platform symbols no longer needed (scripts/abi.sh --accept records that):"
  sed 's/^/  /' <<<"$gone"
fi
exit $status
