#!/usr/bin/env bash
# Installs what is missing, builds every tree and runs its tests: the
# sanitizer tree, the valgrind tree (every test under memcheck), the fuzz tree
# (each libFuzzer target for PELLIX_FUZZ_SECONDS, 60 by default), the coverage
# tree (fails below its threshold), and last the release tree: its tests that
# need trust in a local service once more where namespaces are refused, then
# all of them with the ABI check, so that the output ends with ctest's own
# summary.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh --all
# The Vite dev server of a browser test, at the version its lock file pins.
npm ci --prefix tests/browser/vite --no-audit --no-fund >/dev/null
# TypeScript, at the version its lock file pins, for the page's type check (page.types).
npm ci --prefix web/types --no-audit --no-fund >/dev/null
jobs=$(nproc)

cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs"

cmake --preset valgrind >/dev/null
cmake --build --preset valgrind -j "$jobs"
ctest --preset valgrind -j "$jobs"

cmake --preset fuzz -DPELLIX_FUZZ_SECONDS="${PELLIX_FUZZ_SECONDS:-60}" >/dev/null
cmake --build --preset fuzz -j "$jobs"
ctest --preset fuzz -j "$jobs"

bash scripts/coverage.sh
bash scripts/analyze.sh

cmake --preset default >/dev/null
cmake --build --preset default -j "$jobs"
# Trust in the local services needs no namespace: where the kernel refuses
# them, every test labelled `trust` runs and passes (a skip would hide just
# what this is for).
if build/default/without-namespaces unshare --mount true 2>/dev/null; then
  echo "without-namespaces let a mount namespace be made" >&2
  exit 1
fi
build/default/without-namespaces ctest --preset default -L trust -j "$jobs" | tee build/default/trust.log
if grep -q "did not run" build/default/trust.log; then
  echo "tests that need trust did not run where namespaces are refused" >&2
  exit 1
fi
ctest --preset default -j "$jobs"
