// What the tests of service files share: a folder of files, the parser, and its log lines.
#ifndef TESTS_UNIT_PLATFORM_MANIFEST_FIXTURE_H
#define TESTS_UNIT_PLATFORM_MANIFEST_FIXTURE_H

#include "app/manifest.h"
#include "tests/support/log_capture.h"
#include "tests/support/test.h"

namespace ProcMgr {

using Manifests = std::vector<ApplicationManifest>;
using MatchData = std::map<std::string, std::string>;

// The four required keys, each on a line of its own: lines 2 to 5 behind "applications:".
inline constexpr const char* kBasics = R"(applications:
  - appName: cam
    binPath: /bin/cam
    uid: 7
    gid: 8
)";

class ManifestTest : public ::testing::Test {
 protected:
  // Parses the file `name` of the folder, or of an absolute path, into manifests_. The log lines
  // are in lines_, without the folder.
  int Parse(const std::string& name, const MatchData& match = {}) {
    const int result = ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, folder_.Path(name),
                                                            manifests_, match);
    lines_ = log_.Take();
    const std::string prefix = folder_.Path("");
    for (std::string& line : lines_) {
      for (std::size_t at = line.find(prefix); at != std::string::npos; at = line.find(prefix)) {
        line.erase(at, prefix.size());
      }
    }
    return result;
  }

  // The same for a file of this text, "m.yaml", and with an empty list to begin with.
  int ParseText(const std::string& text, const MatchData& match = {}) {
    folder_.Write("m.yaml", text);
    manifests_.clear();
    return Parse("m.yaml", match);
  }

  [[nodiscard]] std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const ApplicationManifest& manifest : manifests_) {
      names.push_back(manifest.GetAppName());
    }
    return names;
  }

  PmTest::TempFolder folder_;
  PmTest::LogCapture log_;
  Manifests manifests_;
  std::vector<std::string> lines_;
};

}  // namespace ProcMgr

#endif  // TESTS_UNIT_PLATFORM_MANIFEST_FIXTURE_H
