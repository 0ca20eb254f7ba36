# The Debian packages that building, checking and fuzzing need, and how they come onto the machine.
# Sourced by ./dev.

BUILD_PACKAGES=(
  g++ cmake ninja-build pkg-config
  libyaml-cpp-dev libre2-dev nlohmann-json3-dev libcli11-dev
  libnuma1 # loaded at run time by children that have a memory policy
)
# What the tests and the benchmark need beside them: Python for the binding's, dpkg-dev and file to make packages,
# Chromium for the page of a boot, procps to look at what runs, musl for the program whose start is measured.
TEST_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev python3 dpkg-dev file chromium procps musl-tools)
# The address sanitizer must free its allocator's locks in the child of a process with threads, or now and then
# one that is forked hangs before its exec; the one of g++ 12 doesn't. Most children share the manager's memory and
# need none of it; those that need memory of their own are forked, and launched in a row beside busy threads they
# hang within a thousand.
ASAN_PACKAGES=(clang-19 libclang-rt-19-dev)
CHECK_PACKAGES=(clang clang-format clang-tidy libclang-rt-dev python3 spin gcc)

# What tells the lines that a fuzz target reaches, of the same version as the clang that builds it.
COVERAGE_PACKAGES=(llvm)

# What draws the plots of ./dev bench.
PLOT_PACKAGES=(python3 python3-matplotlib)

# What makes and checks the Debian packages: dpkg-shlibdeps computes their dependencies, Python lists their parts.
PACKAGE_PACKAGES=(dpkg-dev file binutils python3 lintian procps)

# The cross compiler, the emulator, and what makes the disk that it boots.
ARM64_PACKAGES=(
  "${TEST_PACKAGES[@]}" g++-aarch64-linux-gnu mmdebstrap qemu-system-arm device-tree-compiler cpio kmod e2fsprogs
  debian-archive-keyring
)

fail() {
  echo "./dev: $*" >&2
  exit 1
}

require_root() {
  [[ $EUID -eq 0 ]] || fail "this needs root: $1"
}

# Installs those of the given packages that are missing. With all of them there it calls apt not at
# all, so that it works without a network and without root.
require_packages() {
  local missing=() package
  for package in "$@"; do
    if [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
      missing+=("$package")
    fi
  done
  [[ ${#missing[@]} -gt 0 ]] || return 0
  require_root "it must install ${missing[*]} (or: apt-get install ${missing[*]})"
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q </dev/null || fail "apt-get update failed"
  apt-get install -q -y --no-install-recommends "${missing[@]}" </dev/null ||
    fail "could not install ${missing[*]}"
}
