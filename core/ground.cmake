# The ground floor: what everybody may use, and what uses nothing else of ours.
set(ground_sources
    boot_trace.cpp
    child_msg_pipe.cpp
    fork_locks.cpp
    host_context.cpp
    log.cpp
    printable.cpp
    sleep.cpp
    small_file.cpp
    standard_path.cpp
    user_lookup.cpp)
list(TRANSFORM ground_sources PREPEND ${CMAKE_CURRENT_LIST_DIR}/)
pm_library(pm_ground SOURCES ${ground_sources} LINK Threads::Threads)
# The counter of the boot trace is the platform's; it is declared in boot_trace.h.
target_link_libraries(pm_ground PUBLIC pm_platform_timer)
