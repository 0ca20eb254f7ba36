# A quick start in the real kernel log: the first applications before anything else, the rest after SIGCONT. Sourced.

in_kernel_log() { [[ $(dmesg | grep -cF -- "$1") -ge ${2:-1} ]]; }

cat >>/etc/zur/platform/entries/operator.yaml <<'APP'

  - appName: early_light
    binPath: /opt/platform/bin/sample_app
    uid: operator
    gid: operator
    startupPriority: 1
    resGroupName: OTHER
    cpuset: CtrlCPU
    coreAffinity: [1]
APP
start_log
dmesg -n 8
start_manager $kPlatform true
expect 'early_light runs' eventually pgrep -x sample_app
expect_text 'services before the signal' '' "$(pgrep -x iammgr)"
kill -CONT "$manager"
expect 'kernel log: the first applications' eventually in_kernel_log 'InitPriorityApps start priority apps finish'
expect 'kernel log: the signal' eventually in_kernel_log 'wait success'
await_boot
early_light=$(pgrep -x sample_app | head -n 1)
expect_text 'early_light: cores after the signal' '1 ' "$(of_threads "$early_light" field Cpus_allowed_list)"
stop_manager

dmesg -C
start_manager $kPlatform true
await_boot
expect 'kernel log: nobody has continued it' in_kernel_log PROCMGR 2
stop_manager

# The last record is seen, although none comes behind it.
dmesg -C
start_manager /nothing.yaml true
expect 'kernel log: of a file that is missing' eventually in_kernel_log 'StandardizationPath failed'
