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
# Two tests take a tool from the npm registry, at the version its lock file
# pins: the Vite dev server of a browser test, and TypeScript for the page's
# type check (page.types). Where the registry cannot be reached (or its
# certificate is not trusted here) those two are skipped, which this says and
# ctest's summary lists; every other test still runs.
for tool in tests/browser/vite web/types; do
  if ! said=$(npm ci --prefix "$tool" --no-audit --no-fund 2>&1); then
    echo "test.sh: npm ci --prefix $tool failed, so the tests that need it are skipped:" >&2
    grep -m 2 -E ' code |reason: ' <<<"$said" >&2 || true
  fi
done
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
