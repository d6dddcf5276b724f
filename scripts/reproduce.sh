#!/usr/bin/env bash
# Builds the Debian packages twice, from two source folders into two build
# folders, and compares them byte for byte: a build tree's own packages, and
# those of a copy of its source tree configured alike (the packaged targets
# alone, no tests) in another, differently long folder. On a mismatch it names
# the package and the file in it that differ, with diffoscope's report where
# diffoscope is installed.
#   scripts/reproduce.sh BUILD_DIR WORK_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
work=$2
src=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$build/CMakeCache.txt")
cache() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
rm -rf "$work"
mkdir -p "$work/a" "$work/b" "$work/source-of-the-second-build"

# Both builds take their times from the same commit; without git, cpack takes
# the changelog's date in both.
if [[ -z "${SOURCE_DATE_EPOCH:-}" ]] && epoch=$(git -C "$src" log -1 --format=%ct 2>/dev/null); then
  export SOURCE_DATE_EPOCH=$epoch
fi

# The source as it stands (uncommitted edits included), without build trees.
tar -C "$src" --exclude=./build --exclude=./.git --exclude="./${build#"$src"/}" -cf - . |
  tar -C "$work/source-of-the-second-build" -xf -
cmake -S "$work/source-of-the-second-build" -B "$work/build" -G Ninja -DBUILD_TESTING=OFF \
  -DCMAKE_BUILD_TYPE="$(cache CMAKE_BUILD_TYPE)" \
  -DPELLIX_TLS_STRICT_HANDSHAKE="$(cache PELLIX_TLS_STRICT_HANDSHAKE)" >/dev/null
cmake --build "$work/build" >/dev/null
(cd "$build" && cpack -G DEB -B "$work/a" >/dev/null)
(cd "$work/build" && cpack -G DEB -B "$work/b" >/dev/null)

differ=0
for a in "$work"/a/*.deb "$work"/a/*.ddeb; do
  name=${a##*/}
  b=$work/b/$name
  if [[ ! -f "$b" ]]; then
    echo "$name: made by the first build only"
    differ=1
  elif ! cmp -s "$a" "$b"; then
    differ=1
    echo "$name differs:"
    mkdir -p "$work/x/a/$name" "$work/x/b/$name"
    dpkg-deb -R "$a" "$work/x/a/$name"
    dpkg-deb -R "$b" "$work/x/b/$name"
    diff -rq "$work/x/a/$name" "$work/x/b/$name" | sed "s|$work/x/||g" || true
    if command -v diffoscope >/dev/null; then diffoscope "$a" "$b" || true; fi
  fi
done
(( differ == 0 )) || exit 1
ls "$work"/a
echo "reproducible: the same bytes from $build and $work/build"
