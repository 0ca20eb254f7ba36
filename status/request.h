// What a client of the status service asks for.
#ifndef STATUS_REQUEST_H
#define STATUS_REQUEST_H

#include <string>

namespace ProcMgr::Status {

struct Request {
  std::string get;
  std::string name;
  bool isWatch = false;
};

// Takes the request out of a line of JSON. Whatever isn't understood yields a request for nothing.
// Without memory it throws std::bad_alloc, and does nothing worse.
[[nodiscard]] Request ParseRequest(const std::string& line);

}  // namespace ProcMgr::Status

#endif  // STATUS_REQUEST_H
