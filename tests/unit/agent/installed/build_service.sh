#!/bin/bash
# build_service.sh BUILD_FOLDER SERVICE_SOURCE COMPILER [FLAGS...]: installs the agent library into a folder of
# its own, moves it elsewhere, and builds the service against it, once with CMake and once with pkg-config. Both
# programs must start and say what they miss.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$1
source=$2
compiler=$3
shift 3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --component agent --prefix "$work/first" >/dev/null
# Nothing that was installed may point back to where it was installed or built.
mv "$work/first" "$work/moved"
package=$(find "$work/moved" -name ProcessManagerAgentConfig.cmake -printf %h)
pc=$(find "$work/moved" -name process-manager-agent.pc)
if grep -rIlE "$work/first|$build" "$work/moved"; then
  echo "the installed files above name folders of the build" >&2
  exit 1
fi

cmake -G Ninja -S "$here" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$*" \
  -DProcessManagerAgent_DIR="$package" -DSERVICE_SOURCE="$source" >/dev/null
cmake --build "$work/build" >/dev/null

export PKG_CONFIG_PATH=$(dirname "$pc")
# The flags are words, not one text.
# shellcheck disable=SC2046
"$compiler" -std=c++20 "$@" $(pkg-config --cflags process-manager-agent) -o "$work/by_pkg_config" "$source" \
  $(pkg-config --libs process-manager-agent)

for program in "$work/build/service" "$work/by_pkg_config"; do
  status=0
  output=$(env -u PROC_NAME "$program" 2>&1) || status=$?
  if [ "$status" != 1 ] || [[ $output != *"create the agent: not a service's name"* ]]; then
    echo "$program ended with $status and said: $output" >&2
    exit 1
  fi
done
