#!/bin/bash
# The init of the emulated machine: prepares it as a board is prepared, does the suite that the kernel command
# line names (board=NAME: /board/NAME.sh), tells how many checks have held, and switches off.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin:/opt/platform/bin LC_ALL=C HOME=/root
exec </dev/console >/dev/console 2>&1
for link in fd:self/fd stdin:self/fd/0 stdout:self/fd/1 stderr:self/fd/2; do ln -sfn "/proc/${link#*:}" "/dev/${link%%:*}"; done
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs -o mode=755 tmpfs /run
mkdir -p /run/lock
busybox hostname board
ip link set lo up
modprobe overlay
mount -t tmpfs -o mode=755 tmpfs /sys/fs/cgroup
for hierarchy in cpu memory cpuset; do
  mkdir -p /sys/fs/cgroup/$hierarchy
  mount -t cgroup -o $hierarchy cgroup /sys/fs/cgroup/$hierarchy
done

source /board/expect.sh
source /board/manager.sh
make_groups 0-2
suite=$(sed -n 's/.*board=\([^ ]*\).*/\1/p' /proc/cmdline)
echo "machine: $(uname -srm), $(nproc) cores; $(cat /proc/cmdline)"
if [[ -e /board/$suite.sh ]]; then source "/board/$suite.sh"; else fail "there is no suite '$suite'"; fi
[[ $failures -eq 0 ]] || sed 's/^/log: /' $kMessages
echo "kernel: $(dmesg -l warn,err,crit,alert,emerg | tail -n 12)"
echo "board: $checks checks, $failures failed"
sync
echo o >/proc/sysrq-trigger
sleep 30
