// Random requests and kills against a model, round by round.
#ifndef TORTURE_LOAD_H
#define TORTURE_LOAD_H

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "torture/app_model.h"
#include "torture/stage.h"

namespace PmTorture {

// Keeps a stage of eight agents busy. One thread.
class Load {
 public:
  // Boots the stage: `count` applications of each kind (plain, stubborn, dynamic) and as many base
  // services.
  Load(std::uint64_t seed, std::size_t count);

  // A round: requests that are answered at once, then at most one act for each application and
  // service that moves it on. Throws Broken with what was seen and what the model says.
  void Round();
  // Asks for an end that is answered at once, and requires that nobody had got anything before it;
  // and that there runs what the model says, and no zombie.
  void Finish();

  [[nodiscard]] Stage& Platform() { return stage_; }
  [[nodiscard]] std::uint64_t Exits() const { return exits_; }
  [[nodiscard]] std::uint64_t Requests() const { return requests_; }

 private:
  struct Service {
    std::string name;
    pid_t pid = 0;
  };
  using Requests_ = std::map<std::pair<Act, std::size_t>, std::vector<std::string>>;
  using Reports = std::map<std::string, std::vector<int>>;  // By application, in their order.

  std::size_t Random(std::size_t count);
  void Expect(const std::string& name, const Expected& expected);
  void AskForAnswers();
  void AskForMoves();
  void KillServices();
  void Send(const Requests_& requests);
  // Takes as many reports as are expected and compares them. Reports of one application come in
  // their order; how those of several mix is open.
  void Compare();
  Reports Take(PmSandbox::AgentPeer& peer, const Reports& expected);
  void NotePid(const std::string& name, pid_t pid);
  // A stubborn one isn't stubborn before it says so.
  void AwaitDeafness();
  void CompareLog();
  void CompareStatus();

  std::mt19937_64 random_;
  std::vector<AppModel> apps_;
  std::vector<Service> services_;
  Stage stage_;

  // Of this round.
  std::map<std::size_t, Reports> expected_;  // By agent.
  Reports all_;                              // What iammgr is to hear.
  std::vector<std::string> ended_;           // A name for each exit.
  std::vector<std::string> gone_;
  std::uint64_t exits_ = 0;
  std::uint64_t requests_ = 0;
};

}  // namespace PmTorture

#endif  // TORTURE_LOAD_H
