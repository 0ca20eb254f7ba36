// What a peer or a program can do, or leave undone, that the manager's other charges must not feel.
#ifndef BENCH_BURDENS_H
#define BENCH_BURDENS_H

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"
#include "sandbox/service_file.h"

namespace PmBench {

// Waits for nothing of the manager but what its own services need. All operations throw if that
// doesn't come.
class Burden {
 public:
  Burden() = default;
  virtual ~Burden() = default;
  Burden(const Burden&) = delete;
  Burden& operator=(const Burden&) = delete;

  // The services that it needs. Before the boot, which starts them in this order.
  [[nodiscard]] virtual std::vector<PmSandbox::App> Services() { return {}; }
  // Has them come up.
  virtual void Serve() {}
  // It is under way when this returns. To be called again before each look at the manager: what has
  // ended by itself begins once more.
  virtual void Renew() {}
  // Its peers do as they should again.
  virtual void End() {}
};

struct BurdenKind {
  const char* name = nullptr;  // "while ...".
  std::unique_ptr<Burden> (*make)(const PmSandbox::Sandbox& sandbox,
                                  PmSandbox::LogReader& log) = nullptr;
  // What the manager may keep of it: data that stays, and what its allocator doesn't give back.
  long keptKib = 2048;
};

template <typename Kind>
std::unique_ptr<Burden> MakeBurden(const PmSandbox::Sandbox& sandbox, PmSandbox::LogReader& log) {
  return std::make_unique<Kind>(sandbox, log);
}

// The first is none at all.
std::span<const BurdenKind> AllBurdens();
// Of these, those that no peer of the manager makes.
std::span<const BurdenKind> OutsideBurdens();

}  // namespace PmBench

#endif  // BENCH_BURDENS_H
