#!/usr/bin/env bash
# Static analysis of the module, the host side, the simulated account service
# and the stand-ins: clang-tidy with .clang-tidy (every finding an error) over
# the release tree's compile commands, and cppcheck; then every C++ file of the
# repository against .clang-format. Exits non-zero on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
mapfile -t sources < <(git ls-files 'src/*.cpp' 'host/*.cpp' 'sim/*.cpp' 'platform/*.cpp' 'platform/**/*.cpp')
# Nothing listed is nothing checked, not a clean tree.
if [[ ${#sources[@]} -eq 0 ]]; then
  echo "analysis: git lists no sources to check (is git installed, and is this a clone?)" >&2
  exit 1
fi
status=0
for source in "${sources[@]}"; do
  clang-tidy -p build/default --quiet "$source" 2>/dev/null || status=1
done
cppcheck --enable=warning,performance,portability --std=c++17 --inline-suppr --quiet --error-exitcode=1 \
  -I include -I platform -I host -I sim src host sim platform || status=1
# `git ls-files | xargs clang-format -i` fixes what this reports.
mapfile -t formatted < <(git ls-files '*.cpp' '*.h')
clang-format --dry-run --Werror "${formatted[@]}" || status=1
if [[ $status -eq 0 ]]; then echo "analysis: clean (${#sources[@]} sources; ${#formatted[@]} files formatted)"; fi
exit $status
