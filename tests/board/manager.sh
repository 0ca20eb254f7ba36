# How the suites start, ask and end the manager. Sourced by init.sh.

kMessages=/run/messages
kPlatform=/etc/zur/platform/platform.yaml

# eventually COMMAND...: it succeeds within a minute and a half, long for an emulated core too.
eventually() {
  local end=$((SECONDS + 90))
  until "$@"; do
    [[ $SECONDS -lt $end ]] || return 1
    sleep 0.2
  done
}

# expect_line TEXT [TIMES]: the log comes to hold it, so many times.
told() { [[ $(grep -cF -- "$1" $kMessages) -ge ${2:-1} ]]; }
expect_line() { expect "log: $1" eventually told "$@"; }

start_log() {
  : >$kMessages
  busybox syslogd -n -l 8 -O $kMessages &
  eventually test -S /dev/log
}

# make_groups CONTROL-CORES: the platform's groups.
make_groups() {
  local set folder
  mkdir -p /sys/fs/cgroup/{cpu,memory}/{OTHER,sensing}
  for set in "CtrlCPU:$1" AICPU:2-3; do
    folder=/sys/fs/cgroup/cpuset/${set%%:*}
    mkdir -p "$folder"
    echo "${set##*:}" >"$folder/cpuset.cpus"
    cat /sys/fs/cgroup/cpuset/cpuset.mems >"$folder/cpuset.mems"
  done
}

# What the board's packages prepare at each boot by tmpfiles.d.
make_folders() {
  rm -rf /run/nexio /run/pm /run/plat /run/platform
  install -d -m 1777 /run/nexio /run/platform /run/pm-notify
  install -d -m 0755 /run/plat /run/plat/sensor /run/plat/group /run/pm
  install -d -m 0755 -o 2006 -g 2006 /run/pm/operator
}

# start_manager ARGUMENTS...; its pid is $manager.
start_manager() {
  make_folders
  : >$kMessages
  /usr/sbin/process-manager "$@" &
  manager=$!
}

# The whole boot, to the line behind its last service.
await_boot() { expect_line 'EnableWatchDog flag='; }

# Ends the manager by the orderly stop, with everything that it started.
stop_manager() {
  expect 'pmctl shutdown' pmctl shutdown --timeout 60
  wait "$manager"
  expect_text 'exit status of the manager' 0 $?
  expect_text 'processes of the platform after the stop' '' "$(pids_in /opt/platform/bin/)"
}

# pids_in PREFIX: of the processes whose program's path begins so.
pids_in() {
  local process
  for process in /proc/[0-9]*; do
    [[ $(readlink "$process/exe") != "$1"* ]] || echo "${process##*/}"
  done
}

# pid_of NAME: of a service or an application, as the manager knows it.
pid_of() { pmctl show "$1" --json 2>/dev/null | sed -n 's/.*"pid": *\([0-9]*\).*/\1/p' | head -n 1; }

# field PID NAME: of /proc/PID/status.
field() { awk -v name="$2:" '$1 == name {$1 = ""; print substr($0, 2)}' "/proc/$1/status"; }
cgroup_of() { sed -n "s/^[0-9]*:$2://p" "/proc/$1/cgroup"; }
# of_threads PID FUNCTION ARGUMENTS...: what it yields for each thread, each value once.
of_threads() {
  local task
  for task in /proc/"$1"/task/*; do "$2" "$1/task/${task##*/}" "${@:3}"; done | sort -u | tr '\n' ' '
}
