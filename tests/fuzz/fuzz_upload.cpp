// Requests and responses of the upload service. What was read must survive being written and read
// again. Input: a byte that picks one of the two, the text.
#include <cstring>
#include <string>

#include "message/upload_msg.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzText;
using PmTest::Require;

namespace {

void FuzzRequest(std::string_view text) {
  PmUpload::UploadMsg msg;
  msg.size = text.size();
  std::memcpy(msg.data, text.data(), std::min(text.size(), sizeof(msg.data)));
  PmUpload::LoadAppInfo info;
  if (!PmUpload::UnPackInfoRequest(&msg, info)) {
    return;
  }
  Require(text.size() <= PmUpload::kUploadDataSize);
  Require(info.rwGroups.size() <= PmUpload::kMaxGroups);
  Require(info.allocGroups.size() <= PmUpload::kMaxGroups);
  PmUpload::LoadAppInfo again;
  Require(PmUpload::PackInfoRequest(info, msg) && PmUpload::UnPackInfoRequest(&msg, again));
  Require(again.binPath == info.binPath && again.pidAppName == info.pidAppName);
  Require(again.rwGroups == info.rwGroups && again.allocGroups == info.allocGroups);
  Require(again.pid == info.pid && again.gid == info.gid);
  Require(again.alreadyReported == info.alreadyReported);
  Require(again.receivedMemGroupsNum == info.receivedMemGroupsNum);
}

void FuzzResponse(std::string_view text) {
  PmUpload::UploadResponse response;
  if (!PmUpload::UnPackResponse(text, response)) {
    return;
  }
  std::string written;
  PmUpload::PackResponseToPmupload(response.result, response.inWhiteList, response.groups, 0,
                                   written);
  Require(written.size() <= PmUpload::kUploadDataSize - 1);
  PmUpload::UploadResponse again;
  if (PmUpload::UnPackResponse(written, again)) {
    Require(again.groups.size() + again.stillToCome == response.groups.size());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view text = FuzzText(data + 1, size - 1);
  if (data[0] % 2 == 0) {
    FuzzRequest(text);
  } else {
    FuzzResponse(text);
  }
  return 0;
}
