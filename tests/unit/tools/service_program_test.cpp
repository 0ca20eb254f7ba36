// The services that are installed, started by a person at a terminal where no manager runs.
#include "sandbox/process.h"
#include "sandbox/sandbox.h"
#include "tests/support/test.h"

namespace PmTest {
namespace {

namespace fs = std::filesystem;

// Where the programs stand, inside; empty.
constexpr const char* kFolder = "/run/sandbox/folder";

struct Case {
  std::vector<std::string> arguments;
  int status;
  const char* text;  // A part of what is printed.
};

TEST(ServiceProgram, WithoutAManagerItPrintsEndsAndLeavesNothingBehind) {
  const std::vector<Case> cases = {
      {{"--help"}, 0, " [OPTIONS]"},
      {{"-h"}, 0, " [OPTIONS]"},
      {{"--version"}, 0, " " PM_VERSION "\n"},
      {{"--hepl"}, 2, "--hepl"},
      {{"relative"}, 2, "relative"},
      {{"--wait", "0"}, 1, ": the manager has opened no channel within 0 s: "}};
  for (const std::string name : {"iammgr", "operator"}) {
    for (const Case& tried : cases) {
      SCOPED_TRACE(name + " " + tried.arguments.front());
      const PmSandbox::Sandbox sandbox;
      fs::create_directory(sandbox.Outside(kFolder));
      PmSandbox::Process process(sandbox, PmSandbox::ProgramPath(name), tried.arguments,
                                 {{}, name, [] { (void)!chdir(kFolder); }});
      const int status = process.WaitExit().value_or(-1);
      EXPECT_TRUE(WIFEXITED(status));
      EXPECT_EQ(WEXITSTATUS(status), tried.status);
      EXPECT_THAT(process.Output(), HasSubstr(tried.text));
      EXPECT_TRUE(fs::is_empty(sandbox.Outside(kFolder)));
    }
  }
}

}  // namespace
}  // namespace PmTest
