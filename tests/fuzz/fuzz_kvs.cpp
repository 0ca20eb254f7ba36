// Any bytes as a configuration file, walked as deep as it goes.
#include <string>
#include <vector>

#include "platform/manifest/kvs_type_yaml.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzFile;
using PmTest::Require;

namespace {

// With aliases a short file can be a long walk.
constexpr int kMaxSteps = 2000;

void Walk(const ProcMgr::KvsTypeYaml& node, int& steps) {
  if (++steps > kMaxSteps) {
    return;
  }
  std::string text;
  bool flag = false;
  std::uint64_t number = 0;
  std::vector<ProcMgr::KvsTypeYaml> children;
  std::vector<std::string> texts;
  const bool isScalar = node.GetString(text);
  const bool isCollection = node.GetArray(children);
  Require(!(isScalar && isCollection));
  Require(isScalar || !(node.GetBool(flag) || node.GetUint64(number)));
  Require(!node.GetSequenceString(texts) || texts.size() == children.size());
  for (const ProcMgr::KvsTypeYaml& child : children) {
    ProcMgr::KvsTypeYaml sub;
    (void)node.GetSubKvs(child.GetKey(), sub);
    Walk(child, steps);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcMgr::KvsTypeYaml root;
  if (root.InitYamlNode(FuzzFile(data, size))) {
    int steps = 0;
    Walk(root, steps);
  }
  return 0;
}
