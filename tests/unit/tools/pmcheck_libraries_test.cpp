// Which shared libraries the checker misses on a host.
#include <elf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <map>
#include <regex>
#include <utility>

#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

using PmTest::Elf;
using PmTest::PmCheck;
using PmTest::Result;

constexpr Elf64_Half kX86 = EM_X86_64;
constexpr Elf64_Half kArm = EM_AARCH64;

using Links = std::vector<std::pair<Elf64_Sxword, std::string>>;

// One with a dynamic section that has these texts, and with an interpreter.
std::string Linked(const Links& links, const std::string& interpreter = "/lib/ld-linux-test.so.2") {
  std::string texts = interpreter + '\0';
  std::vector<Elf64_Dyn> entries;
  for (const auto& [tag, text] : links) {
    entries.push_back({tag, {texts.size()}});
    texts += text + '\0';
  }
  const std::size_t tableAt = sizeof(Elf64_Ehdr) + 3 * sizeof(Elf64_Phdr);
  const std::size_t entriesAt = tableAt + texts.size();
  constexpr Elf64_Addr kBase = 0x400000;
  entries.push_back({DT_STRTAB, {kBase + tableAt}});
  const std::size_t size = entries.size() * sizeof(Elf64_Dyn);
  const std::array<Elf64_Phdr, 3> segments = {
      {{PT_LOAD, 0, 0, kBase, 0, entriesAt + size, entriesAt + size, 1},
       {PT_INTERP, 0, tableAt, 0, 0, interpreter.size() + 1, 0, 1},
       {PT_DYNAMIC, 0, entriesAt, 0, 0, size, size, 1}}};
  std::string file = Elf(kX86);
  const Elf64_Off segmentsAt = file.size();
  const Elf64_Half count = segments.size();
  std::memcpy(&file[offsetof(Elf64_Ehdr, e_phoff)], &segmentsAt, sizeof(segmentsAt));
  std::memcpy(&file[offsetof(Elf64_Ehdr, e_phnum)], &count, sizeof(count));
  file.append(reinterpret_cast<const char*>(segments.data()), sizeof(segments));
  return file + texts + std::string(reinterpret_cast<const char*>(entries.data()), size);
}

// Each case is a program with its libraries in a root of their own; "NAME < WHO" is missing.
TEST_F(PmCheck, LibrariesAreFoundAsTheDynamicLinkerFindsThem) {
  const std::string plain = Elf(kX86);
  const Links needs = {{DT_NEEDED, "liba.so"}};
  const auto with = [&needs](Elf64_Sxword tag, const char* folders) {
    Links links = needs;
    links.emplace_back(tag, folders);
    return Linked(links);
  };
  const struct {
    const char* what;
    std::string program;
    std::map<std::string, std::string> files;
    const char* missing;
    const char* env = "";
  } cases[] = {
      {"there", Linked(needs), {{"usr/lib/liba.so", plain}}, ""},
      {"not there", Linked(needs), {}, "liba.so < program"},
      {"each once, with that of a library",
       Linked({{DT_NEEDED, "liba.so"}, {DT_NEEDED, "libb.so"}}),
       {{"lib/liba.so", Linked({{DT_NEEDED, "libb.so"}, {DT_NEEDED, "libc.so"}})}},
       "libb.so < program, libc.so < liba.so"},
      {"for another machine", Linked(needs), {{"lib/liba.so", Elf(kArm)}}, "liba.so < program"},
      {"behind one for another machine",
       Linked(needs),
       {{"lib64/liba.so", Elf(kArm)}, {"lib/liba.so", plain}},
       ""},
      {"of the architecture", Linked(needs), {{"usr/lib/x86_64-linux-gnu/liba.so", plain}}, ""},
      {"of the configuration",
       Linked(needs),
       {{"etc/ld.so.conf", "# /none\ninclude ld.so.conf.d/*.conf\n"},
        {"etc/ld.so.conf.d/x.conf", "/opt/x # here\n"},
        {"opt/x/liba.so", plain}},
       ""},
      {"rpath", with(DT_RPATH, "/none:$ORIGIN/../lib"), {{"opt/lib/liba.so", plain}}, ""},
      {"run path", with(DT_RUNPATH, "${ORIGIN}"), {{"opt/bin/liba.so", plain}}, ""},
      {"an rpath holds for libraries of libraries",
       with(DT_RPATH, "/opt/x"),
       {{"opt/x/liba.so", Linked({{DT_NEEDED, "libb.so"}})}, {"opt/x/libb.so", plain}},
       ""},
      {"a run path doesn't",
       with(DT_RUNPATH, "/opt/x"),
       {{"opt/x/liba.so", Linked({{DT_NEEDED, "libb.so"}})}, {"opt/x/libb.so", plain}},
       "libb.so < liba.so"},
      {"nor does an rpath hold beside a run path",
       Linked({{DT_NEEDED, "liba.so"}, {DT_RPATH, "/opt/x"}, {DT_RUNPATH, "/opt/y"}}),
       {{"opt/x/liba.so", plain}},
       "liba.so < program"},
      {"known by its own name",
       Linked({{DT_NEEDED, "liba.so"}, {DT_NEEDED, "libb.so"}}),
       {{"lib/liba.so", Linked({{DT_SONAME, "libb.so"}})}},
       ""},
      {"the linker itself", Linked({{DT_NEEDED, "ld-linux-test.so.2"}}), {}, ""},
      {"a path", Linked({{DT_NEEDED, "/opt/x/liba.so"}}), {{"opt/x/liba.so", plain}}, ""},
      {"of the environment", Linked(needs), {{"opt/x/liba.so", plain}}, "", "/none:/opt/x"},
      {"of the request", Linked(needs), {}, "", "${/[a-z]*}"},
      {"another linker", Linked(needs, "/lib/ld-musl-test.so.1"), {}, ""},
  };
  for (const auto& c : cases) {
    const PmTest::TempFolder root;
    for (const auto& [path, content] : c.files) {
      root.Write(path, content);
    }
    for (const char* const path : {"bin/sh", "lib/ld-linux-test.so.2", "lib/ld-musl-test.so.1"}) {
      root.Write(path, plain);
    }
    EXPECT_EQ(chmod(root.Write("opt/bin/program", c.program).c_str(), 0755), 0);
    root.Write("etc/passwd", "root:x:0:0::/:/bin/sh\n");
    root.Write("etc/group", "root:x:0:\n");
    folder_.Write("a.yaml",
                  "applications: [{appName: a, uid: 0, gid: 0, binPath: /opt/bin/program, envArgv: "
                  "{LD_LIBRARY_PATH: '" +
                      std::string(c.env) + "'}}]\n");
    const Result result = Run("--format json --host --root '" + root.Path("") + "' a.yaml");
    std::string missing;
    const auto report = nlohmann::json::parse(result.out);
    for (const auto& finding : report.at("files").at(0).at("findings")) {
      if (finding.at("rule") == "pattern-in-base") {
        continue;
      }
      std::smatch parts;
      const std::string message = finding.at("message");
      ASSERT_TRUE(std::regex_search(
          message, parts, std::regex("library \"(.*)\" isn't there, which \"/.*/(.*)\" needs")))
          << message;
      missing += (missing.empty() ? "" : ", ") + parts.str(1) + " < " + parts.str(2);
    }
    EXPECT_EQ(missing, c.missing) << c.what;
  }
}

TEST_F(PmCheck, RealProgramRunsHere) {
  folder_.Write("here.yaml", "applications: [{appName: a, uid: " + std::to_string(geteuid()) +
                                 ", gid: 0, binPath: " PMCHECK "}]\n");
  const Result here = Run("--host here.yaml");
  EXPECT_EQ(here.status, 0);
  EXPECT_EQ(here.err, "");
}

}  // namespace
