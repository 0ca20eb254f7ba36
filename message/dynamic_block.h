// The block of dynamic parameters at the end of a start or restart record. Used by the codecs of
// this folder only.
#ifndef MESSAGE_DYNAMIC_BLOCK_H
#define MESSAGE_DYNAMIC_BLOCK_H

#include "message/request_msg.h"
#include "message/text_fields.h"

namespace ProcMgr::Serialization {

void PackDynamicPara(FieldWriter& out, const Message::DynamicPara& dynamicPara);

// Replaces `dynamicPara` by what the block says; a key without values leaves no trace, the values
// of a key that comes twice add up. Yields false if the block breaks off (`in` then has failed),
// or, with an error line, if it exceeds a limit: more than 3 entries, a key above 2, more than 1024
// values of a key. What was read before that place stays in `dynamicPara`; too many entries leave
// it as it was.
[[nodiscard]] bool UnPackDynamicPara(FieldReader& in, Message::DynamicPara& dynamicPara);

// Passes over a block without limits.
void SkipDynamicPara(FieldReader& in);

}  // namespace ProcMgr::Serialization

#endif  // MESSAGE_DYNAMIC_BLOCK_H
