// The answers of the status service: each one line of JSON with its newline.
#ifndef STATUS_PICTURE_JSON_H
#define STATUS_PICTURE_JSON_H

#include <optional>
#include <string>

#include "status/memory.h"
#include "status/picture.h"
#include "status/proc_facts.h"

namespace ProcMgr::Status {

// What others know about one application.
struct AppSurroundings {
  ProcFacts process;
  bool hasChannel = false;
  std::optional<std::chrono::milliseconds> sinceBeat;
};

[[nodiscard]] std::string StatusLine(const Picture& picture);
// A status with what has changed and nothing else.
[[nodiscard]] std::string ChangeLine(const Change& change);
// `picture` tells how those stand that `app` depends on.
[[nodiscard]] std::string AppLine(const AppPicture& app, const Picture& picture,
                                  const AppSurroundings& surroundings);
[[nodiscard]] std::string BootLine(const BootPicture& boot);
[[nodiscard]] std::string ErrorLine(const std::string& text);

}  // namespace ProcMgr::Status

#endif  // STATUS_PICTURE_JSON_H
