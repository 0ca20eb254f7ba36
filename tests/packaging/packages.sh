#!/bin/bash
# packages.sh FOLDER PROGRAMS: the Debian packages in FOLDER install into an empty root, are whole, boot their samples,
# are upgraded while these run, boot the example platform, and leave nothing behind when they are purged. As root, for
# that is who installs. PROGRAMS holds what the example platform has of its own.
set -euo pipefail

folder=$1 programs=$2
examples=$(dirname "${BASH_SOURCE[0]}")/../../examples
root=$(mktemp -d)
board=
clean_up() {
  [[ -z $board ]] || pkill -KILL --parent "$board" || true # unshare itself passes signals over.
  rm -rf "$root"
}
trap clean_up EXIT
fail() {
  echo "packages: $*"
  exit 1
}

packages=(libprocess-manager-agent1 libprocess-manager-agent-dev process-manager process-manager-tools
  python3-process-manager)
version=
files=()
for package in "${packages[@]}"; do
  file=$(echo "$folder/$package"_*.deb)
  [[ -s $file ]] || fail "there is no single package $package"
  files+=("$file")
  own=$(dpkg-deb -f "$file" Version)
  [[ $own == "${version:=$own}" ]] || fail "$package has version $own, another one $version"
done

# By Debian's own rules, but for what is the owner's to choose: who answers for the packages.
if command -v lintian >/dev/null; then
  lintian --allow-root --fail-on error --suppress-tags bogus-mail-host,bogus-mail-host-in-debian-changelog \
    "${files[@]}" >"$folder/lintian.log" 2>&1 || fail "$(grep '^E' "$folder/lintian.log")"
  rm "$folder/lintian.log"
fi

# What they need of each other and of Debian is told.
depends() { # PACKAGE PATTERN
  dpkg-deb -f "$folder/$1"_*.deb Depends | grep -Eq "$2" || fail "$1 doesn't depend on $2"
}
depends process-manager 'libc6 .*libyaml-cpp'
depends process-manager-tools 'libstdc\+\+6'
depends libprocess-manager-agent1 'libc6'
depends libprocess-manager-agent-dev "libprocess-manager-agent1 \(= $version\)"
depends python3-process-manager 'libprocess-manager-agent1'

# A root with nothing in it: the users of Debian, and dpkg's own files.
mkdir -p "$root/etc" "$root/var/lib/dpkg/"{info,updates,triggers}
touch "$root/var/lib/dpkg/"{status,available}
printf 'root:x:0:0:root:/root:/bin/sh\n' >"$root/etc/passwd"
printf 'root:x:0:\noperator:x:37:\n' >"$root/etc/group"
listing() { (cd "$root" && find . -mindepth 1 ! -path './var/lib/dpkg*' | sort); }
run_dpkg() {
  # Scripts run without a chroot, with DPKG_ROOT set, for there is no shell inside; nor are Debian's packages.
  dpkg --root="$root" --force-script-chrootless --force-depends --log=/dev/null "$@" >"$folder/dpkg.log" 2>&1 ||
    fail "dpkg $1 fails: $(cat "$folder/dpkg.log")"
}
# The packages of an older version: these under another number.
mkdir "$root/old"
for file in "${files[@]}"; do
  old=$root/old/$(basename "$file")
  dpkg-deb --raw-extract "$file" "$old.d"
  sed -i -E "/^(Version|Depends):/s/\\b${version//./\\.}\\b/0.0.1/g" "$old.d/DEBIAN/control"
  dpkg-deb --build "$old.d" "$old" >/dev/null
done
run_dpkg --install "$root"/old/*.deb
rm -r "$root/old"

# A board of its own: the root's programs, configuration and /run in the places of this machine's, and groups.
config=$root/etc/zur/base-plat/process-manager
mkdir -p "$root/opt/platform/bin" "$root/sys/fs/cgroup/"{{cpu,memory}/{OTHER,sensing},cpuset/CtrlCPU}
cp /sys/devices/system/cpu/online "$root/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus"
touch "$root/sys/fs/cgroup/"{{cpu,memory}/{OTHER,sensing},cpuset/CtrlCPU}/tasks
boot() { # FILE SERVICES: what is to run then.
  services=$2
  unshare --mount --pid --fork --kill-child --mount-proc bash -c "
    for place in etc run opt usr/libexec sys/fs/cgroup; do mount --bind '$root'/\$place /\$place || exit; done
    '$root/usr/sbin/process-manager' ${1#"$root"} &
    wait \$! || exit
    while pgrep --exact pmctl >/dev/null; do sleep 0.1; done" >"$folder/boot.log" 2>&1 & # Whoever has ended it tells so.
  board=$!
  within 60 is_up || fail "the platform isn't up: $(cat "$folder/boot.log")"
}
on_board() { nsenter --target "$(pgrep --parent "$board")" --mount --pid "$@"; }
is_up() {
  [[ $(on_board "$root/usr/bin/pmctl" status 2>/dev/null | awk '$5 == "running" {print $1}' | sort | xargs) == "$services" ]]
}
# Pid and start time of each: the pids of a board begin anew with each boot.
running() {
  on_board sh -c 'for pid in $(pgrep --exact "process-manager|iammgr|operator"); do
    cut -d" " -f1,22 "/proc/$pid/stat"
  done'
}
within() { # SECONDS CONDITION...
  local end=$((SECONDS + $1))
  until "${@:2}"; do
    ((SECONDS < end)) || return 1
    sleep 0.1
  done
}
shut_down() {
  on_board "$root/usr/bin/pmctl" shutdown >/dev/null || fail "the platform can't be ended"
  wait "$board" || fail "the platform ends with a failure: $(cat "$folder/boot.log")"
  board=
}
is_configured() { # Nobody but the integrator writes there.
  local sample
  for sample in {base_services,operator}.yaml; do
    cmp "$root/usr/share/doc/process-manager/samples/$sample" "$config/$sample" || return
  done
}
# The example platform as an integrator builds it on what is installed: /opt/platform of the root.
platform=$root/etc/zur/platform
install_programs() { # USER FILE...: each program is its user's group's, or it isn't started.
  install -m 0750 -g "$(sed -n "s/^$1:[^:]*:\([0-9]*\):.*/\1/p" "$root/etc/group")" -t "$root/opt/platform/bin" "${@:2}"
}
install_platform() {
  local library
  library=$(find "$root/usr/lib" -name libprocess_manager_agent.so)
  printf 'u %s -\n' launcher camera navigation recorder guest | systemd-sysusers --root="$root" -
  install_programs launcher "$programs/proc_launcher"
  install_programs camera "$programs/camera_service"
  install_programs navigation "$programs/"{map,planner}_service
  install_programs recorder "$programs/boot_record"
  install_programs operator "$programs/sample_app"
  install_programs guest "$root/usr/bin/pm-notify" "$examples/services/"{shell_service.sh,python_service.py}
  cc -I "$root/usr/include/process-manager" -o "$root/c_service" "$examples/services/c_service.c" "$library"
  install_programs guest "$root/c_service"
  rm "$root/c_service"
  ln -s /usr/libexec/process-manager/{iammgr,operator} "$root/opt/platform/bin/"
  ln -s "${library%/*}" "$root/opt/platform/lib"
  ln -s "$root/usr/lib/python3/dist-packages" "$root/opt/platform/python"
  chmod 0711 "$root" # The links are followed by every user.
  mkdir -m 1777 "$root/run/platform"
  cp -r "$examples/platform" "$platform"
  mv "$platform/procmgr_cfg.yaml" "$config"
}
can_boot() { command -v systemd-sysusers >/dev/null && command -v systemd-tmpfiles >/dev/null; }
if can_boot; then
  mkdir -p "$config"
  cp "$root/usr/share/doc/process-manager/samples/"{base_services,operator}.yaml "$config"
  boot "$config/base_services.yaml" 'iammgr operator'
  old_processes=$(running)
fi

run_dpkg --unpack "${files[@]}"
if can_boot; then
  # What runs runs on, and comes back if it falls; the new version counts from the next boot.
  [[ $(running) == "$old_processes" ]] || fail "the upgrade has ended something"
  fallen=$(on_board pgrep --exact iammgr)
  on_board kill -KILL "$fallen"
  is_back() { [[ $(on_board pgrep --exact iammgr) != "$fallen" ]] && is_up; }
  within 30 is_back || fail "a service that falls doesn't come back during an upgrade"
fi
run_dpkg --configure --pending
if can_boot; then
  is_configured || fail "the upgrade has changed the configuration"
  on_board "$root/usr/bin/pmcheck" "${config#"$root"}/base_services.yaml" >/dev/null || fail "the sample has faults"
  shut_down
  install_platform
  boot "$platform/with_python.yaml" "$(echo c_service camera_service iammgr map_service operator planner_service \
    proc_launcher python_service shell_service)"
  [[ $(running) != "$old_processes" ]] || fail "nothing has started anew"
  told=$(on_board "$root/usr/bin/pmcheck" --host --strict "${platform#"$root"}/with_python.yaml" 2>&1) || fail "$told"
  told=$(on_board "$root/usr/bin/pmctl" start recorder 2>&1) || fail "$told"
fi
[[ $(dpkg --root="$root" --audit) == "" ]] || fail "not all are configured: $(dpkg --root="$root" --audit)"

for file in sbin/process-manager lib/systemd/system/process-manager.service lib/tmpfiles.d/process-manager.conf \
  lib/tmpfiles.d/process-manager-tools.conf lib/sysusers.d/process-manager-tools.conf \
  bin/pm{-notify,check,ctl,upload} libexec/process-manager/{iammgr,operator} \
  share/man/man1/pm{-notify,check,ctl,upload}.1.gz share/man/man8/{process-manager,iammgr,operator}.8.gz \
  share/man/man5/{pm-service,pm-entry,pm-sharepool,procmgr_cfg.yaml,bin_hash.cfg,vantor_common_env.conf}.5.gz \
  share/bash-completion/completions/pm{-notify,check,ctl,upload} share/doc/process-manager/{CHANGELOG.md,manifest.md} \
  share/process-manager/{procmgr-cfg,service-file,sharepool}.schema.json \
  share/doc/process-manager/samples/{base_services.yaml,procmgr_cfg.yaml} \
  include/process-manager/process_manager_agent_c.h include/process-manager/agent/process_manager_agent.h \
  lib/python3/dist-packages/process_manager.py "${packages[@]/#/share/doc/}"; do
  [[ -s $root/usr/$file ]] || fail "/usr/$file is missing"
done
grep -q '^ExecStart=/usr/sbin/process-manager ' "$root/usr/lib/systemd/system/process-manager.service" ||
  fail "the unit doesn't start the daemon where it is"
[[ ! -e $root/usr/local && -z $(find "$root/usr" -perm /022 ! -type l) ]] || fail "others may write, or /usr/local is used"

# Programs run, and are stripped; their symbols are in the -dbgsym package.
symbols=$(for file in "$folder"/*-dbgsym_*.ddeb; do dpkg-deb --contents "$file"; done)
for program in "$root"/usr/{bin,sbin,libexec/process-manager}/*; do
  name=${program##*/}
  [[ $("$program" --version) == "$name $version" ]] || fail "$name doesn't tell version $version"
  ! readelf --sections --wide "$program" | grep -q '\.debug_info' || fail "$name isn't stripped"
  id=$(readelf --notes "$program" | sed -n 's/.*Build ID: //p')
  [[ $symbols == *"/${id:0:2}/${id:2}.debug"* ]] || fail "the debug symbols of $name aren't there"
done
# What is in each package is told: every library that a file of it is linked with, of the version that is here.
for package in "${packages[@]}"; do
  python3 - "$root/usr/share/doc/$package/$package.cdx.json" "$version" <<'PYTHON' >>"$folder/told" || fail "the list of $package"
import json, sys
bill = json.load(open(sys.argv[1], encoding="utf-8"))
assert (bill["bomFormat"], bill["specVersion"]) == ("CycloneDX", "1.5"), bill
assert bill["metadata"]["component"]["version"] == sys.argv[2], bill["metadata"]
for part in bill["components"]:
    for how in part["properties"]:
        print(bill["metadata"]["component"]["name"], how["name"].split(":")[1], how["value"], part["name"], part["version"])
PYTHON
  while read -r file; do
    for name in $(readelf --dynamic --wide "$root$file" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
      grep -q "^$package linked $name " "$folder/told" || fail "$package doesn't tell of $name, which $file needs"
    done
  done < <(dpkg --root="$root" --listfiles "$package" | grep -E '/s?bin/|/libexec/|\.so\.')
done
while read -r _ _ _ part told; do
  dpkg-query --show --showformat='${Version}\n' "$part" | grep -Fqx "$told" || fail "$part isn't there in version $told"
done <"$folder/told"
grep -q '^process-manager-tools compiled-in .* libcli11-dev ' "$folder/told" || fail "headers aren't told of"
rm "$folder/told"

library=$(find "$root/usr/lib" -name libprocess_manager_agent.so.1)
[[ -e $library ]] || fail "the library is missing"
told=$(LD_LIBRARY_PATH=${library%/*} PYTHONPATH=$root/usr/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1 \
  python3 -c 'import process_manager; print(process_manager.version())')
[[ $told == "$version" ]] || fail "the Python module tells version $told"

# The users and the folders of a boot; without the programs that make them the packages install all the same.
if can_boot; then
  grep -q '^iam:' "$root/etc/passwd" && grep -q '^operator:' "$root/etc/passwd" || fail "the users are missing"
  for place in nexio pm-notify plat/sensor pm/operator; do
    [[ -d $root/run/$place ]] || fail "/run/$place is missing"
  done
fi

if can_boot; then
  shut_down
fi
rm -r "$root/"{opt,sys}

run_dpkg --purge "${packages[@]}"
# What a boot makes in /run goes with the boot; users and the integrator's files stay.
left=$(listing | grep -Ev '^\./(run(/.*)?|etc(/zur(/.*)?|/((g?shadow|passwd|group)-?|\.pwd\.lock))?|var|var/lib)$' || true)
[[ -z $left ]] || fail "left behind: $left"
! can_boot || [[ -s $config/base_services.yaml ]] || fail "the integrator's configuration is gone"
rm -f "$folder/"{dpkg,boot}.log
