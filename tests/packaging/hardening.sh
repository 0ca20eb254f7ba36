#!/bin/bash
# hardening.sh PROGRAM: fails, and says what is missing, unless the program is hardened as a daemon that runs as
# root must be, and links nothing but what it is meant to.
set -uo pipefail

program=$1
header=$(readelf --file-header --wide "$program")
segments=$(readelf --program-headers --wide "$program")
dynamic=$(readelf --dynamic --wide "$program")
symbols=$(readelf --dyn-syms --wide "$program")
failures=0

expect() { # TEXT PATTERN WHAT: a line of TEXT must match.
  grep -Eq "$2" <<<"$1" || { echo "missing: $3"; failures=$((failures + 1)); }
}
refuse() { # TEXT PATTERN WHAT: no line of TEXT may match.
  ! grep -Eq "$2" <<<"$1" || { echo "must not be there: $3"; failures=$((failures + 1)); }
}

expect "$header" 'Type: +DYN' "position independent code"
expect "$dynamic" 'FLAGS_1.*\bPIE\b' "a position independent executable (-pie)"
expect "$segments" 'GNU_RELRO' "read-only relocations (-z relro)"
expect "$dynamic" '\(FLAGS(_1)?\).*\b(BIND_NOW|NOW)\b' "binding at the start (-z now)"
expect "$segments" 'GNU_STACK.* RW +0x' "a stack that isn't executable (-z noexecstack)"
expect "$symbols" ' __stack_chk_fail(@|$)' "the stack protector (-fstack-protector-strong)"
expect "$symbols" ' __(v?syslog|v?snprintf|read|memcpy)_chk(@|$)' "checked library calls (_FORTIFY_SOURCE)"
refuse "$dynamic" '\(TEXTREL\)' "relocations in the code"

allowed='^(libc|libm|libgcc_s|libstdc\+\+|libyaml-cpp|libre2|ld-linux-[a-z0-9-]+)\.so(\.[0-9.]+)?$'
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
expect "$needed" '^libc\.so\.6$' "the list of needed libraries"
stray=$(grep -Ev "$allowed" <<<"$needed")
if [[ -n $stray ]]; then
  echo "must not be linked: $stray"
  failures=$((failures + 1))
fi

[[ $failures -eq 0 ]] || exit 1
echo "hardened; links $(tr '\n' ' ' <<<"$needed")"
