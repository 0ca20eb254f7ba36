# Where things stand, for the scripts of this folder. Sourced.

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build_dir=$source_dir/build-arm64
target_dir=$source_dir/build-arm64-target # The root, the kernel, the images and what the machine told.
kernel_version() { ls "$target_dir/kernel/lib/modules"; }
strip_program() { aarch64-linux-gnu-strip "$1"; }

# pack_initramfs FOLDER FILE
pack_initramfs() { (cd "$1" && find . | cpio -o -H newc --quiet | gzip -1) >"$2"; }

# The verdict stands in the last line but few of what the machine told: verdict LOG
verdict() {
  grep -a '^FAILED' "$1" || true
  grep -aE '^board: [1-9][0-9]* checks, 0 failed' "$1" || {
    echo "arm64: $1 holds no 'board: N checks, 0 failed'; its end:" >&2
    tail -n 20 "$1" >&2
    return 1
  }
}
