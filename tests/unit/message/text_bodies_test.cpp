
#include "message/serialization.h"
#include "message/text_fields.h"
#include "tests/support/taken_log.h"
#include "tests/support/test.h"
#include "tests/unit/message/frames.h"

namespace ProcMgr::Message {

// Records as text that a failure can show and a table can hold.
template <typename Record>
std::string Show(const Record& info) requires requires {
  info.dynamicPara;
}
{
  std::string text = info.appName + '(';
  for (const std::string& argument : info.argv) {
    text += argument + ',';
  }
  text += ')';
  for (const auto& [key, values] : info.dynamicPara) {
    text += std::to_string(key) + '=';
    for (const std::string& value : values) {
      text += value + ',';
    }
  }
  return text;
}

std::string Show(const TermAppInfo& info) {
  return info.appName;
}

template <typename Record>
std::string Show(const Record& info) requires requires {
  info.pid;
}
{
  std::ostringstream text;
  text << info.appName << ' ' << info.pid << ' ' << info.gid << ' ' << info.state;
  if constexpr (requires { info.eioFlag; }) {
    text << ' ' << info.eioFlag;
  }
  return text.str();
}

std::string Show(const StartupCfgInfo& info) {
  std::string text = info.path;
  for (const auto& [key, value] : info.matchData) {
    text.append(" ").append(key).append("=").append(value);
  }
  return text;
}

std::string Show(const BaseServiceStateInfo& info) {
  return std::to_string(info.state);
}

template <typename Record>
std::vector<std::string> Show(const std::vector<Record>& list) {
  std::vector<std::string> texts;
  for (const Record& info : list) {
    texts.push_back(Show(info));
  }
  return texts;
}

}  // namespace ProcMgr::Message

namespace ProcMgr::Serialization {
namespace {

using Message::RequestType;
using Message::Show;
using PmTest::TakeLog;
using Test::Frame;
using Texts = std::vector<std::string>;

template <typename Content>
std::string PackedText(bool (*pack)(const Content&, std::vector<PackedItem>&),
                       const Content& content) {
  std::vector<PackedItem> packed;
  EXPECT_TRUE(pack(content, packed));
  EXPECT_EQ(packed.size(), 1U);
  EXPECT_EQ(packed.at(0).first, packed.at(0).second.size());
  return packed.at(0).second;
}

TEST(TextPackers, WriteTheseBytes) {
  EXPECT_EQ(PackedText(ProcMgrPackStartRequest, {{"a", {"x", "y"}, {{1, {"v"}}}}}),
            "a#2#x#y#1#1#1#v#");
  EXPECT_EQ(PackedText(ProcMgrPackRestartRequest, {{"a", {""}, {{-7, {}}, {2, {"k=v", "l=w"}}}}}),
            "a#1##2#-7#0#2#2#k=v#l=w#");
  EXPECT_EQ(PackedText(ProcMgrPackTermRequest, {{""}}), "#");
  EXPECT_EQ(PackedText(ProcMgrPackAppStateRequest, {{"a", -1, 4294967295U, 4, 1}}),
            "a#4294967295#4294967295#4#1#");
  EXPECT_EQ(PackedText(ProcMgrPackAppExecInfoRequest, {"v", 7, 8, 1}), "v#7#8#1#");
  EXPECT_EQ(PackedText(ProcMgrPackMatchDataAndPathRequest, {{{"k2", "b"}, {"k1", "a"}}, "/p"}),
            "/p#2#k1#a#k2#b#");
  std::vector<PackedItem> packed;
  EXPECT_TRUE(ProcMgrPackBaseServiceStateRequest({2}, packed));
  EXPECT_EQ(packed.at(0).second, "2#");
}

// A name so long that the item's text has `size` bytes; `rest` is what stands behind the name.
std::string NameFor(std::size_t size, std::string_view rest) {
  return std::string(size - rest.size(), 'n');
}

TEST(TextPackers, RefuseWhatIsTooLong) {
  for (const std::size_t size : {std::size_t{3959}, std::size_t{3960}}) {
    const bool fits = size < 3960;
    SCOPED_TRACE(size);
    const std::string start = NameFor(size, "#0#0#");
    std::vector<PackedItem> packed;
    EXPECT_EQ(ProcMgrPackStartRequest({{"a", {}, {}}, {start, {}, {}}, {"b", {}, {}}}, packed),
              fits);
    EXPECT_EQ(packed.size(), fits ? 3U : 1U);
    EXPECT_EQ(ProcMgrPackRestartRequest({{start, {}, {}}}, packed), fits);
    EXPECT_EQ(ProcMgrPackTermRequest({{NameFor(size, "#")}}, packed), fits);
    EXPECT_EQ(ProcMgrPackAppStateRequest({{NameFor(size, "#1#2#3#4#"), 1, 2, 3, 4}}, packed), fits);
    EXPECT_EQ(ProcMgrPackAppExecInfoRequest({NameFor(size, "#1#2#3#"), 1, 2, 3}, packed), fits);
    EXPECT_EQ(ProcMgrPackMatchDataAndPathRequest({{}, NameFor(size, "#0#")}, packed), fits);
    const Texts log = TakeLog();
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string& line) { return line.starts_with("E "); }),
              fits ? 0 : 6);
  }
}

template <typename Record>
Texts Unpack(void (*unpack)(const Message::RequestMsg*, std::vector<Record>&, const std::string&),
             std::string_view body, const std::string& sender) {
  std::vector<Record> list{{"before", {}, {}}};
  const Message::RequestMsg frame = Frame(RequestType::START_APP, body);
  unpack(&frame, list, sender);
  return Show(list);
}

std::string Repeat(std::string_view text, std::size_t times) {
  std::string all;
  for (; times > 0; --times) {
    all += text;
  }
  return all;
}

struct StartCase {
  const char* name;
  std::string body;
  Texts records, log;
  const char* sender = "camera_service";
};

const std::string kBroken = "W PROCMGR : frame body breaks off: type=0, size=";
const std::string kDynamic = "E ProcMgr : ProcMgrMaster unpack request failed, dynamicPara";

const StartCase kStartCases[] = {
    {"the example", "1#a#2#x#y#1#1#1#v#", {"a(x,y,)1=v,"}, {}},
    {"empty strings", "1##1##1#0#1###", {"(,)0=,"}, {}},
    {"values of a key that comes twice add up", "1#a#0#3#2#1#x#1#0#2#2#y#z#", {"a()2=x,y,z,"}, {}},
    {"a negative key passes", "1#a#0#1#-5#1#v#", {"a()-5=v,"}, {}},
    {"1024 arguments",
     "1#a#1024#" + Repeat("#", 1024) + "0#",
     {"a(" + std::string(1024, ',') + ")"},
     {}},
    {"1025 arguments: the record keeps its name alone, the next begins right there",
     "2#a#1025#b#0#0#",
     {"a()", "b()"},
     {"E ProcMgr : ProcMgrMaster : UnpackStartRequest err, argvSize=1025"}},
    {"a dynamic key of 3 stops; the records behind stay empty",
     "3#a#1#x#2#1#1#v#3#1#w#b#0#0#c#1#y#0#",
     {"a(x,)1=v,", "()", "()"},
     {kDynamic + " index=3 invalid"}},
    {"a dynamic key of 3 in a frame that breaks off behind it",
     "1999#a#1#x#1#3#1#w#b#0#",
     {"a(x,)"},
     {kDynamic + " index=3 invalid"}},
    {"four dynamic entries", "1#a#0#4#0#0#1#0#2#0#2#0#", {"a()"}, {kDynamic + "Size=4 invalid"}},
    {"1025 values keep the entries before them",
     "1#a#0#2#0#1#/p#2#1025#" + Repeat("#", 1025),
     {"a()0=/p,"},
     {kDynamic + " index=2, valueNum=1025 invalid"}},
    {"the access manager's second record begins in the first one's block",
     "2#a#0#1#1#1#v#b#0#0#",
     {"a()", "1(1,)"},
     {},
     "iammgr"},
    {"2000 records are refused",
     "2000#a#0#0#",
     {"before()"},
     {"E ProcMgr : ProcMgrMaster UnpackStartRequest err: big startAppListSize=2000"}},
    {"no count", "x#a#0#0#", {}, {kBroken + "8 bytes, whole records=0"}},
    {"an argument count that is no number",
     "2#a#0#0#b#x#0#",
     {"a()"},
     {kBroken + "14 bytes, whole records=1"}},
    {"a huge number of values, of which none is there",
     "1#a#0#1#1#1000#",
     {},
     {kBroken + "15 bytes, whole records=0"}},
};

TEST(ProcMgrUnpackStartRequest, ReadsTheseBodies) {
  for (const StartCase& test : kStartCases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(Unpack(ProcMgrUnpackStartRequest, test.body, test.sender), test.records);
    EXPECT_EQ(TakeLog(), test.log);
    // The two unpackers differ in their texts and in nothing else.
    EXPECT_EQ(Unpack(ProcMgrUnpackRestartRequest, test.body, test.sender), test.records);
    EXPECT_EQ(TakeLog().size(), test.log.size());
  }
}

TEST(ProcMgrUnpackTermRequest, ReadsTheseBodies) {
  const std::pair<std::string, Texts> cases[] = {
      {"1##", {""}},
      {"2#a#b#", {"a", "b"}},
      {"1#a", {}},  // It could be the start of a longer name.
      {"3#a#b#c", {"a", "b"}},
      {"1999#" + Repeat("#", 1999), Texts(1999, "")},
      {"2000#" + Repeat("#", 2000), {"before"}},
  };
  for (const auto& [body, names] : cases) {
    SCOPED_TRACE(body.substr(0, 40));
    std::vector<Message::TermAppInfo> list{{"before"}};
    const Message::RequestMsg frame = Frame(RequestType::TERM_APP, body);
    ProcMgrUnpackTermRequest(&frame, list);
    EXPECT_EQ(Show(list), names);
  }
  EXPECT_EQ(TakeLog().size(), 3U);
}

TEST(ProcMgrUnpackedAppStateRequest, ReadsTheseBodies) {
  const std::pair<std::string, Texts> cases[] = {
      {"1#a#12#34#0#0#", {"a 12 34 0 0"}},
      {"2#a#4294967295#34#4#1##1#2#3#0#", {"a -1 34 4 1", " 1 2 3 0"}},
      {"1#a#12#34#0#0", {}},
      {"2000#", {"before 0 0 0 0"}},
  };
  for (const auto& [body, records] : cases) {
    SCOPED_TRACE(body);
    std::vector<Message::AppStateInfo> list{{"before", 0, 0, 0, 0}};
    const Message::RequestMsg frame = Frame(RequestType::APP_STATE_REPORT, body);
    ProcMgrUnpackedAppStateRequest(&frame, list);
    EXPECT_EQ(Show(list), records);
  }
  EXPECT_EQ(TakeLog().size(), 2U);
}

// Unpacks one record over `info`; the text is what is there afterwards, whatever the result.
template <typename Record>
std::string UnpackOne(bool (*unpack)(const Message::RequestMsg*, Record&), std::string_view body,
                      Record info, bool isWhole) {
  const Message::RequestMsg frame = Frame(RequestType::BASESERVICE_STATE_REPORT, body);
  EXPECT_EQ(unpack(&frame, info), isWhole);
  EXPECT_EQ(TakeLog().size(), isWhole ? 0U : 1U);
  return Show(info);
}

TEST(TextUnpackersOfOneRecord, ReadTheseBodies) {
  const auto state = ProcMgrUnpackedBaseServiceStateRequest;
  EXPECT_EQ(UnpackOne(state, "1#2#", {9}, true), "2");
  EXPECT_EQ(UnpackOne(state, "77#3#", {9}, true), "3");
  EXPECT_EQ(UnpackOne(state, "1#2", {9}, false), "9");
  EXPECT_EQ(UnpackOne(state, "1#x#", {9}, false), "9");
  EXPECT_EQ(UnpackOne(state, "x#2#", {9}, false), "9");

  const auto exec = ProcMgrUnpackedAppExecInfoRequest;
  EXPECT_EQ(UnpackOne(exec, "1#v#7#8#1#", {}, true), "v 7 8 1");
  EXPECT_EQ(UnpackOne(exec, "1#v#4294967294#8#1#", {}, true), "v -2 8 1");
  EXPECT_EQ(UnpackOne(exec, "1#v#7#8#", {"w", 1, 2, 3}, false), "w 1 2 3");

  const auto cfg = ProcMgrUnpackMatchDataAndPathRequest;
  EXPECT_EQ(UnpackOne(cfg, "1#/p#0#", {}, true), "/p");
  EXPECT_EQ(UnpackOne(cfg, "1#/p#2#k#v#l#w#", {}, true), "/p k=v l=w");
  EXPECT_EQ(UnpackOne(cfg, "1#/p#2#k#v#k#w#", {{{"b", "0"}}, "/q"}, true), "/p b=0 k=v");
  EXPECT_EQ(UnpackOne(cfg, "1#/p#102400#k#v#", {}, true), "/p");
  EXPECT_EQ(UnpackOne(cfg, "1#/p#102399#k#v#", {{}, "/q"}, false), "/q");
  EXPECT_EQ(UnpackOne(cfg, "1#/p#2#k#v#l#", {{}, "/q"}, false), "/q");
}

// A body cut short anywhere gives the records that are whole in it, and nothing else.
TEST(TextUnpackers, EveryShorterBodyGivesWholeRecordsOnly) {
  const std::string body = "2#ab#1#x#1#2#2#k=v#l=w#cd#0#0#";
  const std::size_t firstEnds = std::string_view("2#ab#1#x#1#2#2#k=v#l=w#").size();
  for (std::size_t size = 0; size < body.size(); ++size) {
    SCOPED_TRACE(body.substr(0, size));
    const Texts whole = size < firstEnds ? Texts{} : Texts{"ab(x,)2=k=v,l=w,"};
    EXPECT_EQ(Unpack(ProcMgrUnpackStartRequest, body.substr(0, size), "camera_service"), whole);
    EXPECT_EQ(TakeLog().size(), 1U);
  }
  const std::string exec = "1#v#12#8#1#";
  for (std::size_t size = 0; size < exec.size(); ++size) {
    UnpackOne(ProcMgrUnpackedAppExecInfoRequest, exec.substr(0, size), {}, false);
  }
}

TEST(TextUnpackers, RefuseAFrameThatClaimsMoreThanItHas) {
  Message::RequestMsg frame = Frame(RequestType::TERM_APP, "1#a#");
  frame.size = 3965;
  std::vector<Message::TermAppInfo> list{{"before"}};
  ProcMgrUnpackTermRequest(&frame, list);
  EXPECT_EQ(Show(list), Texts{"before"});
  frame.size = UINT64_MAX;
  Message::BaseServiceStateInfo state{9};
  EXPECT_FALSE(ProcMgrUnpackedBaseServiceStateRequest(&frame, state));
  EXPECT_EQ(state.state, 9U);
  EXPECT_EQ(TakeLog().size(), 2U);
  frame = Frame(RequestType::TERM_APP, "1#" + std::string(3961, 'n') + '#');
  ProcMgrUnpackTermRequest(&frame, list);
  EXPECT_EQ(Show(list), Texts{std::string(3961, 'n')});
}

// The reader takes what a formatted stream input takes.
TEST(FieldReader, ReadsNumbersAsAStreamDoes) {
  // Numbers at the ends of their ranges, signs, blanks, and what is none.
  const std::string limits[] = {"4294967295", "4294967296", "2147483648", "2147483649",
                                "18446744073709551616"};
  std::vector<std::string> texts = {"7#x", "007#", "+5#", "-1#", "- 1#", " \t\n12#", "12 #", "12x"};
  texts.insert(texts.end(), {"0x1#", "1e3#", "#", "", "+#", "--1#", "1"});
  for (const std::string& limit : limits) {
    texts.push_back(limit + "#");
    texts.push_back("-" + limit + "#");
  }
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    const auto compare = [&text](auto unread) {
      auto expected = unread;
      char separator = 0;
      std::istringstream stream(text);
      stream >> expected >> separator;
      auto value = unread;
      FieldReader in(text);
      EXPECT_EQ(in.Number(value), !stream.fail());
      EXPECT_EQ(in.Failed(), stream.fail());
      EXPECT_EQ(value, stream.fail() ? unread : expected);
    };
    compare(std::uint32_t{77});
    compare(std::int32_t{77});
    compare(std::uint64_t{77});
  }
}

}  // namespace
}  // namespace ProcMgr::Serialization
