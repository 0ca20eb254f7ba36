#!/bin/bash
# install.sh BUILD_FOLDER: what is installed is whole, finds its libraries without the build folder, and starts.
set -euo pipefail

build=$1
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
version=$(LD_LIBRARY_PATH=${library%/*} PYTHONPATH=$stage/usr/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1 \
  python3 -c 'import process_manager; print(process_manager.version())') || fail "the installed binding doesn't load"
[[ $("$stage/usr/bin/pm-notify" --version) == "pm-notify $version" ]] || fail "the versions differ"

daemon=$stage/usr/sbin/process-manager
! readelf --dynamic "$daemon" | grep -Eq 'RPATH|RUNPATH' || fail "the daemon looks for libraries in the build folder"

grep -q "^ExecStart=/usr/sbin/process-manager " "$stage/usr/lib/systemd/system/process-manager.service" ||
  fail "the unit doesn't start the installed daemon"

status=0
told=$("$daemon" 2>&1 </dev/null) || status=$?
[[ $status -eq 255 ]] || fail "started without arguments it ends with $status, not 255"
[[ $told == *"usage:"* ]] || fail "it doesn't say what is missing: '$told'"
