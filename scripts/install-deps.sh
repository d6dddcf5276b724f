#!/usr/bin/env bash
# Installs the Debian packages the project needs, when any is missing.
# Idempotent, and silent when everything is already there.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config binutils
  libjsoncpp-dev libcurl4-openssl-dev libssl-dev openssl ca-certificates curl libseccomp-dev
  libgtest-dev libgmock-dev libbenchmark-dev wrk libcpp-httplib-dev libsqlite3-dev
  valgrind clang libclang-rt-14-dev
  abigail-tools gcovr lintian dpkg-dev file clang-tidy cppcheck clang-format
  chromium chromium-driver python3-selenium
)

missing=()
for p in "${packages[@]}"; do
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
