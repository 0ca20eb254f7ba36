// What ./dev torture runs.
#ifndef TORTURE_RUNS_H
#define TORTURE_RUNS_H

#include <cstdint>
#include <string>

namespace PmTorture {

struct Options {
  std::uint64_t seed = 0;
  std::uint64_t exits = 20'000;  // Of storm.
  int minutes = 1;               // Of soak.
  std::string json;              // Where soak writes its samples; empty: nowhere.
  int looks = 20;                // Of neighbours, at the others, for each burden.
  int lives = 0;                 // Of faults, in random order; 0: all that there are, in theirs.
  std::string fault;             // Of faults, only those whose description holds it.
};

// Each boots the real manager, prints what it has done in a line or more, and throws Broken if a
// promise was broken. One thread.

// Requests of eight agents and kills, in random order and among strangers that get the pids which
// come free, and so few pids that each soon comes again: every report, every exit line and every
// state is the one that a model predicts.
void RunStorm(const Options& options);
// The same load for minutes: descriptors, threads and memory don't grow, and an exit gets no
// dearer. Meanwhile its samples grow in the file that is asked for.
void RunSoak(const Options& options);
// Agents of other versions speak to the manager; and it is killed in the middle and started again
// over what its predecessor left.
void RunUpgrade(const Options& options);
// While services are killed, one burden after the other is put on the manager, strangers, floods
// and a machine without room among them: the others are served as on a quiet day.
void RunNeighbours(const Options& options);
// One system call fails, in the manager or in a child of it, once or for a while: the manager goes
// on or ends with a word, supervises, tells what is missing and leaks nothing.
void RunFaults(const Options& options);
// The wall clock jumps by years, the monotonic clock shows something odd, everything is stopped for
// a while: term time-out, restart window and heartbeats are those of a quiet day.
void RunClock(const Options& options);

}  // namespace PmTorture

#endif  // TORTURE_RUNS_H
