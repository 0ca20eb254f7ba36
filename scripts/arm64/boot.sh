#!/bin/bash
# boot.sh IMAGE SUITE SECONDS [WORDS FOR THE KERNEL...]: boots the emulated machine of four cores with a disk of
# image.sh and lets it do tests/board/SUITE.sh; ends with 0 if every check there has held. What the machine told
# stands in SUITE.log.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
image=$1 suite=$2 seconds=$3
shift 3
log=$target_dir/$suite.log

echo "arm64: $suite"
# With -cpu max there would be pointer authentication too, but under many tests the memory groups of this
# kernel crash with it in this emulator.
timeout --foreground "$seconds" qemu-system-aarch64 -M virt -cpu cortex-a72 -smp 4 -m 4096 -accel tcg,thread=multi \
  -nographic -no-reboot -nodefaults -serial "file:$log" -monitor none \
  -kernel "$target_dir/kernel/boot/vmlinuz-$(kernel_version)" -initrd "$target_dir/initramfs.gz" \
  -drive "if=none,id=d,file=$target_dir/$image.img,format=raw,snapshot=on,cache=unsafe" \
  -device virtio-blk-device,drive=d \
  -append "console=ttyAMA0 loglevel=4 panic=-1 systemd.unified_cgroup_hierarchy=0 board=$suite $*" </dev/null ||
  echo "arm64: the machine ended with status $?" >&2
verdict "$log"
