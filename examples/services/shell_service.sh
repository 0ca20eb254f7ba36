#!/bin/sh
# A complete base service in shell. pm-notify speaks to the manager for it; this script only writes
# a file when it is ready, and ends when it is asked to. Its entry in the service file:
#
#   - appName: shell_service
#     binPath: /usr/bin/pm-notify
#     arguments: [--name, shell_service, --serve, --beat, --ready-when,
#                 /opt/platform/bin/shell_service.sh --is-ready /run/shell_service.ready,
#                 --, /opt/platform/bin/shell_service.sh, --serve, /run/shell_service.ready]
#     uid: root
#     gid: root
#     isReporting: true
#     restart: on-failure
ready=$2

# The file may be the one of a service that died: only the one that runs now counts.
if [ "$1" = --is-ready ]; then
  [ "$(cat "$ready" 2>/dev/null)" = "$MAINPID" ]
  exit
fi

goodbye() {
  rm -f "$ready"
  kill "$pause" 2>/dev/null
  exit 0
}
trap goodbye TERM INT

# A real service gets ready here.
echo $$ >"$ready"

while :; do
  # And does its work here. The shell waits for the sleep, because a signal ends that at once.
  sleep 1 &
  pause=$!
  wait "$pause"
done
