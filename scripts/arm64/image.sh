#!/bin/bash
# image.sh NAME [with-tests]: the disk of the emulated machine, NAME.img, and its initramfs. On the disk are the root,
# what `cmake --install` installs, the example platform and the checks of tests/board; with tests the build folder
# and the sources too, under the paths they have here.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
PATH=/usr/sbin:/sbin:$PATH
name=${1:?the name of the image}
stage=$target_dir/stage.$name
modules=$target_dir/kernel/lib/modules/$(kernel_version)

copy_root() {
  rm -rf "$stage" && mkdir "$stage"
  tar c -C "$target_dir/root" --exclude=./usr/include --exclude='*.a' --exclude='./usr/share/[dlmi]o*' \
    --exclude=./usr/share/man --exclude=./var/cache --exclude=./var/lib/apt . | tar x -C "$stage"
  mkdir -p "$stage"/{proc,sys,dev,run,tmp,board}
  chmod 1777 "$stage/tmp"
  ln -sf gawk "$stage/usr/bin/awk"
  cp -r "$source_dir"/tests/board/etc/. "$stage/etc/"
}

install_program() { # GROUP NAME...: run by the group alone, as on a board.
  local group=$1 program
  shift
  for program in "$@"; do
    install -D -m 0750 -o 0 -g "$group" "$build_dir/bin/$program" "$stage/opt/platform/bin/$program"
    strip_program "$stage/opt/platform/bin/$program"
  done
}

install_platform() {
  local etc=$stage/etc/zur
  DESTDIR=$stage cmake --install "$build_dir" --prefix /usr --strip >/dev/null
  install_program 2001 iammgr
  install_program 2002 proc_launcher
  install_program 2003 camera_service
  install_program 2004 map_service planner_service
  install_program 2005 boot_record
  install_program 2006 operator sample_app
  install_program 2007 c_service pm-notify
  install -m 0750 -o 0 -g 2007 "$source_dir/examples/services/shell_service.sh" "$stage/opt/platform/bin/"
  mkdir -p "$etc/platform" "$etc/base-plat/process-manager"
  cp -r "$source_dir"/examples/platform/{platform.yaml,services,entries} "$etc/platform/"
  cp "$source_dir"/examples/platform/procmgr_cfg.yaml "$source_dir"/tests/board/platform/*.yaml \
    "$etc/base-plat/process-manager/"
  cp "$source_dir"/tests/board/*.sh "$stage/board/"
  install -m 0755 "$source_dir/tests/board/init.sh" "$stage/sbin/board-init"
}

# The sandboxes of the tests lay a folder over another.
install_modules() {
  local folder=$stage/lib/modules/$(kernel_version)
  install -D -t "$folder/kernel/fs/overlayfs" "$modules/kernel/fs/overlayfs/overlay.ko"
  cp "$modules"/modules.* "$folder/"
  depmod -b "$stage" "$(kernel_version)" 2>/dev/null || true # The lists name modules that aren't there.
}

copy_tests() {
  mkdir -p "$stage$source_dir"
  tar c -C "$source_dir" --exclude='*.o' --exclude='*.d' --exclude=.ninja_deps --exclude=./.git \
    --exclude='./build' --exclude='./build-[!a]*' --exclude=./build-asan --exclude=./build-arm64-target . |
    tar x -C "$stage$source_dir"
  find "$stage$build_dir" -type f -perm -u+x -exec sh -c \
    'head -c4 "$1" | grep -q ELF && aarch64-linux-gnu-strip "$1"' _ {} \;
}

make_disk() {
  local mib=$(($(du -sm "$stage" | cut -f1) + 300))
  rm -f "$target_dir/$name.img"
  mke2fs -q -t ext4 -d "$stage" -L root "$target_dir/$name.img" "${mib}M"
}

make_initramfs() {
  local init=$target_dir/initramfs module path i=100
  rm -rf "$init" && mkdir -p "$init"/{bin,modules,proc,sys,dev,new}
  cp "$target_dir/root/bin/busybox" "$init/bin/busybox"
  depmod -b "$target_dir/kernel" "$(kernel_version)"
  for module in virtio_mmio virtio_blk ext4; do
    modprobe -d "$target_dir/kernel" -S "$(kernel_version)" --show-depends "$module"
  done | awk '/^insmod/ && !seen[$2]++ {print $2}' | while read -r path; do
    cp "$path" "$init/modules/$i-$(basename "$path")"
    i=$((i + 1))
  done
  install -m 0755 "$source_dir/tests/board/initramfs.sh" "$init/init"
  pack_initramfs "$init" "$target_dir/initramfs.gz"
}

copy_root
install_platform
install_modules
[[ ${2:-} != with-tests ]] || copy_tests
make_disk
make_initramfs
rm -rf "$stage"
