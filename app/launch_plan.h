// What a child will do between its start and its exec, worked out before it exists.
//
// The child runs in a process whose other threads may hold any lock of libc, and mostly in that
// process's own memory (app/spawn.h). So whatever needs the heap, a lock, the user database or a
// configuration is done here, in the parent, and the child (app/child_steps.h) makes system calls
// on what it finds in the plan. What could not be worked out stands in the plan as the text that
// the step at its place adds, and as fatal as there.
#ifndef APP_LAUNCH_PLAN_H
#define APP_LAUNCH_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "app/mem_policy.h"
#include "app/user_groups.h"
#include "base/environment.h"
#include "host/cgroups.h"
#include "host/core_affinity_mgr.h"
#include "host/host_limits.h"
#include "platform/iam/iam.h"

namespace ProcMgr::App {

// Lives on the stack of a launch and points into the record and into the process's environment,
// both of which outlive it. Written by the parent alone.
struct LaunchPlan {
  // The application's name, and the path that execve gets: also what it is introduced as to the
  // access-management library.
  AppConfig config;
  // The arguments of execve, null-terminated: pointers into the record's texts.
  std::vector<char*> argv;

  // Whether the limit on real-time priorities is raised.
  bool isSetRtPrio = false;
  // What is added to the niceness; 0 for a base application.
  std::int32_t nice = 0;
  // Of a general application with a device function.
  MemPolicy memPolicy;
  // The tasks files that the child enters itself in; none in a quick start, in which the manager
  // places its children later.
  CgroupTasks cgroups;

  // The groups, and why there are none, with the errno of a failed wipe.
  FoundUserGroups user;
  uid_t uid = 0;
  gid_t gid = 0;

  // The whole environment, and the part of it that the access-management library sees,
  // null-terminated; what could not be set before and behind that library's turn.
  Environment env;
  std::vector<char*> accessEnv;
  std::string envErr;
  std::string envErrBehindAccess;

  // Whether the child binds itself, and to what.
  bool isBound = false;
  CoreBinding binding;
  // A policy number (host/host_limits.h).
  std::uint32_t schedPolicy = kSchedPolicyKeep;

  // What a failed exec is told by, up to the number of its error.
  std::string execErr;

  // Whether a step changes memory or takes locks: then the child can't share the manager's.
  bool needsOwnMemory = false;
};

// Fills a fresh plan. The record's lock is held, or no list holds it yet. `groups` are its user's;
// unless they have been asked for, this may block on the user database.
void PlanLaunch(const BaseAppInfo& app, UserGroupsOnce& groups, LaunchPlan& plan);
void PlanLaunch(const GeneralAppInfo& app, UserGroupsOnce& groups, LaunchPlan& plan);

}  // namespace ProcMgr::App

#endif  // APP_LAUNCH_PLAN_H
