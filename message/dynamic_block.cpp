#include "message/dynamic_block.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/log.h"

namespace ProcMgr::Serialization {
namespace {

constexpr std::uint64_t kMaxEntries = 3;
constexpr int kMaxKey = 2;
constexpr std::uint64_t kMaxValues = 1024;

bool UnPackEntry(FieldReader& in, Message::DynamicPara& dynamicPara) {
  int key = 0;
  if (!in.Number(key)) {
    return false;
  }
  if (key > kMaxKey) {
    LogError("ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d invalid", key);
    return false;
  }
  std::uint64_t count = 0;
  if (!in.Number(count)) {
    return false;
  }
  if (count > kMaxValues) {
    LogError(
        "ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d, valueNum=%zu invalid",
        key, count);
    return false;
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string value;
    if (!in.String(value)) {
      return false;
    }
    dynamicPara[key].push_back(std::move(value));
  }
  return true;
}

}  // namespace

void PackDynamicPara(FieldWriter& out, const Message::DynamicPara& dynamicPara) {
  out.Number(dynamicPara.size());
  for (const auto& [key, values] : dynamicPara) {
    out.Number(key);
    out.Number(values.size());
    for (const std::string& value : values) {
      out.String(value);
    }
  }
}

bool UnPackDynamicPara(FieldReader& in, Message::DynamicPara& dynamicPara) {
  std::uint64_t count = 0;
  if (!in.Number(count)) {
    return false;
  }
  if (count > kMaxEntries) {
    LogError("ProcMgr : ProcMgrMaster unpack request failed, dynamicParaSize=%zu invalid", count);
    return false;
  }
  dynamicPara.clear();
  for (std::uint64_t i = 0; i < count; ++i) {
    if (!UnPackEntry(in, dynamicPara)) {
      return false;
    }
  }
  return true;
}

// Each field that is passed over takes a byte at least, so a count that promises too much ends with
// the body.
void SkipDynamicPara(FieldReader& in) {
  std::uint64_t entries = 0;
  (void)in.Number(entries);
  for (; entries > 0 && !in.Failed(); --entries) {
    int key = 0;
    std::uint64_t values = 0;
    (void)in.Number(key);
    (void)in.Number(values);
    while (values > 0 && in.SkipString()) {
      --values;
    }
  }
}

}  // namespace ProcMgr::Serialization
