#!/usr/bin/env bash
# Installs the Debian packages the project needs, when any is missing.
# Idempotent, and silent when everything is already there.
#
#   install-deps.sh         what building and running webapi-host needs (the
#                           `host` preset), and curl to talk to it
#   install-deps.sh --all   also what the tests, the fuzzers, the benchmarks,
#                           the analysers and the packaging need (scripts/test.sh)
set -euo pipefail

# serve trusts its own account service without the machine's CA bundle.
packages=(
  cmake ninja-build g++ pkg-config
  libjsoncpp-dev libcurl4-openssl-dev libssl-dev libsqlite3-dev libcpp-httplib-dev curl
  libvalijson-dev rapidjson-dev
)
case "${1:-}" in
  "") ;;
  --all)
    packages+=(
      binutils openssl ca-certificates libseccomp-dev libgtest-dev libgmock-dev libbenchmark-dev wrk
      valgrind clang libclang-rt-14-dev
      abigail-tools gcovr lintian dpkg-dev file clang-tidy cppcheck clang-format git
      chromium chromium-driver python3-selenium python3-jsonschema
      nodejs npm node-har-validator
    )
    ;;
  *)
    echo "usage: $0 [--all]" >&2
    exit 2
    ;;
esac

missing=()
for p in "${packages[@]}"; do
  # A Node.js of another source (one that brings its own npm) serves as well,
  # and Debian's npm cannot be installed beside it.
  [[ $p == npm ]] && command -v npm >/dev/null && continue
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
echo "Installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq >&2
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
