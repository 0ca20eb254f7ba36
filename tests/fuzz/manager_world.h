// A whole manager, everybody who talks to it, and what must be right after each of their steps.
#ifndef TESTS_FUZZ_MANAGER_WORLD_H
#define TESTS_FUZZ_MANAGER_WORLD_H

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/immortal.h"
#include "core/app_lists.h"
#include "message/name_table.h"
#include "message/request_msg.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/manager_post.h"
#include "tests/fuzz/manager_stage.h"

namespace PmTest {

using ProcMgr::GeneralAppPtr;
using ProcMgr::Immortal;
using ProcMgr::NameTable;
using ProcMgr::ProcessState;
using ProcMgr::Message::RequestMsg;
using ProcMgr::Message::RequestType;

// A manager and what an input does to it. There is one thread, so no check takes a lock: that would
// tell the manager that somebody has touched a list.
class World {
 public:
  explicit World(FuzzBytes input);
  ~World() { managerStage = nullptr; }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // From the boot to the end.
  void Play();

 private:
  using GeneralStates = std::vector<std::pair<GeneralAppPtr, ProcessState>>;
  using Counts = std::map<std::string, std::ptrdiff_t>;
  using Names = std::vector<std::string>;

  void Idle();
  void Step(unsigned what, std::size_t which);
  void SmallStep(std::size_t which);
  void WindUp();
  void AskForStop();

  void Open(std::size_t which, int result);
  void EndChild(std::size_t which);
  void Reap();
  void Pass() NO_THREAD_SAFETY_ANALYSIS;

  Peer* Choose(std::size_t which, int& fd);
  void Ask(std::size_t which, const std::string& packet);
  void Cut(std::size_t which);
  void FinishBegun(int fd);
  void Receive(int fd, const ProcMgr::NexioRequestCallback& callback, const std::string& packet);

  void CheckGeneralReports(const GeneralStates& before) const NO_THREAD_SAFETY_ANALYSIS;
  void CheckBaseReports(int access,
                        const std::map<std::string, bool>& ends) const NO_THREAD_SAFETY_ANALYSIS;
  static std::ptrdiff_t CountUnderWay(const std::string& name) NO_THREAD_SAFETY_ANALYSIS;
  void CheckEntries(int fd, RequestType type, const Names& names, const Counts& before) const;
  void CheckStatus(int fd, const Names& names) const NO_THREAD_SAFETY_ANALYSIS;
  void CheckRecords() const NO_THREAD_SAFETY_ANALYSIS;
  void CheckChannels() const;

  static int FdOf(const std::string& name) { return Immortal<NameTable>().FdOf(name); }

  FuzzBytes input_;
  ManagerStage stage_;
  Post post_;
  bool isStopAsked_ = false;
  int idleTurns_ = 0;  // Since the input's end.
};

}  // namespace PmTest

#endif  // TESTS_FUZZ_MANAGER_WORLD_H
