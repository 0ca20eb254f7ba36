// The address of a socket file.
#ifndef BASE_UNIX_ADDRESS_H
#define BASE_UNIX_ADDRESS_H

#include <sys/socket.h>
#include <sys/un.h>

#include <stdexcept>
#include <string>

namespace ProcMgr {

class UnixAddress {
 public:
  // Whether an address has room for the path, and it is one.
  [[nodiscard]] static bool Holds(const std::string& path) {
    return !path.empty() && path.size() < sizeof(sockaddr_un::sun_path);
  }

  // Throws std::invalid_argument for a path that it can't hold.
  explicit UnixAddress(const std::string& path) {
    if (!Holds(path)) {
      throw std::invalid_argument("the path of a socket must have 1 to 107 bytes: " + path);
    }
    address_.sun_family = AF_UNIX;
    (void)path.copy(address_.sun_path, path.size());
  }

  [[nodiscard]] const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  [[nodiscard]] socklen_t Size() const { return sizeof(address_); }

 private:
  sockaddr_un address_{};
};

}  // namespace ProcMgr

#endif  // BASE_UNIX_ADDRESS_H
