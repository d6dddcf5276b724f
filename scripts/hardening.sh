#!/usr/bin/env bash
# Checks ELF files for what a hardened Debian build gives them (the
# properties devscripts' hardening-check reads), with binutils alone:
#   BIND_NOW and GNU_RELRO   every relocation at load, then read-only;
#   __stack_chk_fail         the stack protector is in;
#   *_chk                    fortified libc calls, where it makes a call that
#                            the fortified build always replaces (the printf
#                            and syslog family, string copies, reads into a
#                            buffer); memcpy and snprintf stay unfortified
#                            wherever the compiler sees the bound, so they
#                            prove nothing either way;
#   PIE                      for programs.
#   scripts/hardening.sh [--unfortified NAME]... FILE...
# prints one line per file; non-zero if any lacks one. A file named NAME is
# not checked for fortified calls (the log capture, built without them).
set -uo pipefail
unfortified=()
while [[ "${1:-}" == --unfortified ]]; do
  unfortified+=("$2")
  shift 2
done
# The calls the fortified build replaces by their *_chk forms.
fortifiable='^(sprintf|vsprintf|printf|vprintf|fprintf|vfprintf|dprintf|syslog|vsyslog|strcpy|strcat|stpcpy|strncpy|strncat|read|pread|pread64|readlink|recv|recvfrom|poll|getcwd|realpath|fgets|gets)$'
failed=0
for file in "$@"; do
  missing=()
  dynamic=$(readelf -dW "$file" 2>/dev/null)
  headers=$(readelf -lhW "$file" 2>/dev/null)
  undefined=$(nm -D --undefined-only --format=just-symbols "$file" 2>/dev/null | sed 's/@.*//')
  grep -Eq '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' <<<"$dynamic" || missing+=(BIND_NOW)
  grep -q GNU_RELRO <<<"$headers" || missing+=(GNU_RELRO)
  grep -qx __stack_chk_fail <<<"$undefined" || missing+=(stack-protector)
  exempt=0
  for name in "${unfortified[@]}"; do [[ "${file##*/}" == "$name" ]] && exempt=1; done
  if ((!exempt)) && ! grep -Eq '^__.*_chk$' <<<"$undefined" && grep -Eq "$fortifiable" <<<"$undefined"; then
    missing+=("fortify ($(grep -E "$fortifiable" <<<"$undefined" | tr '\n' ' ' | sed 's/ $//') unfortified)")
  fi
  if grep -q 'Type:.*EXEC' <<<"$headers" ||
     { grep -q 'INTERP' <<<"$headers" && ! grep -q '(FLAGS_1).*PIE' <<<"$dynamic"; }; then
    missing+=(PIE)
  fi
  if [[ ${#missing[@]} -eq 0 ]]; then
    echo "hardened: $file"
  else
    echo "NOT hardened: $file: no ${missing[*]}"
    failed=1
  fi
done
exit $failed
