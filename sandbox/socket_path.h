// The address of a socket file.
#ifndef SANDBOX_SOCKET_PATH_H
#define SANDBOX_SOCKET_PATH_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace PmSandbox {

class SocketPath {
 public:
  // Throws if the path has more bytes than an address holds.
  explicit SocketPath(const std::string& path) {
    if (path.size() >= sizeof(address_.sun_path)) {
      throw std::invalid_argument("the path of a socket is too long: " + path);
    }
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, path.c_str(), path.size() + 1);
  }

  [[nodiscard]] const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  [[nodiscard]] socklen_t Size() const { return sizeof(address_); }

 private:
  sockaddr_un address_{};
};

}  // namespace PmSandbox

#endif  // SANDBOX_SOCKET_PATH_H
