#!/bin/bash
# install.sh BUILD_FOLDER VERSION: what is installed is whole, finds its libraries without the build folder, and
# each program tells what it is.
set -euo pipefail

build=$1 version=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
fail() {
  echo "install: $*"
  exit 1
}

DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null

for file in sbin/process-manager bin/pmcheck bin/pmctl share/man/man1/pmctl.1 \
  bin/pm-notify share/man/man1/pm-notify.1 share/bash-completion/completions/pm-notify \
  share/bash-completion/completions/pmctl share/man/man8/process-manager.8 \
  libexec/process-manager/iammgr libexec/process-manager/operator \
  share/process-manager/service-file.schema.json \
  lib/systemd/system/process-manager.service lib/tmpfiles.d/process-manager.conf \
  include/process-manager/process_manager_agent_c.h lib/python3/dist-packages/process_manager.py; do
  [[ -s $stage/usr/$file ]] || fail "/usr/$file is missing"
done

library=$(find "$stage/usr" -name libprocess_manager_agent.so.1)
[[ -s $library ]] || fail "the library for C is missing"
# A program that isn't built with a sanitizer can't load a library that is.
grep -q '^PM_SANITIZE:STRING=.' "$build/CMakeCache.txt" ||
  [[ $(LD_LIBRARY_PATH=${library%/*} PYTHONPATH=$stage/usr/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1 \
    python3 -c 'import process_manager; print(process_manager.version())') == "$version" ]] ||
  fail "the installed binding doesn't tell its version"

# Each stands in an empty folder, and leaves it empty.
mkdir "$stage/here"
cd "$stage/here"
for program in "$stage"/usr/{bin,sbin,libexec/process-manager}/*; do
  name=${program##*/}
  [[ $(timeout 20 "$program" --version 2>&1) == "$name $version" ]] || fail "$name doesn't tell its version"
  for option in -h --help; do
    told=$(timeout 20 "$program" "$option" 2>"$stage/err") || fail "$name $option fails"
    [[ ${told,,} == *"usage: $name "* ]] || fail "$name $option doesn't tell how to use it"
    [[ ! -s $stage/err ]] || fail "$name $option writes to standard error"
  done
  [[ -z $(ls -A) ]] || fail "$name leaves $(ls -A) behind"
done

daemon=$stage/usr/sbin/process-manager
! readelf --dynamic "$daemon" | grep -Eq 'RPATH|RUNPATH' || fail "the daemon looks for libraries in the build folder"

unit=$stage/usr/lib/systemd/system/process-manager.service
file=$(sed -n 's|^ExecStart=/usr/sbin/process-manager ||p' "$unit")
[[ -n $file ]] || fail "the unit doesn't start the installed daemon"
grep -qx "AssertPathExists=$file" "$unit" || fail "a start without $file doesn't say so"
for told in "$("$stage/usr/sbin/process-manager" --help)" "$(<"$stage/usr/share/man/man8/process-manager.8")"; do
  [[ $told == *"$file"* ]] || fail "an integrator isn't told of $file"
done

status=0
told=$("$daemon" 2>&1 </dev/null) || status=$?
[[ $status -eq 255 ]] || fail "started without arguments it ends with $status, not 255"
[[ $told == *"usage:"* ]] || fail "it doesn't say what is missing: '$told'"
