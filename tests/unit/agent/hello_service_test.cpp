// The example service, as a process of its own.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/process.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

TEST(HelloService, ReportsItselfAndSaysGoodbye) {
  const Sandbox sandbox;
  sandbox.InstallProgram(ProgramPath("hello_service"), "/opt/hello_service");
  Process::Options options;
  options.environment["PROC_NAME"] = "hello";
  Process service(sandbox, "/opt/hello_service", {}, options);
  std::optional<FakeManager> manager;
  ASSERT_TRUE(Eventually([&] {
    manager.emplace(sandbox, "hello");
    return manager->IsConnected();
  })) << service.Output();
  // A heart message may come first.
  std::string body;
  ASSERT_TRUE(Eventually([&] {
    const RawPacket packet = manager->Receive();
    return packet.data == FrameBytes(3, "1#2#");
  }));
  manager->Send(4, "1#camera#12#34#0#0#");
  EXPECT_TRUE(Eventually([&] {
    return service.Output() == "camera: pid 12, RUNNING_NORMAL_START\n";
  })) << service.Output();
  service.Signal(SIGTERM);
  ASSERT_TRUE(Eventually([&] { return manager->Receive().data == FrameBytes(3, "1#3#"); }));
  EXPECT_EQ(service.WaitExit(), 0) << service.Output();
  EXPECT_EQ(service.SanitizerReport(), "");
}

TEST(HelloService, SaysWhyItCannotStart) {
  const Sandbox sandbox;
  sandbox.InstallProgram(ProgramPath("hello_service"), "/opt/hello_service");
  Process service(sandbox, "/opt/hello_service", {}, {});
  const std::optional<int> status = service.WaitExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(WEXITSTATUS(*status), 1);
  EXPECT_NE(service.Output().find("hello_service: create the agent: not a service's name"),
            std::string::npos)
      << service.Output();
}

}  // namespace
}  // namespace PmTest
