#!/bin/bash
# build_c_service.sh BUILD_FOLDER SERVICE_SOURCE COMPILER [FLAGS...]: installs the C library into a folder of its
# own, moves it elsewhere, and builds the service against it with pkg-config, by a compiler of C. The program must
# start and say what it misses.
set -euo pipefail
build=$1
source=$2
compiler=$3
shift 3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for component in agent agent_runtime; do
  cmake --install "$build" --component $component --prefix "$work/first" >/dev/null
done
mv "$work/first" "$work/moved"
export PKG_CONFIG_PATH=$(dirname "$(find "$work/moved" -name process-manager-agent-c.pc)")
# Nothing in the header may need more than a strict C11 has. The flags are words, not one text.
# shellcheck disable=SC2046
"$compiler" -std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Wpedantic -Wstrict-prototypes -Werror "$@" \
  $(pkg-config --cflags process-manager-agent-c) -o "$work/service" "$source" \
  $(pkg-config --libs process-manager-agent-c)

export LD_LIBRARY_PATH=$(dirname "$(find "$work/moved" -name 'libprocess_manager_agent.so.1')")
for name in "" PROCMGR; do
  status=0
  output=$(PROC_NAME=$name "$work/service" 2>&1) || status=$?
  if [ "$status" != 1 ] || [[ $output != *"create the agent: not a service's name (PROC_NAME"* ]]; then
    echo "the service ended with $status and said: $output" >&2
    exit 1
  fi
done
