# A whole boot of the example platform: who is who, who is where, what a kill and requests do, the end. Sourced.

# expect_who NAME USER-ID GROUPS CORES CPU-GROUP CPUSET: identity and place of every thread.
expect_who() {
  local pid id="$2	$2	$2	$2"
  pid=$(pid_of "$1")
  expect_text "$1: user" "$id" "$(field "$pid" Uid | tr ' ' '\t' | sed 's/^\t//')"
  expect_text "$1: groups" "$3" "$(field "$pid" Groups | xargs)"
  expect_text "$1: cores" "$4 " "$(of_threads "$pid" field Cpus_allowed_list)"
  expect_text "$1: cpu group" "/$5 " "$(of_threads "$pid" cgroup_of cpu)"
  expect_text "$1: memory group" "/$5 " "$(of_threads "$pid" cgroup_of memory)"
  expect_text "$1: cpuset" "/$6 " "$(of_threads "$pid" cgroup_of cpuset)"
}

check_places() {
  expect_text 'threads of the manager: cores' '0-2 ' "$(of_threads "$manager" field Cpus_allowed_list)"
  expect_text 'threads of the manager: cpuset' '/CtrlCPU ' "$(of_threads "$manager" cgroup_of cpuset)"
  expect_text 'threads of the manager: cpu group' '/OTHER ' "$(of_threads "$manager" cgroup_of cpu)"
  expect_who iammgr 2001 2001 0-2 OTHER CtrlCPU
  expect_who camera_service 2003 2003 0 sensing CtrlCPU
  expect_who operator 2006 '2001 2006' 0-2 OTHER CtrlCPU
  expect_who c_service 2007 2007 0-2 OTHER CtrlCPU
  expect_who shell_service 2007 2007 0-2 OTHER CtrlCPU
  expect_who em_service 2006 '2001 2006' 0-2 OTHER CtrlCPU
  expect_who two_cores 2006 '2001 2006' 0-1 OTHER CtrlCPU
  expect_who rt_worker 2006 '2001 2006' 1 sensing CtrlCPU
  expect_who ai_worker 0 0 2 OTHER AICPU
  expect_who ai_stranger 2006 '2001 2006' 2 OTHER CtrlCPU
  expect_text 'rt_worker: real-time limit' 99 "$(awk '/realtime priority/ {print $4}' "/proc/$(pid_of rt_worker)/limits")"
  expect_text 'beyond: not started' '' "$(pid_of beyond)"
  expect_line 'CheckIsCtrlCpu app=beyond, coreId=3 is not in CtrlCpu'
}

# The traces are the seconds of the processor's own counter, as the kernel's own clock is.
check_trace() {
  local trace uptime
  trace=$(grep -F '[BOOT_TRACE][PM]' $kMessages | tail -n 1 | sed -n 's/.*\[\([0-9.]*\)s\]\[BOOT_TRACE\].*/\1/p')
  read -r uptime _ </proc/uptime
  echo "last trace $trace s, uptime $uptime s"
  expect 'the last trace is of this boot' awk -v t="$trace" -v u="$uptime" 'BEGIN {exit !(t > 0 && t < u + 30 && t > u - 120)}'
}

check_return() {
  local before
  before=$(pid_of camera_service)
  kill -9 "$before"
  expect_line 'msg from camera_service report state=' 2
  expect 'camera_service has another pid' test "$(pid_of camera_service)" != "$before"
}

check_requests() {
  expect 'start' pmctl start recorder stubborn
  expect 'start with parameters' pmctl start encoder1 --arg --h264 --env QUALITY=high
  expect 'query' pmctl query encoder1 recorder stubborn
  expect 'stop of one that must be killed' pmctl stop stubborn
  expect 'restart' pmctl restart recorder
  expect 'status' pmctl status
  expect 'boot' pmctl boot
}

# A core that is offline doesn't make those behind it absent: cores are counted as configured.
check_offline() {
  echo 0 >/sys/devices/system/cpu/cpu1/online
  make_groups 0,2-3
  start_manager $kPlatform
  await_boot
  expect_text 'with core 1 offline, a service on core 3' '3 ' "$(of_threads "$(pid_of beyond)" field Cpus_allowed_list)"
  expect_line 'CheckIsCtrlCpu app=rt_worker, coreId=1 is not in CtrlCpu'
  stop_manager
  echo 1 >/sys/devices/system/cpu/cpu1/online
}

start_log
start_manager $kPlatform
await_boot
check_places
check_trace
check_return
check_requests
stop_manager
check_offline
