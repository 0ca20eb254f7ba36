// Measurements in JSON, for whoever compares them or draws them: when and on what machine they were
// taken, and then a list, an entry a line.
#ifndef BENCH_MEASURED_FILE_H
#define BENCH_MEASURED_FILE_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace PmBench {

// Writes the file anew: {"date": ..., "machine": {...}, LIST: ENTRIES}. The machine is its kernel,
// its processor and the number of its cores; nothing tells whose it is. Throws if the file can't be
// written.
void WriteMeasured(const std::string& path, const std::string& list, const nlohmann::json& entries);

}  // namespace PmBench

#endif  // BENCH_MEASURED_FILE_H
