// The YAML node reader of the manager's configuration files.
#ifndef PLATFORM_MANIFEST_KVS_TYPE_YAML_H
#define PLATFORM_MANIFEST_KVS_TYPE_YAML_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ProcMgr {

namespace Manifest {
struct YamlNode;
}

// One node of a YAML file, copied by reference to the shared file, which never changes. Outputs
// stay untouched on failure, no exception leaves, and a failure is not logged: the caller knows
// what it means. Readers of one file may be used by several threads; one reader by one thread at a
// time.
class KvsTypeYaml {
 public:
  // Loads the file at `path` and stands on its root. False if it can't be read (a file above
  // kConfigFileLimit included) or isn't YAML.
  [[nodiscard]] bool InitYamlNode(const std::string& path);

  // Descends to the value of `key` of a mapping. False if this is no mapping or has no such key.
  [[nodiscard]] bool GetSubKvs(const std::string& key, KvsTypeYaml& out) const;

  // Lists the nodes of a collection: the elements of a sequence, or the entries of a mapping. An
  // element that is a mapping of one key, and an entry of a mapping, has that key for its GetKey,
  // and its value for everything else. False if this is neither.
  [[nodiscard]] bool GetArray(std::vector<KvsTypeYaml>& out) const;

  // The key under which GetArray or GetSubKvs found this node; empty for any other.
  [[nodiscard]] const std::string& GetKey() const;

  // A scalar's text as it stands in the file. False if this is no scalar.
  [[nodiscard]] bool GetString(std::string& out) const;

  // The scalars of a sequence. False if this is no sequence or an element is no scalar.
  [[nodiscard]] bool GetSequenceString(std::vector<std::string>& out) const;

  // A YAML boolean. False if this is none.
  [[nodiscard]] bool GetBool(bool& out) const;

  // A decimal number. False if this is none, or doesn't fit.
  [[nodiscard]] bool GetUint64(std::uint64_t& out) const;

 private:
  // Keeps the whole file alive; null before InitYamlNode.
  std::shared_ptr<const Manifest::YamlNode> node_;
  std::string key_;
};

}  // namespace ProcMgr

#endif  // PLATFORM_MANIFEST_KVS_TYPE_YAML_H
