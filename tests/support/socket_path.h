// The address of a socket file.
#ifndef TESTS_SUPPORT_SOCKET_PATH_H
#define TESTS_SUPPORT_SOCKET_PATH_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace PmTest {

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

}  // namespace PmTest

#endif  // TESTS_SUPPORT_SOCKET_PATH_H
