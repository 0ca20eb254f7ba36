// What pm-bench measures. Each boots a daemon of its own and yields its figures.
#ifndef BENCH_MEASURES_H
#define BENCH_MEASURES_H

#include <vector>

#include "bench/figures.h"

namespace PmBench {

// What the start of one service costs.
std::vector<Figure> MeasureLaunch();

// What a killed service costs the manager, and how long it is away.
std::vector<Figure> MeasureRestart();

// What the manager costs while nothing happens: CPU and memory with 0, 100 and 1000 services.
std::vector<Figure> MeasureIdle();

// How long 50 services that do nothing take to be up.
std::vector<Figure> MeasureBoot();

// How the boot and the manager's memory grow from 10 to 10,000 services.
std::vector<Figure> MeasureScale();

// What a request to start one application costs, and how long it takes from the frame to main.
std::vector<Figure> MeasureRequests();

// Many applications in one request: their start, what they cost while up, and their ends.
std::vector<Figure> MeasureMany();

// What an exit and a query cost the manager with few and with very many applications up.
std::vector<Figure> MeasureLookups();

// What the status of 1000 applications costs: the answer, the lock, a watcher.
std::vector<Figure> MeasureStatus();

// What an exit, a query and the boot wait while peers and programs don't do their part, and how
// long 200 services are away that are killed at once.
std::vector<Figure> MeasureWaits();

}  // namespace PmBench

#endif  // BENCH_MEASURES_H
