#include "platform/heartbeat/socket_access.h"

#include <endian.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/log.h"

namespace ProcMgr::HeartBeat {
namespace {

constexpr const char* kListAttribute = "system.posix_acl_access";
constexpr mode_t kEverybody = 0666;

// The bytes of an access control list as the kernel takes them: a version and one entry for each of
// owner, owning group, every group named, mask and others, in this order and each group once.
class AccessList {
 public:
  AccessList() {
    const posix_acl_xattr_header header{htole32(POSIX_ACL_XATTR_VERSION)};
    Append(&header, sizeof(header));
  }
  void Add(int tag, int permissions,
           std::uint32_t id = static_cast<std::uint32_t>(ACL_UNDEFINED_ID)) {
    const posix_acl_xattr_entry entry{htole16(static_cast<std::uint16_t>(tag)),
                                      htole16(static_cast<std::uint16_t>(permissions)),
                                      htole32(id)};
    Append(&entry, sizeof(entry));
  }
  [[nodiscard]] const std::vector<unsigned char>& Bytes() const { return bytes_; }

 private:
  void Append(const void* data, std::size_t size) {
    const auto* const begin = static_cast<const unsigned char*>(data);
    bytes_.insert(bytes_.end(), begin, begin + size);
  }

  std::vector<unsigned char> bytes_;
};

}  // namespace

void SocketAccess::Admit(gid_t gid) {
  if (!groups_.insert(gid).second || WriteList()) {
    return;
  }
  LogWarning("HEARTBEAT : no access list at %s, errno=%d: open to all groups", path_.c_str(),
             errno);
  (void)chmod(path_.c_str(), kEverybody);
}

bool SocketAccess::WriteList() const {
  AccessList list;
  list.Add(ACL_USER_OBJ, ACL_READ | ACL_WRITE);
  list.Add(ACL_GROUP_OBJ, 0);
  for (const gid_t gid : groups_) {
    list.Add(ACL_GROUP, ACL_WRITE, gid);
  }
  list.Add(ACL_MASK, ACL_WRITE);
  list.Add(ACL_OTHER, 0);
  return setxattr(path_.c_str(), kListAttribute, list.Bytes().data(), list.Bytes().size(), 0) == 0;
}

}  // namespace ProcMgr::HeartBeat
