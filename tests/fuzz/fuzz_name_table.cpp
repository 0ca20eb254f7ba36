// The name table against plain maps, under any order of openings, closings, claims and
// lookups. Input: two bytes a step, the operation with its name and the descriptor.
#include <map>
#include <set>
#include <string>

#include "message/name_table.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::Require;

namespace {

// What the table must say, the slow and obvious way.
struct Model {
  [[nodiscard]] int FdOf(const std::string& name) const {
    return fds.contains(name) ? fds.at(name) : -1;
  }

  [[nodiscard]] std::string NameOf(int wanted) const {
    for (const auto& [name, fd] : fds) {
      if (fd == wanted && fd > 0) {
        return name;
      }
    }
    return {};
  }

  std::map<std::string, int> fds;
  std::set<int> closing;
};

void Step(ProcMgr::NameTable& table, Model& model, int operation, const std::string& name, int fd) {
  switch (operation) {
    case 0:
      // The library never gives a descriptor twice.
      if (fd > 0 && (!model.NameOf(fd).empty() || model.closing.contains(fd))) {
        return;
      }
      table.Set(table.Prepare(name), fd);
      model.fds[name] = fd;
      break;
    case 1: {
      const int expected = model.FdOf(name);
      Require(table.TakeForClosing(name) == expected);
      model.fds[name] = -1;
      if (expected > 0) {
        model.closing.insert(expected);
      }
      break;
    }
    default:
      Require(table.ClaimClosing(fd) == (model.closing.erase(fd) != 0));
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcMgr::NameTable table;
  Model model;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    const std::string name(1, static_cast<char>('a' + data[i] / 16));
    const int fd = static_cast<int>(data[i + 1] % 32) - 1;
    Step(table, model, data[i] % 4, name, fd);
    Require(table.FdOf(name) == model.FdOf(name));
    std::string found;
    Require(table.NameOf(fd, found) == !model.NameOf(fd).empty());
    Require(found == model.NameOf(fd));
    Require(table.IsClosing(fd) == model.closing.contains(fd));
    Require(table.Closing().size() == model.closing.size());
  }
  return 0;
}
