#!/usr/bin/env bash
# The module's exported interface against its recorded baseline.
#   scripts/abi.sh [MODULE]            compare (abidiff); non-zero on any change
#   scripts/abi.sh --accept [MODULE]   record MODULE's interface as the new baseline
# MODULE defaults to the release tree's build/default/pellixcenter.so.
set -euo pipefail
cd "$(dirname "$0")/.."
baseline=abi/pellixcenter.abi
accept=0
if [[ "${1:-}" == "--accept" ]]; then
  accept=1
  shift
fi
module=${1:-build/default/pellixcenter.so}
if [[ $accept -eq 1 ]]; then
  abidw --no-corpus-path --no-show-locs --out-file "$baseline" "$module"
  echo "recorded $module as $baseline"
  exit 0
fi
abidiff --no-show-locs "$baseline" "$module"
