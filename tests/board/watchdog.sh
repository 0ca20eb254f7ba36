#!/bin/busybox sh
# The first program of the machine with the hardware watchdog: has it inserted as the manager would, and leaves it
# unfed, which must reset the machine.
B=/bin/busybox
for command in cat dmesg grep mount poweroff sleep; do eval "$command() { $B $command \"\$@\"; }"; done
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
. /board/expect.sh

is_inserted() { grep -q '^sbsa_gwdt ' /proc/modules; }
isnt_inserted() { ! is_inserted; }
kDevice=/sys/class/watchdog/watchdog0

expect 'switched off by the kernel command line: nothing to be done' watchdog_operation insert-if-allowed 20 0
expect 'switched off by the kernel command line: not inserted' isnt_inserted
expect 'insert' watchdog_operation insert 20 0
expect 'the module is there' is_inserted
expect 'insert again: nothing to be done' watchdog_operation insert 20 0
expect_text 'time-out of the device' 20 "$(cat $kDevice/timeout)"
expect_text 'before it is opened' inactive "$(cat $kDevice/state)"
expect 'a feeding device that is missing is refused' watchdog_operation no-feed /local/dev/qelutil_watchdog
# It isn't the feeding device of the platform, and doesn't know the request.
expect 'a device that knows no feeding is refused' watchdog_operation no-feed /dev/watchdog0
exec 9>/dev/watchdog0
expect_text 'opened' active "$(cat $kDevice/state)"
echo "board: $checks checks, $failures failed"
echo 'unfed: the machine must be reset'
seconds=0
while [ $seconds -lt 120 ]; do
  sleep 5
  seconds=$((seconds + 5))
  echo "alive after $seconds s"
done
poweroff -f
