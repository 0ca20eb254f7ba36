#!/bin/busybox sh
# The first program of the emulated machine: finds the disk and hands over to it.
B=/bin/busybox
$B mount -t proc proc /proc
$B mount -t sysfs sysfs /sys
$B mount -t devtmpfs devtmpfs /dev
for module in /modules/*.ko; do $B insmod "$module"; done
tries=0
while [ ! -b /dev/vda ] && [ $tries -lt 100 ]; do
  $B sleep 0.1
  tries=$((tries + 1))
done
$B mount -t ext4 /dev/vda /new || { echo "board: no disk"; $B poweroff -f; }
for folder in dev sys proc; do $B mount --move /$folder /new/$folder; done
exec $B switch_root /new /sbin/board-init
