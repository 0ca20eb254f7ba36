// Any bytes as a service file. A load either succeeds, or tells why in printable lines of bounded
// length; what it yields can always be walked to its end.
#include <syslog.h>

#include <set>
#include <string>
#include <vector>

#include "app/manifest.h"
#include "core/log.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzFile;
using PmTest::Require;

namespace {

constexpr std::size_t kMaxLineBytes = 4096;

std::size_t errorLines = 0;

void CheckLine(int level, const char* text) {
  errorLines += level == LOG_ERR ? 1 : 0;
  std::size_t length = 0;
  for (; text[length] != '\0'; ++length) {
    Require(text[length] >= ' ' && text[length] <= '~');
  }
  Require(length > 0 && length < kMaxLineBytes);
}

void CheckManifest(const ProcMgr::ApplicationManifest& manifest) {
  const std::string& name = manifest.GetAppName();
  Require(!name.empty() && name.size() <= 255 && name.find('\0') == std::string::npos);
  Require(manifest.GetNice() >= -20 && manifest.GetNice() <= 19);
  Require(manifest.GetStartupPriority() >= -1);
  Require(manifest.GetCoreAffinity().size() <= 1024);
  for (const auto& [key, value] : manifest.GetEnvArgv()) {
    Require(!key.empty() && key.find('=') == std::string::npos);
    Require(value.find('\0') == std::string::npos);
  }
}

void Walk(const std::vector<std::string>& names) {
  ProcMgr::DependGraph graph;
  ProcMgr::ParseAndDepend::Instance().GetStartGraph(names, graph);
  while (!graph.IsEmpty()) {
    const std::set<std::string> round = graph.GetNoDependVertices();
    Require(!round.empty());
    for (const std::string& name : round) {
      graph.Pop(name);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcMgr::SetLogSink(&CheckLine);
  errorLines = 0;
  std::vector<ProcMgr::ApplicationManifest> manifests;
  const int result = ProcMgr::ParseAndDepend::Instance().ParseYaml(
      ProcMgr::ParamType::kDefault, FuzzFile(data, size), manifests, {{"board", "1"}});
  Require((result != 0) == (errorLines > 0));
  Require(result == 0 || manifests.empty());
  std::vector<std::string> names;
  for (const ProcMgr::ApplicationManifest& manifest : manifests) {
    CheckManifest(manifest);
    names.push_back(manifest.GetAppName());
  }
  Require(std::set<std::string>(names.begin(), names.end()).size() == names.size());
  Walk(names);
  return 0;
}
