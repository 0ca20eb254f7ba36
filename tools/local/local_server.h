// A service's local door: a stream socket on which a client sends one line, a JSON object, reads
// one line in return, and is gone.
//
// Only root, the service's own user and the members of its group get in. The mode of the socket
// keeps strangers from connecting; whoever connects nevertheless, because somebody changed that
// mode, is told no by the credentials that the kernel gives.
#ifndef TOOLS_LOCAL_LOCAL_SERVER_H
#define TOOLS_LOCAL_LOCAL_SERVER_H

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

namespace Local {

// What a request may have, in bytes; the line break counts.
inline constexpr std::size_t kRequestLimit = std::size_t{1} << 20;

class LocalServer {
 public:
  // Turns the line of a request into the line of its answer, both without the line break. Called on
  // the server's threads, several at a time. An exception that it lets out closes the connection.
  using Handler = std::function<std::string(const std::string& request)>;

  // Serves `path`, whose folder must be there, with `threads` threads; a client that finds them all
  // busy waits. Takes the place of a socket that an earlier process left. Throws system_error.
  LocalServer(const std::string& path, unsigned threads, Handler handler);
  // Waits for the requests that are being handled.
  ~LocalServer();
  LocalServer(const LocalServer&) = delete;
  LocalServer& operator=(const LocalServer&) = delete;

 private:
  void Work();
  void Serve(int fd) const;

  const Handler handler_;
  ProcMgr::UniqueFd listener_;
  ProcMgr::UniqueFd stop_;  // An eventfd, readable once the threads are to end.
  std::vector<std::thread> threads_;
};

}  // namespace Local

#endif  // TOOLS_LOCAL_LOCAL_SERVER_H
