// What a peer or a program can do, or leave undone, that the manager's other charges must not feel.
#ifndef BENCH_BURDENS_H
#define BENCH_BURDENS_H

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/marks.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"
#include "sandbox/service_file.h"

namespace PmBench {

// A bench-service that is started again whenever it ends. With "--rest" it serves no socket.
PmSandbox::App RestartedService(const std::string& name, const Marks& marks,
                                const PmSandbox::Keys& keys, bool serves = false);

// Kills the process of the last mark.
void KillLast(const Marks& marks);
// The same, and waits for its successor's main.
void Restart(const Marks& marks);

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
  const char* name;  // "while ...".
  std::unique_ptr<Burden> (*make)(const PmSandbox::Sandbox& sandbox, PmSandbox::LogReader& log);
};

// The first is none at all.
std::span<const BurdenKind> AllBurdens();

}  // namespace PmBench

#endif  // BENCH_BURDENS_H
