/* Prints the structures of the C header as the compiler lays them out, and its numbers. */
#include <process_manager_agent_c.h>
#include <stdio.h>

#define STRUCT(type) printf("struct %s size %zu\n", #type, sizeof(struct type))
#define FIELD(type, field)                                                                    \
  printf("struct %s field %s at %zu size %zu\n", #type, #field, offsetof(struct type, field), \
         sizeof(((struct type*)0)->field))
#define NUMBER(name) printf("%s %d\n", #name, (int)(name))

int main(void) {
  STRUCT(pm_agent_change);
  FIELD(pm_agent_change, name);
  FIELD(pm_agent_change, pid);
  FIELD(pm_agent_change, gid);
  FIELD(pm_agent_change, state);
  FIELD(pm_agent_change, eio);
  STRUCT(pm_agent_status);
  FIELD(pm_agent_status, name);
  FIELD(pm_agent_status, status);
  STRUCT(pm_agent_callbacks);
  FIELD(pm_agent_callbacks, size);
  FIELD(pm_agent_callbacks, context);
  FIELD(pm_agent_callbacks, connected);
  FIELD(pm_agent_callbacks, disconnected);
  FIELD(pm_agent_callbacks, changes);
  FIELD(pm_agent_callbacks, status);
  STRUCT(pm_agent_start);
  FIELD(pm_agent_start, size);
  FIELD(pm_agent_start, name);
  FIELD(pm_agent_start, arguments);
  FIELD(pm_agent_start, path);
  FIELD(pm_agent_start, vf);
  FIELD(pm_agent_start, environment);
  STRUCT(pm_agent_pair);
  FIELD(pm_agent_pair, key);
  FIELD(pm_agent_pair, value);
  NUMBER(PM_AGENT_UP);
  NUMBER(PM_AGENT_REPORT_ALL);
  NUMBER(PM_AGENT_READY);
  NUMBER(PM_AGENT_GOING_DOWN);
  NUMBER(PM_AGENT_APP_THERE);
  NUMBER(PM_AGENT_APP_GONE);
  NUMBER(PM_AGENT_APP_STOPPED);
  NUMBER(PM_AGENT_STARTED);
  NUMBER(PM_AGENT_RESTARTED);
  NUMBER(PM_AGENT_TERM_TIMEOUT);
  NUMBER(PM_AGENT_ENDED);
  NUMBER(PM_AGENT_FAILED);
  NUMBER(PM_AGENT_NOT_POSSIBLE);
  NUMBER(PM_AGENT_BEATS);
  NUMBER(PM_AGENT_HEART_MESSAGES);
  return 0;
}
