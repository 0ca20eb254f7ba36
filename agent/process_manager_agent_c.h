/* The agent library for C, and for every language that can call C.
 *
 *   pm_agent* agent = NULL;
 *   int error = pm_agent_create(NULL, NULL, &agent);
 *   if (error != 0) {
 *     fprintf(stderr, "no agent: %s\n", pm_agent_error_text(error));
 *     return 1;
 *   }
 *   (void)pm_agent_start_heartbeat(agent, 500, PM_AGENT_BEATS | PM_AGENT_HEART_MESSAGES);
 *   ... get ready ...
 *   (void)pm_agent_report_state(agent, PM_AGENT_READY, 60000);
 *   ... serve ...
 *   pm_agent_destroy(agent);
 *
 * The manager connects to the service, not the other way round: pm_agent_create serves the
 * service's name and the manager opens its channel some time later. One channel counts, the latest.
 * A connection is accepted only from the manager: a process of root or of the service's user that
 * is the service's parent, or the one that the manager's file in /run names.
 *
 * Results. Functions that yield an int give 0 for success, or a negative errno number:
 *   -EINVAL        not a service's name, an empty list or name, a '#' in a text, a bad number
 *   -EADDRINUSE    another process serves the name
 *   -EMSGSIZE      a record that doesn't fit a frame; nothing of the list has been sent
 *   -ENOTCONN      no channel to the manager came up within the wait
 *   -EPIPE         the channel broke, or a new one took its place, before the answer
 *   -EAGAIN        the other side's queue stayed full
 *   -ETIMEDOUT     no answer within the limit
 *   -EREMOTEIO     the manager couldn't load the start-up configuration
 *   -EPROTO        the manager's answer isn't one
 *   -EDEADLK       would wait for an answer in a callback, which keeps the answer out
 *   -ESHUTDOWN     the agent has been stopped
 *   -ECONNREFUSED  nobody receives heartbeats
 *   -ENOMEM, -EIO  out of memory; something else, of which the log has a line
 *
 * Waits are in milliseconds; 0 or less doesn't wait. A request takes that long at most for a
 * channel to come; a manager that doesn't read costs its sender about two seconds on top. A request
 * that succeeds has been handed over, not obeyed: what becomes of applications arrives later.
 *
 * Texts are ended by a zero byte and are the caller's; the library keeps none after a call.
 *
 * Threads. Every function may be called from any thread. The library has five threads of its own in
 * every process that uses it, more while callbacks take long, and callbacks come on them, one at a
 * time; pm_agent_start_heartbeat starts one more. All of them block every signal. A process that
 * forks without an exec must not use the agent in the child. The library stays loaded until the
 * process ends.
 *
 * Compatibility. Within the library's version 1 no function and no field changes or goes. The
 * structures that may grow begin with their size.
 */
#ifndef AGENT_PROCESS_MANAGER_AGENT_C_H
#define AGENT_PROCESS_MANAGER_AGENT_C_H

/* C, so neither <cstddef> nor <cstdint>. */
#include <stddef.h> /* NOLINT(modernize-deprecated-headers) */
#include <stdint.h> /* NOLINT(modernize-deprecated-headers) */

#define PM_AGENT_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pm_agent pm_agent; /* NOLINT(modernize-use-using) */

/* What a service says about itself. */
#define PM_AGENT_UP 0 /* The access manager is up. Only from "iammgr". */
#define PM_AGENT_REPORT_ALL \
  1                      /* Tell the access manager of every application. Only from "iammgr". */
#define PM_AGENT_READY 2 /* The boot goes on. */
#define PM_AGENT_GOING_DOWN 3

/* Whether an application is there. */
#define PM_AGENT_APP_THERE 0
#define PM_AGENT_APP_GONE 1 /* Or unknown, or never started. */
#define PM_AGENT_APP_STOPPED 2

/* What has happened to an application. */
#define PM_AGENT_STARTED 0
#define PM_AGENT_RESTARTED 1
#define PM_AGENT_TERM_TIMEOUT 2 /* It didn't end in time, and must not be killed. */
#define PM_AGENT_ENDED 3        /* As it was asked to. */
#define PM_AGENT_FAILED 4       /* It crashed, failed, or couldn't be started. */
#define PM_AGENT_NOT_POSSIBLE 5 /* Not possible just now. */

struct pm_agent_change {
  const char* name; /* The library's, for the time of the callback. */
  int32_t pid;
  uint32_t gid;
  uint32_t state; /* PM_AGENT_STARTED to PM_AGENT_NOT_POSSIBLE. */
  uint32_t eio;   /* 1: its program couldn't be read. */
};

struct pm_agent_status {
  const char* name; /* The library's, for the time of the callback. */
  int32_t status;   /* PM_AGENT_APP_... */
  uint32_t reserved;
};

/* Functions of the service; each may be null. They come one at a time, on threads of the library;
 * while one runs, what the manager sends waits, so they should be short. They may call the agent,
 * except for what waits for an answer, and may destroy it. The first can come before
 * pm_agent_create has returned. */
struct pm_agent_callbacks {
  size_t size;   /* sizeof(struct pm_agent_callbacks) */
  void* context; /* Handed to each of them; the caller's, until no callback comes any more. */
  /* A channel is up, for the first time or again. */
  void (*connected)(void* context);
  /* The channel has broken. Not called when a new one takes the place of an old one. */
  void (*disconnected)(void* context);
  /* What has happened to applications that this service owns, or has asked for. */
  void (*changes)(void* context, const struct pm_agent_change* changes, size_t count);
  /* The answer to pm_agent_request_status. */
  void (*status)(void* context, const struct pm_agent_status* status, size_t count);
};

/* An application that is to be started. Each list ends with a null pointer and may be null. */
struct pm_agent_start {
  size_t size; /* sizeof(struct pm_agent_start); the same in every record of a list. */
  const char* name;
  const char* const* arguments;
  /* Values for the open parts of the application: the path of its program, the number of its device
   * function as text, entries KEY=VALUE of its environment. Null: none. Refused from "iammgr". */
  const char* path;
  const char* vf;
  const char* const* environment;
};

struct pm_agent_pair {
  const char* key;
  const char* value;
};

/* Begins to serve `name` and sets `*agent`, which stays as it is on failure. A null or empty name
 * stands for the PROC_NAME of the environment, which the envArgv of the service file has to set: a
 * service that hasn't got one inherits the manager's own, gets -EINVAL, and a log line says so.
 * `callbacks` may be null and is copied. Yields -EINVAL, -EADDRINUSE, -ENOMEM or -EIO. Blocks only
 * in a process that isn't root and comes before the directory of the sockets is there: up to ten
 * seconds. The agent is the caller's, until pm_agent_destroy. */
PM_AGENT_API int pm_agent_create(const char* name, const struct pm_agent_callbacks* callbacks,
                                 pm_agent** agent);
/* pm_agent_stop, and the end of the agent: no other thread may be in a call of it any more. Null is
 * left alone. */
PM_AGENT_API void pm_agent_destroy(pm_agent* agent);
/* Ends the service of the name: waiting calls yield -ESHUTDOWN, and so does every later one. When
 * it returns no callback runs and none comes any more; in a callback it doesn't wait for that one.
 */
PM_AGENT_API void pm_agent_stop(pm_agent* agent);

/* The name that is served; the agent's. */
PM_AGENT_API const char* pm_agent_name(const pm_agent* agent);
/* 1 while a channel is up, else 0. */
PM_AGENT_API int pm_agent_is_connected(const pm_agent* agent);
/* Yields 0 as soon as a channel is up, or -ENOTCONN after `limit_ms`. */
PM_AGENT_API int pm_agent_wait_connected(pm_agent* agent, int64_t limit_ms);

/* Reports PM_AGENT_UP, _REPORT_ALL, _READY or _GOING_DOWN. The last of the latter two that has
 * found a channel is reported again, by the library, whenever the manager opens a new one: a
 * manager that was restarted, or a report that got lost with its channel, needs no care of the
 * service. */
PM_AGENT_API int pm_agent_report_state(pm_agent* agent, int state, int64_t wait_ms);

/* Start, restart and terminate general applications; the outcome of each comes to `changes`. */
PM_AGENT_API int pm_agent_start_apps(pm_agent* agent, const struct pm_agent_start* list,
                                     size_t count, int64_t wait_ms);
PM_AGENT_API int pm_agent_restart_apps(pm_agent* agent, const struct pm_agent_start* list,
                                       size_t count, int64_t wait_ms);
PM_AGENT_API int pm_agent_term_apps(pm_agent* agent, const char* const* names, size_t count,
                                    int64_t wait_ms);

/* Tells of a process that runs outside the manager's care (`running`: 1), or of its end (0); for
 * the service "ventrix". */
PM_AGENT_API int pm_agent_report_execution(pm_agent* agent, const char* name, int32_t pid,
                                           uint32_t gid, int running, int64_t wait_ms);

/* Asks whether applications are there. The first has the answer come to `status`. The second waits
 * for it, at most `limit_ms` in all, and sets status[i] to what names[i] is (PM_AGENT_APP_...); on
 * failure nothing is set. Not for use in a callback. */
PM_AGENT_API int pm_agent_request_status(pm_agent* agent, const char* const* names, size_t count,
                                         int64_t wait_ms);
PM_AGENT_API int pm_agent_query_status(pm_agent* agent, const char* const* names, size_t count,
                                       int64_t limit_ms, int32_t* status);

/* Has the manager load, or load again, the start-up configuration of this service with this match
 * data, and waits for its answer, at most `limit_ms` in all. -EREMOTEIO: the manager's code is in
 * `*code`, if that isn't null. `pairs` may be null with a count of 0. Not for use in a callback. */
PM_AGENT_API int pm_agent_load_startup_cfg(pm_agent* agent, const struct pm_agent_pair* pairs,
                                           size_t count, int64_t limit_ms, uint32_t* code);
PM_AGENT_API int pm_agent_reload_startup_cfg(pm_agent* agent, const struct pm_agent_pair* pairs,
                                             size_t count, int64_t limit_ms, uint32_t* code);

/* One beat of the heart, for a service that beats from its own loop, about every 500 ms. Finds the
 * manager's queue full: waits for room, at most 500 ms, then -EAGAIN. */
PM_AGENT_API int pm_agent_beat(pm_agent* agent);
/* One heart message, by which the manager measures the delivery. Never blocks. */
PM_AGENT_API int pm_agent_send_heart_message(pm_agent* agent);

/* Sends what `what` says every `period_ms` (10 to 3600000), on a thread of its own; the manager
 * calls 2 s without a beat a loss. A second call replaces the first. It shows that the process is
 * there, not that its work gets done. */
#define PM_AGENT_BEATS 1U
#define PM_AGENT_HEART_MESSAGES 2U
PM_AGENT_API int pm_agent_start_heartbeat(pm_agent* agent, int64_t period_ms, uint32_t what);
PM_AGENT_API void pm_agent_stop_heartbeat(pm_agent* agent);

/* A text for people, never null, that lives as long as the process. Any result may be given. */
PM_AGENT_API const char* pm_agent_error_text(int error);
/* The version of the library, "0.1.0". */
PM_AGENT_API const char* pm_agent_version(void);

/* Sends the library's lines to `log` instead of syslog, with their syslog priority (3 error, 4
 * warning, 6 information, 7 debug); null brings syslog back. For the whole process. It is called
 * under a lock, one line at a time, and must neither log nor call the library. */
PM_AGENT_API void pm_agent_set_log(void (*log)(int priority, const char* text));

#ifdef __cplusplus
}
#endif

#endif /* AGENT_PROCESS_MANAGER_AGENT_C_H */
