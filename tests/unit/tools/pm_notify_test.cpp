// pm-notify between a command and the manager: what it makes of what the command says and does.
#include <sys/syscall.h>

#include "base/unix_address.h"
#include "sandbox/process.h"
#include "tests/support/test.h"
#include "tests/unit/agent/beat_receiver.h"
#include "tests/unit/agent/fake_manager.h"
#include "tools/notify/notify_socket.h"

namespace PmTest {
namespace {

using Words = std::vector<std::string>;

constexpr std::uint32_t kState = 3;
constexpr const char* kReadyBody = "1#2#";
constexpr const char* kGoingDownBody = "1#3#";

bool IsAlive(pid_t pid) {
  const ProcessStat stat = ReadStat(pid);
  return stat.pid != 0 && stat.state != 'Z';
}

class PmNotify : public testing::Test {
 protected:
  // The test isn't the machine's manager, but it is the parent.
  void SetUp() override { sandbox_.WriteFile("/run/process-manager.pid", "1\n"); }

  void TearDown() override {
    sandbox_.KillAll();
    if (process_.has_value()) {
      EXPECT_EQ(process_->SanitizerReport(), "");
    }
    if (HasFailure() && process_.has_value()) {
      ADD_FAILURE() << process_->Output();
    }
  }

  void Start(Words arguments, const std::map<std::string, std::string>& environment = {}) {
    process_.emplace(sandbox_, ProgramPath("pm-notify"), arguments,
                     Process::Options{environment, "pm-notify", nullptr});
  }
  // Serves "svc" for a command that does nothing.
  void Serve(Words options = {}, const Words& command = {"sleep", "600"}) {
    Words arguments = {"--name", "svc", "--serve"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.emplace_back("--");
    arguments.insert(arguments.end(), command.begin(), command.end());
    Start(arguments);
  }

  // Connects as the manager does, as soon as the name is served.
  FakeManager Connect() {
    EXPECT_TRUE(Eventually([&] { return ConnectRaw(sandbox_, "svc").has_value(); }));
    return {sandbox_, "svc"};
  }

  // Says it as the command does, under the given user.
  void Say(const std::string& text, uid_t user = 0) {
    const ProcMgr::UnixAddress address(sandbox_.Outside("/run/pm-notify/svc"));
    std::thread([&] {
      const ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      // The C library's call would change the user of the whole process.
      ASSERT_EQ(syscall(SYS_setresuid, user, user, user), 0);
      ASSERT_TRUE(Eventually([&] {
        return sendto(fd.Get(), text.data(), text.size(), 0, address.Get(), address.Size()) >= 0;
      })) << strerror(errno);
    }).join();
  }

  // The wait status of pm-notify.
  int AwaitEnd() { return process_->WaitExit().value_or(-1); }
  pid_t Command() {
    EXPECT_TRUE(Eventually([&] { return Children(process_->Pid(), false).size() == 1; }));
    const std::vector<pid_t> children = Children(process_->Pid(), false);
    return children.empty() ? -1 : children.front();
  }

  Sandbox sandbox_;
  std::optional<Process> process_;
};

TEST(Notices, LastStateOfADatagramCountsAndOthersAreLeftAlone) {
  using State = Notify::Notices::State;
  const struct {
    std::string datagram;
    std::optional<State> state;
    bool beat;
  } cases[] = {
      {"READY=1", State::kReady, false},
      {"STATUS=up\nREADY=1\nWATCHDOG=1\n", State::kReady, true},
      {"READY=1\nSTOPPING=1", State::kStopping, false},
      {"READY=0\nREADY=11\nXREADY=1\n READY=1\nready=1", std::nullopt, false},
      {"READY=1\0"s, State::kReady, false},
      {"\n\n", std::nullopt, false},
      {"", std::nullopt, false},
  };
  for (const auto& c : cases) {
    Notify::Notices notices;
    Notify::ReadNotices(c.datagram, notices);
    EXPECT_EQ(notices.state, c.state) << c.datagram;
    EXPECT_EQ(notices.beat, c.beat) << c.datagram;
  }
}

TEST_F(PmNotify, TellsTheManagerWhatTheCommandSays) {
  const BeatReceiver beats(sandbox_);
  Serve();
  const FakeManager manager = Connect();
  // A stranger's word counts for nothing, nor does one that is longer than any honest one.
  Say("STOPPING=1", 1234);
  Say("STOPPING=1\n" + std::string(9000, 'x'));
  Say("STATUS=coming up\nREADY=1\nMAINPID=1");
  EXPECT_EQ(manager.ReceiveBody(kState), kReadyBody);
  Say("WATCHDOG=1");
  EXPECT_EQ(beats.Receive(), "svc");
  EXPECT_EQ(manager.Receive().data.at(0), 8) << "a heart message comes with the beat";
  Say("STOPPING=1");
  EXPECT_EQ(manager.ReceiveBody(kState), kGoingDownBody);
  EXPECT_TRUE(process_->IsRunning());
}

TEST_F(PmNotify, ReportWaitsForTheManagerAndIsRepeatedToTheNext) {
  Serve({"--ready"});
  for (int round = 0; round < 2; ++round) {
    FakeManager manager = Connect();
    // The connection that asked whether the name is served may have got one, too.
    EXPECT_EQ(manager.ReceiveBody(kState), kReadyBody);
    manager.Close();
  }
}

TEST_F(PmNotify, ReadyWhenTheCheckSucceedsAndNoZombieIsLeft) {
  Serve({"--ready-when", "echo $MAINPID >> /run/sandbox/checks && test -e /run/sandbox/up"});
  const FakeManager manager = Connect();
  ASSERT_TRUE(Eventually([&] { return sandbox_.ReadFile("/run/sandbox/checks").size() >= 12; }));
  EXPECT_FALSE(manager.Peer().Receive(milliseconds(1)).has_value());
  Say("READY=1");  // The check has been given the word.
  sandbox_.WriteFile("/run/sandbox/up", "");
  EXPECT_EQ(manager.ReceiveBody(kState), kReadyBody);
  EXPECT_EQ(Children(process_->Pid(), true), std::vector<pid_t>{});
  const pid_t command = Command();
  EXPECT_THAT(sandbox_.ReadFile("/run/sandbox/checks"), StartsWith(std::to_string(command) + "\n"));
  process_->Signal(SIGTERM);
  EXPECT_EQ(AwaitEnd(), SIGTERM);
  EXPECT_FALSE(IsAlive(command));
}

// A check that hangs ends with the command, and with it what it has started.
TEST_F(PmNotify, CheckEndsWithTheCommand) {
  Serve({"--ready-when", "sleep 600 & wait"});
  ASSERT_TRUE(Eventually([&] { return sandbox_.Processes().size() == 4; }));
  process_->Signal(SIGTERM);
  EXPECT_EQ(AwaitEnd(), SIGTERM);
  EXPECT_TRUE(Eventually([&] { return sandbox_.Processes().empty(); }));
}

TEST_F(PmNotify, BeatsAsLongAsTheCommandIsThere) {
  const BeatReceiver beats(sandbox_);
  Serve({"--beat"}, {"sh", "-c", "test -z \"$WATCHDOG_USEC\" && exec sleep 600"});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(beats.Receive(), "svc");
  }
}

TEST_F(PmNotify, EndsAsTheCommandEnds) {
  sandbox_.WriteFile("/run/sandbox/plain.txt", "no program");
  const struct {
    Words command;
    int status;  // As wait gives it.
  } cases[] = {
      {{"sh", "-c", "exit 0"}, 0},
      {{"sh", "-c", "exit 7"}, 7 << 8},
      {{"sh", "-c", "kill -KILL $$"}, SIGKILL},
      {{"sh", "-c", "ulimit -c unlimited; kill -ABRT $$"}, SIGABRT},
      {{"sh", "-c", "test \"$PROC_NAME:$NOTIFY_SOCKET\" = svc:/run/pm-notify/svc"}, 0},
      {{"sh", "-c", "test \"$1$2\" = '--[a,b]'", "x", "--", "[a,b]"}, 0},
      {{"/run/sandbox/nothing"}, 127 << 8},
      {{"/run/sandbox/plain.txt"}, 126 << 8},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.command));
    Serve({}, c.command);
    EXPECT_EQ(AwaitEnd(), c.status) << process_->Output();
    EXPECT_FALSE(std::filesystem::exists(sandbox_.Outside("/run/pm-notify/svc")));
  }
}

// A user before whom root hasn't been there, then one whose folder somebody else has taken.
TEST_F(PmNotify, SocketFindsAPlaceForEveryUser) {
  const std::string own = "/tmp/pm-notify-12345";
  std::filesystem::remove_all(own);
  sandbox_.WriteFile("/run/nexio/.made", "");
  std::filesystem::permissions(sandbox_.Outside("/run/nexio"), std::filesystem::perms::all);
  const auto serve = [&](const char* test) {
    process_.emplace(
        sandbox_, "/usr/bin/setpriv",
        Words{"--reuid=12345", "--regid=12345", "--clear-groups", ProgramPath("pm-notify"),
              "--name", "svc", "--serve", "--", "sh", "-c", test},
        Process::Options{{}, "pm-notify", nullptr});
    EXPECT_EQ(AwaitEnd(), 0) << process_->Output();
  };
  serve("test $NOTIFY_SOCKET = /tmp/pm-notify-12345/svc && test -S $NOTIFY_SOCKET");
  ASSERT_TRUE(std::filesystem::remove(own));
  std::filesystem::create_directory(own);
  serve("test $NOTIFY_SOCKET != /tmp/pm-notify-12345/svc && test -S $NOTIFY_SOCKET");
  ASSERT_TRUE(std::filesystem::remove(own)) << "nothing has been put there";
}

TEST_F(PmNotify, CommandDiesWithIt) {
  Serve();
  const pid_t command = Command();
  process_->Signal(SIGKILL);
  EXPECT_EQ(AwaitEnd(), SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !IsAlive(command); }));
  // What it has left behind is in nobody's way.
  Serve({"--ready"});
  const FakeManager manager = Connect();
  EXPECT_EQ(manager.ReceiveBody(kState), kReadyBody);
}

TEST_F(PmNotify, SaysInOneLineWhatIsWrong) {
  const struct {
    Words arguments;
    std::map<std::string, std::string> environment;
    int status;
    std::string line;
  } cases[] = {
      {{"--serve", "--", "true"}, {}, 2, "PROC_NAME isn't set; give --name NAME"},
      {{"--serve", "--", "true"}, {{"PROC_NAME", "PROCMGR"}}, 2, "is PROCMGR, inherited"},
      {{"--serve", "--name", "a/b", "--", "true"}, {}, 2, "can't serve \"a/b\": not a service's"},
      {{"--name", "svc", "--", "true"}, {}, 2, "--serve is required"},
      {{"--serve", "--name", "svc"}, {}, 2, "no COMMAND"},
      {{"--serve", "--name", "svc", "--ready-when", "", "--", "true"}, {}, 2, "--ready-when"},
      {{"--serve", "--ready", "--ready-when", "x", "--", "true"}, {}, 2, "excludes"},
      {{"--serve", "--name", "svc", "true"}, {}, 2, "not expected: true"},
      {{"--help"}, {}, 0, "NOTIFY_SOCKET"},
      {{"--version"}, {}, 0, "pm-notify "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    Start(c.arguments, c.environment);
    EXPECT_EQ(AwaitEnd(), c.status << 8);
    EXPECT_THAT(process_->Output(), HasSubstr(c.line));
  }
  Serve({"--ready"});
  (void)Connect();
  const Process second(sandbox_, ProgramPath("pm-notify"),
                       {"--name", "svc", "--serve", "--", "true"}, {{}, "second", nullptr});
  EXPECT_EQ(const_cast<Process&>(second).WaitExit(), 1 << 8);
  EXPECT_THAT(second.Output(), HasSubstr("another process serves the name"));
}

}  // namespace
}  // namespace PmTest
