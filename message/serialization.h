// The codecs of the frames, for both ends of a channel.
//
// Sending: a packer turns records into items of text, ProcMgrCombinePiecesMsg cuts the items into
// frames. Every frame is a message of its own, with its own count and whole items; nothing has to
// be put together again by the receiver. The binary bodies fit one frame and are packed in one go.
//
// Receiving: a peer's sizes, counts and lengths are believed only as far as the bytes are really
// there. A text body that breaks off, or holds a number that can't be read, ends there: of a list,
// the records before that place are taken and the broken one is not; a message with one record is
// refused whole. A frame whose `size` exceeds kFrameDataSize is refused with an error line. What a
// refused frame was to fill stays as it came, if nothing else is said.
//
// Nothing here is shared: any thread may call any function. None blocks, but for the log.
#ifndef MESSAGE_SERIALIZATION_H
#define MESSAGE_SERIALIZATION_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "message/request_msg.h"

namespace ProcMgr::Serialization {

// An item of this many bytes or more is refused by its packer.
inline constexpr std::size_t PM_PIPE_BUF_MAX = 3960;
// The text of all items in one frame stays below this.
inline constexpr std::uint32_t kWindowLimit = 3956;
// More records in one frame are refused whole; more arguments, or values of one dynamic key, are
// no longer a record.
inline constexpr std::uint32_t kMaxRecords = 1999;
inline constexpr std::uint32_t kMaxArguments = 1024;

// One packed record: the length of its text, and the text.
using PackedItem = std::pair<unsigned int, std::string>;
// The frames of one message, in the order in which they are to be sent.
using PieceList = std::vector<Message::RequestMsg>;

// Pieces and windows.

// Sorts `packed` by length, then text, cuts it into windows and appends a frame for each to
// `pieces`. Yields false, with an error line, only if `packed` is empty. An item too long for a
// window is dropped with a warning, as are all behind it.
[[nodiscard]] bool ProcMgrCombinePiecesMsg(Message::RequestType type,
                                           std::vector<PackedItem>& packed, PieceList& pieces);

// Appends the number of items of each window to `windows`. `packed` must be sorted.
void CalculateWindows(const std::vector<PackedItem>& packed, std::vector<std::uint32_t>& windows);

// Appends one text frame: `count`, then `items` as they are.
void ProcMgrCombineMsg(Message::RequestType type, std::uint32_t count, const std::string& items,
                       PieceList& pieces);

// Packers of text bodies. Each appends to `packed` and yields false, with an error line, at the
// first record whose text has PM_PIPE_BUF_MAX bytes or more; the records before it stay packed.
[[nodiscard]] bool ProcMgrPackStartRequest(const std::vector<Message::StartAppInfo>& list,
                                           std::vector<PackedItem>& packed);
[[nodiscard]] bool ProcMgrPackRestartRequest(const std::vector<Message::RestartAppInfo>& list,
                                             std::vector<PackedItem>& packed);
[[nodiscard]] bool ProcMgrPackTermRequest(const std::vector<Message::TermAppInfo>& list,
                                          std::vector<PackedItem>& packed);
[[nodiscard]] bool ProcMgrPackAppStateRequest(const std::vector<Message::AppStateInfo>& list,
                                              std::vector<PackedItem>& packed);
[[nodiscard]] bool ProcMgrPackBaseServiceStateRequest(Message::BaseServiceStateInfo info,
                                                      std::vector<PackedItem>& packed);
[[nodiscard]] bool ProcMgrPackAppExecInfoRequest(const Message::AppExecInfo& info,
                                                 std::vector<PackedItem>& packed);
[[nodiscard]] bool ProcMgrPackMatchDataAndPathRequest(const Message::StartupCfgInfo& info,
                                                      std::vector<PackedItem>& packed);

// Unpackers of text bodies with a list. More than kMaxRecords records are refused with an error
// line, and `list` stays as it came; otherwise `list` is replaced by what the frame holds.
//
// The dynamic block of a record isn't read for the sender "iammgr". Since the packers always write
// one, only the first record of such a frame comes out right. A record with more than kMaxArguments
// arguments keeps its name alone. A dynamic block beyond its limits ends the unpacking: its record
// keeps what was read, and the records that follow it in the frame come out empty.
void ProcMgrUnpackStartRequest(const Message::RequestMsg* frame,
                               std::vector<Message::StartAppInfo>& list, const std::string& sender);
void ProcMgrUnpackRestartRequest(const Message::RequestMsg* frame,
                                 std::vector<Message::RestartAppInfo>& list,
                                 const std::string& sender);
void ProcMgrUnpackTermRequest(const Message::RequestMsg* frame,
                              std::vector<Message::TermAppInfo>& list);
void ProcMgrUnpackedAppStateRequest(const Message::RequestMsg* frame,
                                    std::vector<Message::AppStateInfo>& list);

// Unpackers of text bodies with one record. They yield false, with a warning and with `info` as it
// came, if the body breaks off before the record is whole: there is then nothing to act on.
[[nodiscard]] bool ProcMgrUnpackedBaseServiceStateRequest(const Message::RequestMsg* frame,
                                                          Message::BaseServiceStateInfo& info);
[[nodiscard]] bool ProcMgrUnpackedAppExecInfoRequest(const Message::RequestMsg* frame,
                                                     Message::AppExecInfo& info);
// A pair count of 0, or of 102400 and more, means that the path stands alone. Of a key that comes
// twice the first value stays.
[[nodiscard]] bool ProcMgrUnpackMatchDataAndPathRequest(const Message::RequestMsg* frame,
                                                        Message::StartupCfgInfo& info);

// Binary bodies. The packers set type and size; those of a list yield false, with `frame`
// unspecified, if the list doesn't fit one frame.
void ProcMgrPackHeartMsg(const Message::HeartMsg& info, Message::RequestMsg& frame);
void ProcMgrUnpackHeartMsg(const Message::RequestMsg* frame, Message::HeartMsg& info);

[[nodiscard]] bool ProcMgrPackQueryAppState(const std::vector<std::string>& names,
                                            Message::RequestMsg& frame);
// A body that doesn't parse leaves `names` empty, with an error line.
void ProcMgrUnpackQueryAppState(const Message::RequestMsg* frame, std::vector<std::string>& names);

// Status of an application by its name: 0 there, 1 gone or unknown, 2 stopped.
[[nodiscard]] bool ProcMgrPackAppDetailStatus(const std::map<std::string, int>& status,
                                              Message::RequestMsg& frame);
[[nodiscard]] bool ProcMgrUnpackAppDetailStatus(const Message::RequestMsg* frame,
                                                std::map<std::string, int>& status);

}  // namespace ProcMgr::Serialization

#endif  // MESSAGE_SERIALIZATION_H
