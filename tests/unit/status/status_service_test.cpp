// The service over a memory of its own: who gets in, what is answered, and what clients can't do.
#include "status/status_service.h"

#include <sys/syscall.h>

#include <list>

#include "tests/support/status_peer.h"

namespace ProcMgr::Status {
namespace {

using nlohmann::json;
using PmTest::StatusPeer;

constexpr gid_t kGroup = 4711;
const std::string kStatus = R"({"get":"status"})";
const std::string kWatch = R"({"watch":true})";

class StatusServiceTest : public Test {
 protected:
  void SetUp() override {
    memory_.BeginBoot();
    ASSERT_TRUE(service_.Start(kGroup, Folder()));
  }

  std::string Folder() const { return folder_.Path("status"); }
  std::string Path() const { return folder_.Path("status/status.sock"); }

  AppId Mention(const std::string& name) {
    AppFacts facts;
    facts.kind = AppKind::kBase;
    facts.name = name;
    facts.policy = RestartPolicy::kOnFailure;
    facts.depends = {"absent"};
    return memory_.Mention(std::move(facts));
  }

  PmTest::TempFolder folder_;
  Memory memory_;
  StatusService service_{memory_,
                         {[](const std::string&) { return true; },
                          [](const std::string&) { return milliseconds(1050); }}};
};

TEST_F(StatusServiceTest, AnswersEveryRequestOnOneConnection) {
  const AppId cam = Mention("cam \xff\"\\\x01");
  memory_.NoteStarted(cam, getpid());
  StatusPeer peer(Path());
  const json status = peer.Ask(kStatus);
  EXPECT_EQ(status.at("version"), 1);
  EXPECT_EQ(status.at("manager").at("pid"), getpid());
  EXPECT_EQ(status.at("manager").at("boot"), "running");
  EXPECT_EQ(status.at("apps").at(0).at("name"), "cam \xef\xbf\xbd\"\\\x01");
  EXPECT_EQ(status.at("apps").at(0).at("restarts").at("left"), 5);

  const json app = peer.Ask("{\"get\":\"app\",\"name\":\"" + std::string("cam") + "\"}");
  EXPECT_EQ(app.at("error"), "unknown application: cam");
  const AppId known = Mention("known");
  memory_.NoteStarted(known, getpid());
  const json details = peer.Ask(R"({"get":"app","name":"known"})");
  EXPECT_EQ(details.at("channel"), true);
  EXPECT_EQ(details.at("beat"), 1.05);
  EXPECT_EQ(details.at("depends"), json::parse(R"([{"name":"absent","state":null}])"));
  EXPECT_GE(details.at("threads"), 2);
  EXPECT_GE(details.at("fds"), 5);
  EXPECT_GT(details.at("rss_kib"), 0);
  EXPECT_FALSE(details.at("cores").at("kernel").empty());

  EXPECT_EQ(peer.Ask(R"({"get":"boot"})").at("end"), nullptr);
  for (const char* const wrong :
       {"", "{", "null", "7", "[]", "{}", "\xff", R"({"get":7})", R"({"get":"all"})",
        R"({"get":"app"})", R"({"watch":1})", R"({"watch":false})"}) {
    const json answer = peer.Ask(wrong);
    EXPECT_TRUE(answer.contains("error") && answer.at("version") == 1) << wrong;
  }
  EXPECT_TRUE(peer.Ask(kStatus).contains("apps"));
}

TEST_F(StatusServiceTest, ReaderThatHasSentAllGetsItsAnswers) {
  StatusPeer peer(Path());
  ASSERT_TRUE(peer.Send(kStatus + "\n" + kStatus + "\n"));
  ASSERT_EQ(shutdown(peer.Fd(), SHUT_WR), 0);
  EXPECT_TRUE(peer.ReadLine() && peer.ReadLine());
  EXPECT_TRUE(peer.AwaitClosed());
}

TEST_F(StatusServiceTest, WatcherHearsOfEveryChange) {
  const AppId app = Mention("x");
  StatusPeer first(Path());
  EXPECT_EQ(first.Ask(kWatch).at("apps").at(0).at("state"), "waiting");
  for (int i = 1; i <= 1000; ++i) {
    memory_.NoteStarted(app, i);
  }
  for (int i = 1; i <= 1000; ++i) {
    ASSERT_EQ(first.ReadAnswer().at("apps").at(0).at("pid"), i);
  }
  StatusPeer second(Path());
  EXPECT_EQ(second.Ask(kWatch).at("apps").at(0).at("pid"), 1000);
  memory_.EndBoot();
  for (StatusPeer* const peer : {&first, &second}) {
    const json line = peer->ReadAnswer();
    EXPECT_EQ(line.at("manager").at("boot"), "done");
    EXPECT_TRUE(line.at("apps").empty());
  }
}

TEST_F(StatusServiceTest, ClientsThatBreakARuleAreClosedAndOthersServed) {
  for (int i = 0; i < 1000; ++i) {
    (void)Mention("application" + std::to_string(i));
  }
  StatusPeer longLine(Path());
  StatusPeer longest(Path());
  StatusPeer deaf(Path());
  StatusPeer deafWatcher(Path());
  ASSERT_TRUE(longLine.Send(std::string(StatusClient::kLongestLine + 1, 'x')));
  EXPECT_TRUE(longLine.AwaitClosed());
  EXPECT_TRUE(longest.Ask(std::string(StatusClient::kLongestLine, 'x')).contains("error"));
  while (deaf.Send(kStatus + "\n")) {
  }
  EXPECT_TRUE(deaf.AwaitHangUp());
  ASSERT_TRUE(deafWatcher.Send(kWatch + "\n"));
  const AppId app = Mention("x");
  std::atomic<bool> isOver = false;
  std::thread feeder([&] {
    while (!isOver.load()) {
      memory_.NoteStarted(app, 7);
    }
  });
  EXPECT_TRUE(deafWatcher.AwaitHangUp());
  isOver.store(true);
  feeder.join();
  StatusPeer halfLine(Path());  // Not before: it may be silent for so long only.
  EXPECT_TRUE(halfLine.Send("{"));
  EXPECT_FALSE(halfLine.AwaitHangUp(milliseconds(0)));
  EXPECT_TRUE(StatusPeer(Path()).Ask(kStatus).contains("apps"));
}

TEST_F(StatusServiceTest, SeventeenthWaitsForNobodysPlace) {
  std::list<StatusPeer> peers;
  for (std::size_t i = 0; i < StatusService::kMostClients; ++i) {
    EXPECT_TRUE(peers.emplace_back(Path()).Ask(kStatus).contains("apps"));
  }
  EXPECT_TRUE(StatusPeer(Path()).AwaitClosed());
  EXPECT_TRUE(peers.front().Ask(kStatus).contains("apps"));
  peers.pop_front();
  EXPECT_TRUE(PmSandbox::Eventually([&] { return StatusPeer(Path()).Ask(kStatus).is_object(); }));
}

TEST_F(StatusServiceTest, OnlyRootAndTheGroupAreLetIn) {
  const struct {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
    bool isLetIn;
  } cases[] = {
      {0, 1, {}, true},      {1, kGroup, {}, true}, {1, 1, {2, kGroup}, true},
      {1, 1, {2, 3}, false}, {1, 1, {}, false},
  };
  // The file alone would keep the strangers out.
  ASSERT_EQ(chmod(Path().c_str(), 0666), 0);
  ASSERT_EQ(chmod(folder_.Path(".").c_str(), 0755), 0);
  for (const auto& c : cases) {
    // By the kernel's calls, which change the calling thread alone.
    std::thread([&] {
      ASSERT_EQ(syscall(SYS_setgroups, c.groups.size(), c.groups.data()), 0);
      ASSERT_EQ(syscall(SYS_setresgid, c.gid, c.gid, c.gid), 0);
      ASSERT_EQ(syscall(SYS_setresuid, c.uid, c.uid, c.uid), 0);
      StatusPeer peer(Path());
      EXPECT_EQ(peer.Error(), 0);
      EXPECT_EQ(peer.Ask(kStatus).is_object(), c.isLetIn) << c.uid << ' ' << c.gid;
    }).join();
  }
}

TEST_F(StatusServiceTest, FileIsTheGroupsAndGoesWithTheService) {
  struct stat file {};
  ASSERT_EQ(stat(Path().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777U, 0660U);
  EXPECT_EQ(file.st_uid, 0U);
  EXPECT_EQ(file.st_gid, kGroup);
  ASSERT_EQ(stat(Folder().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777U, 0755U);
  {
    StatusService second(memory_, {});
    EXPECT_FALSE(second.Start(kGroup, Folder()));
  }
  EXPECT_TRUE(StatusPeer(Path()).Ask(kStatus).is_object());
  service_.Stop();
  EXPECT_NE(stat(Path().c_str(), &file), 0);

  // What a manager that was killed leaves behind is replaced; what else stands there isn't.
  {
    const UniqueFd old(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const ProcMgr::UnixAddress address(Path());
    ASSERT_EQ(bind(old.Get(), address.Get(), address.Size()), 0);
  }
  StatusService next(memory_, {});
  EXPECT_TRUE(next.Start(kGroup, Folder()));
  next.Stop();
  folder_.Write("status/status.sock", "a file");
  EXPECT_FALSE(next.Start(kGroup, Folder()));
  folder_.Write("file", "no folder");
  EXPECT_FALSE(next.Start(kGroup, folder_.Path("file")));
}

TEST(StatusClient, TimeOutsAreForTheFirstLineAndForOneThatDoesNotReadOn) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueFd peer(ends[1]);
  const SteadyTime start = SteadyNow();
  const SteadyTime end = start + StatusClient::kPatience;
  StatusClient client(UniqueFd{ends[0]}, start);
  ASSERT_EQ(send(peer.Get(), "{}", 2, 0), 2);
  client.Take(POLLIN);
  EXPECT_FALSE(client.NextLine());
  EXPECT_FALSE(client.IsOver(end - milliseconds(1)));
  EXPECT_TRUE(client.IsOver(end));
  ASSERT_EQ(send(peer.Get(), "\n", 1, 0), 1);
  client.Take(POLLIN);
  EXPECT_EQ(client.NextLine(), "{}");
  EXPECT_FALSE(client.IsOver(end));

  client.Give(std::string(2 * StatusClient::kMostUnread, 'x'), start);
  EXPECT_FALSE(client.IsOver(end - milliseconds(1)));
  EXPECT_TRUE(client.IsOver(end));
  client.Give("one more", start);
  EXPECT_TRUE(client.IsOver(start));
}

}  // namespace
}  // namespace ProcMgr::Status
