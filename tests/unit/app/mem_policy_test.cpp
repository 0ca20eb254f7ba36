#include "app/mem_policy.h"

#include "tests/unit/app/fakes.h"
#include "tests/unit/app/launch_fixture.h"

namespace ProcMgr::App {
namespace {

PlatMemInfo Nodes(std::uint32_t count, std::vector<std::int32_t> nodes) {
  PlatMemInfo info{};
  info.nodeCount = count;
  std::copy(nodes.begin(), nodes.end(), info.nodes.begin());
  return info;
}

TEST(SetMemPolicy, SaysWhatItCouldNotDo) {
  struct {
    FakePlatform platform;
    const char* text;
  } const rows[] = {
      {{-7, 1, 0, {}}, "Get device number failed when set memory policy. ret=-7"},
      {{0, 0, 5, {}}, ""},
      {{0, 2, 5, {}}, ""},
      {{0, 1, 5, {}}, "svc get memory info failed. vfId=3,ret=5"},
      {{0, 1, 0, Nodes(65, {})}, "svc numa node number exceed. node_cnt=65"},
      {{0, 1, 0, Nodes(2, {0, 128})}, "svc numa node index exceed. node_id=128"},
      {{0, 1, 0, Nodes(1, {-1})}, "svc numa node index exceed. node_id=18446744073709551615"},
      // The kernel refuses nodes that aren't there, which shows the mask.
      {{0, 1, 0, Nodes(0, {5})}, "svc set_mempolicy failed. mask=0|0,num=0,errno=22"},
      {{0, 1, 0, Nodes(2, {63, 127})},
       "svc set_mempolicy failed. mask=9223372036854775808|9223372036854775808,num=2,errno=22"},
  };
  for (const auto& row : rows) {
    Platform() = row.platform;
    Platform().vfId = 3;
    ErrText text;
    const bool isSet = SetMemPolicy("svc", PlanMemPolicy("svc", 3), text);
    EXPECT_EQ(isSet, text.IsEmpty());
    EXPECT_EQ(text.View(), row.text);
  }
  ResetPlatform();
}

using MemPolicy = LaunchTest;

TEST_F(MemPolicy, BindsTheChildToTheNodesOfItsFunction) {
  Platform().memInfo = Nodes(1, {0});
  ApplicationManifest::Fields fields = Fields();
  fields.vfId = 0;
  GeneralAppInfo app = GeneralRecord(fields);
  EXPECT_EQ(ReportOf(app).Get("mempolicy"), "2,1");
  EXPECT_EQ(PipeText(), Message(app, kNoCores));

  Platform().deviceResult = 9;
  fields.cpuset = "NOPE";  // Comes later: the text stands alone.
  app = GeneralRecord(fields);
  EXPECT_EQ(StatusOf(app), 1 << 8) << "a failure ends the child";
  EXPECT_EQ(PipeText(), Message(app, "Get device number failed when set memory policy. ret=9"));
}

TEST_F(MemPolicy, ANegativeFunctionAndABaseApplicationAskNobody) {
  Platform().deviceResult = 9;
  GeneralAppInfo general = GeneralRecord(Fields());
  EXPECT_EQ(ReportOf(general).Get("mempolicy").substr(0, 2), "0,");
  ApplicationManifest::Fields fields = Fields();
  fields.vfId = 0;
  BaseAppInfo base = BaseRecord(fields);
  EXPECT_EQ(ReportOf(base).Get("mempolicy").substr(0, 2), "0,");
}

}  // namespace
}  // namespace ProcMgr::App
