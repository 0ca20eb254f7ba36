#!/bin/bash
# root.sh FOLDER: an arm64 root in FOLDER, of Debian's packages: what the project links against, and what the
# emulated machine runs on. It is unpacked only; nothing of it runs on this machine.
set -euo pipefail
folder=${1:?a folder for the root}

machine=base-files,base-passwd,bash,dash,coreutils,util-linux,mount,grep,sed,findutils,gawk,procps,kmod,iproute2,passwd
machine+=,busybox-static,libc-bin,python3-minimal
libraries=libc6-dev,linux-libc-dev,libyaml-cpp-dev,libre2-dev,nlohmann-json3-dev,libcli11-dev,libnuma1,libgcc-s1,libstdc++6
tests=libgtest-dev,libgmock-dev,libbenchmark-dev,cmake,binutils,diffutils

# The release that this machine itself gets its packages from.
sources() {
  apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) main' 'Created-By: Packages' | sort -u
}

rm -rf "$folder" "$folder.part"
mkdir -p "$(dirname "$folder")"
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
mmdebstrap --quiet --mode=root --variant=extract --architectures=arm64 --components=main \
  --aptopt='Acquire::Languages "none"' --include="$machine,$libraries,$tests" \
  "$release" "$folder.part" - < <(sources)
mv "$folder.part" "$folder"
