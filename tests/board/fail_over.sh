# After a reset for a suspend that failed, the manager takes the services that are kept for that. Sourced.

start_log
start_manager $kPlatform
await_boot
expect 'fail_over_app runs' test -n "$(pid_of fail_over_app)"
expect_text 'camera_service is not in the file' '' "$(pid_of camera_service)"
stop_manager
