/* A complete base service in C: it beats, says that it is ready, prints what it is told about
 * applications, and says goodbye when it is asked to end. */
#include <process_manager_agent_c.h>
#include <signal.h>
#include <stdio.h>

static void PrintChanges(void* context, const struct pm_agent_change* changes, size_t count) {
  (void)context;
  for (size_t i = 0; i < count; ++i) {
    printf("%s: pid %d, state %u\n", changes[i].name, (int)changes[i].pid,
           (unsigned)changes[i].state);
  }
  (void)fflush(stdout);
}

/* Yields 0, with a line that says why, if `result` isn't a success. */
static int Check(const char* step, int result) {
  if (result != 0) {
    (void)fprintf(stderr, "c_service: %s: %s\n", step, pm_agent_error_text(result));
  }
  return result == 0;
}

int main(void) {
  /* Blocked before the library starts its threads, so that the signal waits for sigwait below. */
  sigset_t ends;
  (void)sigemptyset(&ends);
  (void)sigaddset(&ends, SIGTERM);
  (void)sigaddset(&ends, SIGINT);
  (void)sigprocmask(SIG_BLOCK, &ends, NULL);

  struct pm_agent_callbacks callbacks = {.size = sizeof(callbacks), .changes = &PrintChanges};
  pm_agent* agent = NULL;
  /* The name is the PROC_NAME that the service file sets. */
  if (!Check("create the agent", pm_agent_create(NULL, &callbacks, &agent))) {
    return 1;
  }
  /* A real service gets ready here. The manager opens its channel in a moment: wait for it. */
  if (!Check("beat", pm_agent_start_heartbeat(agent, 500, PM_AGENT_BEATS)) ||
      !Check("report that the service is ready",
             pm_agent_report_state(agent, PM_AGENT_READY, 60000))) {
    pm_agent_destroy(agent);
    return 1;
  }
  int signal = 0;
  (void)sigwait(&ends, &signal);
  (void)Check("say goodbye", pm_agent_report_state(agent, PM_AGENT_GOING_DOWN, 0));
  pm_agent_destroy(agent);
  return 0;
}
