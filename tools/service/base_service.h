// What the base services of this project share: they report to the manager that they are ready,
// they beat from their own loop, and they end when they are told to.
#ifndef TOOLS_SERVICE_BASE_SERVICE_H
#define TOOLS_SERVICE_BASE_SERVICE_H

#include <chrono>
#include <memory>

#include "agent/process_manager_agent.h"
#include "base/steady_time.h"

namespace Services {

// Blocks SIGTERM and SIGINT, so that they wait for BaseService::Run. A BaseService does so itself;
// a program that starts threads before it calls this first.
void BlockEndSignals();

class BaseService {
 public:
  // Serves `name`, the one that the manifest gives the application. Blocks SIGTERM and SIGINT for
  // Run; make it before any thread. Ends the process with a line on standard error if the name
  // can't be served.
  explicit BaseService(const char* name, ProcMgr::Agent::Callbacks callbacks = {});

  // Waits until the manager has opened the channel. Ends the process with a line on standard error
  // if it doesn't within `limit`: then no manager has started this program. ReportReady waits too;
  // this is for what must not be there without a manager.
  void AwaitManager(std::chrono::seconds limit);

  // Tells the manager that this service is ready, as soon as the channel is there; "iammgr" says
  // first that it is up, and asks at last for what has happened before. Ends the process if no
  // channel comes.
  void ReportReady();

  // The service's own agent, for requests; any thread.
  [[nodiscard]] ProcMgr::Agent& Agent() { return *agent_; }

  // Sleeps for `period` and beats meanwhile, so that a loop that hangs falls silent. Yields false
  // if the service has been asked to end: stop then.
  [[nodiscard]] bool Run(std::chrono::milliseconds period);

 private:
  void BeatIfDue();

  std::unique_ptr<ProcMgr::Agent> agent_;
  ProcMgr::SteadyTime nextBeat_;
};

}  // namespace Services

#endif  // TOOLS_SERVICE_BASE_SERVICE_H
