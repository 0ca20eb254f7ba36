// A bench-service that the manager brings back whenever it is killed.
#ifndef BENCH_RESTARTED_SERVICE_H
#define BENCH_RESTARTED_SERVICE_H

#include <string>

#include "bench/marks.h"
#include "sandbox/service_file.h"

namespace PmBench {

// A bench-service that is started again whenever it ends. With "--rest" it serves no socket.
PmSandbox::App RestartedService(const std::string& name, const Marks& marks,
                                const PmSandbox::Keys& keys, bool serves = false);

// Kills the process of the last mark.
void KillLast(const Marks& marks);
// The same, and waits for its successor's main.
void Restart(const Marks& marks);

}  // namespace PmBench

#endif  // BENCH_RESTARTED_SERVICE_H
