# Configuring and building a preset of CMakePresets.json. Sourced by ./dev.

# A compiler takes up to a gigabyte for the largest sources, so that many cores on a small board
# must not all compile at once.
build_jobs() {
  local cores memory_gib
  cores=$(nproc)
  memory_gib=$(awk '/^MemAvailable:/ {print int($2 / 1048576)}' /proc/meminfo)
  echo $((memory_gib < 1 ? 1 : cores < memory_gib ? cores : memory_gib))
}

# Most of a scenario's time is spent waiting, so two run well on one core.
test_jobs() {
  echo $((2 * $(nproc)))
}

# build_preset PRESET programs|tests [TARGET...]: the programs alone or with the tests and the benchmark; all
# targets, or those named and what they need.
build_preset() {
  local preset=$1 testing=OFF targets=()
  [[ $2 == programs ]] || testing=ON
  shift 2
  [[ $# -eq 0 ]] || targets=(--target "$@")
  cmake --preset "$preset" -D BUILD_TESTING="$testing"
  cmake --build --preset "$preset" --parallel "$(build_jobs)" "${targets[@]}"
}

# The Debian packages, in build-package/packages/. Two builds of one version give the same bytes: what they hold
# bears the date of SOURCE_DATE_EPOCH, which the caller exports, and neither that nor the folder of the build.
build_packages() {
  # With a base folder ccache would write other names of the sources into the programs.
  export CCACHE_BASEDIR=
  build_preset package programs installed
  rm -rf build-package/packages
  cpack --config build-package/CPackConfig.cmake -B "$PWD/build-package/packages"
  rm -rf build-package/packages/_CPack_Packages
  local package
  for package in build-package/packages/*.ddeb; do
    mend_checksums "$package"
  done
}

# mend_checksums PACKAGE: CPack names the files of debug symbols in the list of their checksums by the paths that they
# had while it packed them.
mend_checksums() {
  local folder
  folder=$(mktemp -d)
  dpkg-deb -R "$1" "$folder/package"
  sed -i 's|  /.*/usr/lib/debug/|  usr/lib/debug/|' "$folder/package/DEBIAN/md5sums"
  dpkg-deb --root-owner-group -Zgzip -b "$folder/package" "$1" >/dev/null
  rm -rf "$folder"
}
