// The name table against a plain list of pairs, under any order of openings, closings, claims and
// lookups. Input: two bytes a step, the operation with its name and the descriptor.
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "message/name_table.h"

namespace {

void Require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

// What the table must say, the slow and obvious way.
class Model {
 public:
  void Set(const std::string& name, int fd) {
    for (auto& [known, itsFd] : entries_) {
      if (known == name) {
        itsFd = fd;
        return;
      }
    }
    entries_.emplace_back(name, fd);
  }

  [[nodiscard]] int FdOf(const std::string& name) const {
    for (const auto& [known, fd] : entries_) {
      if (known == name) {
        return fd;
      }
    }
    return -1;
  }

  [[nodiscard]] std::string NameOf(int fd) const {
    for (const auto& [name, itsFd] : entries_) {
      if (itsFd == fd && fd > 0) {
        return name;
      }
    }
    return {};
  }

  std::set<int> closing_;

 private:
  std::vector<std::pair<std::string, int>> entries_;
};

void Step(ProcMgr::NameTable& table, Model& model, int operation, const std::string& name, int fd) {
  switch (operation) {
    case 0:
      // The library never gives a descriptor twice.
      if (fd > 0 && (!model.NameOf(fd).empty() || model.closing_.contains(fd))) {
        return;
      }
      table.Set(name, fd);
      model.Set(name, fd);
      break;
    case 1: {
      const int expected = model.FdOf(name);
      Require(table.TakeForClosing(name) == expected);
      model.Set(name, -1);
      if (expected > 0) {
        model.closing_.insert(expected);
      }
      break;
    }
    default:
      Require(table.ClaimClosing(fd) == (model.closing_.erase(fd) != 0));
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
    Require(table.IsClosing(fd) == model.closing_.contains(fd));
    Require(table.Closing().size() == model.closing_.size());
  }
  return 0;
}
