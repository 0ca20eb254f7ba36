#!/bin/bash
# kernel.sh FOLDER: Debian's arm64 kernel and its modules, unpacked in FOLDER. What this machine itself has
# installed, and its own lists of packages, are left alone.
set -euo pipefail
folder=${1:?a folder for the kernel}
apt=$folder.apt

rm -rf "$folder" "$apt"
mkdir -p "$apt"/{lists/partial,cache/archives/partial,etc}
: >"$apt/status"
apt-get indextargets \
  --format 'deb [arch=arm64 signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $(REPO_URI) $(RELEASE) main' \
  'Created-By: Packages' | sort -u >"$apt/sources.list"
options=(-o APT::Architecture=arm64 -o APT::Architectures=arm64 -o "Dir::State=$apt" -o "Dir::State::lists=$apt/lists"
  -o "Dir::State::status=$apt/status" -o "Dir::Cache=$apt/cache" -o "Dir::Etc::sourcelist=$apt/sources.list"
  -o Dir::Etc::sourceparts=- -o Acquire::Languages=none -o APT::Sandbox::User=root)

apt-get "${options[@]}" -q update
image=$(apt-cache "${options[@]}" depends linux-image-arm64 | awk '/Depends: linux-image-/ {print $2; exit}')
(cd "$apt" && apt-get "${options[@]}" -q download "$image")
dpkg-deb -x "$apt/$image"_*.deb "$apt/tree"
mv "$apt/tree" "$folder"
rm -rf "$apt"
