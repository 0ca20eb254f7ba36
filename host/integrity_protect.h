// Refusing to start a binary that has been changed.
//
// docs/config-bin-hash.md describes the file of digests. The table is filled once on the boot
// thread before the first start and only read afterwards: no lock.
#ifndef HOST_INTEGRITY_PROTECT_H
#define HOST_INTEGRITY_PROTECT_H

#include <string>
#include <string_view>
#include <unordered_map>

namespace ProcMgr {

inline constexpr const char* kBinHashFile = "/etc/zur/base-plat/process-manager/bin_hash.cfg";

class IntegrityProtect {
 public:
  static IntegrityProtect& Instance();

  // Reads the table from the file at `path`. Without the file nothing is checked; a malformed line
  // is passed over with a warning. Boot thread.
  void LoadHashCfg(const std::string& path = kBinHashFile);
  // The same on a text in memory.
  void ParseHashCfg(std::string_view text);

  // False if the table lists the file name of `binPath` with another SHA-256 digest than that of
  // the file, or if its digest can't be told, or if the path has no directory. A name that isn't
  // listed costs one lookup; for a listed one a shell pipeline runs and is waited for. Any thread,
  // several at once.
  [[nodiscard]] bool Check(const std::string& binPath) const;

 private:
  // Takes one line, cut off behind the longest that is legal, and its whole length.
  void ParseHashLine(const std::string& line, std::size_t length);

  // File name to digest, 64 lower-case hexadecimal digits if it is to match.
  std::unordered_map<std::string, std::string> binHashMap_;
};

}  // namespace ProcMgr

#endif  // HOST_INTEGRITY_PROTECT_H
