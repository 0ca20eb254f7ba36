#!/bin/bash
# watchdog.sh: boots an emulated server board that has a hardware watchdog with the kernel's own module for it, and
# does tests/board/watchdog.sh. Ends with 0 if every check there has held and the unfed watchdog has bitten.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
stage=$target_dir/watchdog
log=$target_dir/watchdog.log
module=$target_dir/kernel/lib/modules/$(kernel_version)/kernel/drivers/watchdog/sbsa_gwdt.ko

# copy_libraries FILE: what it needs, and what that needs.
copy_libraries() {
  local name
  for name in $(aarch64-linux-gnu-readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    [[ ! -e $stage/lib/$name ]] || continue
    install -D "$(find "$target_dir/root/lib" "$target_dir/root/usr/lib" -name "$name" | head -n 1)" "$stage/lib/$name"
    copy_libraries "$stage/lib/$name"
  done
}

make_initramfs() {
  rm -rf "$stage" && mkdir -p "$stage"/{proc,sys,dev,tmp,board,var}
  install -D -t "$stage/bin" "$target_dir/root/bin/busybox" "$build_dir/bin/watchdog_operation"
  strip_program "$stage/bin/watchdog_operation"
  copy_libraries "$stage/bin/watchdog_operation"
  install -m 0644 "$module" "$stage/var/sbsa_gwdt.ko"
  cp "$source_dir/tests/board/expect.sh" "$stage/board/"
  install -m 0755 "$source_dir/tests/board/watchdog.sh" "$stage/init"
  pack_initramfs "$stage" "$target_dir/watchdog.gz"
}

boot() {
  local size
  size=$(stat -c %s "$target_dir/watchdog.gz")
  # The emulator tells a start of 32 bits only for the initramfs, and memory begins at 1 TiB. A machine that is
  # reset ends the emulator; without firmware nothing else does.
  timeout --foreground 300 qemu-system-aarch64 -M sbsa-ref -cpu cortex-a57 -smp 1 -m 1024 -accel tcg \
    -nographic -global VGA.romfile= -nic none -no-reboot -nodefaults -serial "file:$log" -monitor none \
    -kernel "$target_dir/kernel/boot/vmlinuz-$(kernel_version)" -initrd "$target_dir/watchdog.gz" \
    -dtb "$target_dir/sbsa.dtb" -append "console=ttyAMA0 earlycon=pl011,0x60000000 initrd=0x10008000000,$size \
loglevel=4 panic=-1 procmgr=nowatchdog qelmode=kernel_utils" </dev/null
}

echo 'arm64: watchdog'
make_initramfs
dtc -q -I dts -O dtb -o "$target_dir/sbsa.dtb" "$source_dir/tests/board/sbsa.dts"
rm -f "$log"
boot || { echo 'arm64: the watchdog has not reset the machine' >&2; tail -n 20 "$log" >&2; exit 1; }
verdict "$log"
grep -aq '^unfed' "$log" || { echo 'arm64: reset before its time' >&2; exit 1; }
! grep -aq 'alive after 60 s' "$log" || { echo 'arm64: the watchdog bites late' >&2; exit 1; }
echo "arm64: unfed, it has reset the machine; last sign: $(grep -a '^alive' "$log" | tail -n 1)"
