// The machine, or the folder that holds its files, on which the services are to run.
#ifndef TOOLS_CHECK_HOST_H
#define TOOLS_CHECK_HOST_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "core/host_context.h"
#include "host/core_affinity_mgr.h"
#include "host/integrity_protect.h"
#include "host/sharepool_cfg.h"
#include "tools/check/executable.h"
#include "tools/check/finding.h"
#include "tools/check/platform_users.h"
#include "tools/check/service_files.h"
#include "tools/check/shared_libraries.h"

namespace ProcMgr::Check {

// What the daemon would read at its boot, read with its own code. One thread.
class Host {
 public:
  // `root` is empty for this machine, else resolved and without a slash at its end. Reads files.
  explicit Host(std::string root);

  [[nodiscard]] const std::string& Root() const { return root_; }

  // What the kernel command line makes of a boot with the file.
  void CheckBoot(const ServiceFile& file, std::vector<Finding>& findings);
  // What a start of the services of the file meets on this host. Listed digests are worked out.
  void CheckServices(const ServiceFile& file, std::vector<Finding>& findings);

 private:
  void CheckUser(const Service& service, std::vector<Finding>& findings);
  void CheckBinary(const Service& service, bool isEntry, std::vector<Finding>& findings);
  // False if the kernel doesn't take the program.
  [[nodiscard]] bool CheckContent(const Service& service, const Executable& executable,
                                  std::vector<Finding>& findings);
  // `program` is the service's own, or the interpreter of its script; a path of the platform.
  void CheckLibraries(const Service& service, const std::string& program, bool isEntry,
                      std::vector<Finding>& findings);
  void CheckNodes(const Service& service, std::vector<Finding>& findings);
  void CheckDigest(const Service& service, std::vector<Finding>& findings);
  void CheckCores(const Service& service, bool isEntry, std::vector<Finding>& findings);
  void CheckAiCores(const Service& service, std::vector<Finding>& findings) const;
  void CheckCgroups(const Service& service, std::vector<Finding>& findings);
  void CheckShareGroups(const Service& service, const std::string& owner,
                        std::vector<Finding>& findings);

  const std::string root_;
  // Under /proc, through which the files of another root can be named without the root's own name.
  UniqueFd rootFolder_;
  const PlatformUsers users_;
  CoreAffinityMgr cores_;
  IntegrityProtect digests_;
  SharepoolCfg shareGroups_;
  SharedLibraries libraries_;
  HostContext context_;
  // What the kernel command line's parser complained of.
  std::vector<std::string> cmdlineComplaints_;
  // The machine of the shell; none if it can't be told.
  std::optional<std::uint32_t> machine_;
};

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_HOST_H
