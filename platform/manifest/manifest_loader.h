// Loads a service file with everything that it includes.
#ifndef PLATFORM_MANIFEST_MANIFEST_LOADER_H
#define PLATFORM_MANIFEST_MANIFEST_LOADER_H

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "app/manifest.h"
#include "platform/manifest/checked_load.h"
#include "platform/manifest/faults.h"
#include "platform/manifest/manifest_values.h"
#include "platform/manifest/yaml_tree.h"

namespace ProcMgr::Manifest {

// How many files a chain of includes may have below the first one.
inline constexpr std::size_t kMaxIncludeDepth = 8;
// What one load may read in all. A few small files that include each other's successors many times
// over would otherwise keep the manager reading for days.
inline constexpr std::size_t kMaxLoadFiles = 16384;
inline constexpr std::size_t kMaxLoadBytes = std::size_t{32} << 20;

// One load. The faults go to the log as they are found; the load goes on behind each of them.
class ManifestLoader {
 public:
  // `root` is the folder that stands for "/" in the paths of the files; empty for this machine,
  // else resolved and without a slash at its end.
  ManifestLoader(const std::map<std::string, std::string>& matchData, Faults& faults,
                 std::string root = {})
      : matchData_(matchData), faults_(faults), root_(std::move(root)) {}

  // Loads the file at `path`.
  void Load(const std::string& path);

  // What was loaded, in the order of the files. Complete only if there were no errors.
  [[nodiscard]] std::vector<ApplicationManifest>& Applications() { return applications_; }

  // Has the place of everything noted for each of Applications(), in the same order, in `places`.
  void NotePlaces(std::vector<ApplicationPlaces>& places) { places_ = &places; }
  // The names that the load takes, those of applications with faults included. Not all of them are
  // known if a file or a name couldn't be read.
  [[nodiscard]] const std::map<std::string, std::string>& PlaceOfName() const {
    return placeOfName_;
  }
  [[nodiscard]] bool AreNamesKnown() const { return areNamesKnown_; }

 private:
  // Where a fault of a file as a whole is told: the entry that includes it, or its own beginning.
  struct Origin {
    const std::string& file;
    Place place;
  };

  void LoadFile(const std::string& shownPath, const Origin& origin);
  [[nodiscard]] bool Read(const SourceFile& file, const Origin& origin, YamlDocument& document);
  [[nodiscard]] bool CheckChain(const SourceFile& file, const Origin& origin);
  [[nodiscard]] bool CheckKeysOfMappings(ValueReader& reader, const YamlDocument& document);

  void ReadTop(ValueReader& reader, const YamlNode& top);
  void ReadList(ValueReader& reader, const YamlNode& list);
  void ReadEntry(ValueReader& reader, const YamlNode& entry);
  void ReadInclude(ValueReader& reader, const YamlNode& entry, const YamlNode& path);
  void ReadApplicationEntry(ValueReader& reader, const YamlNode& entry);
  void NotePlacesOf(const SourceFile& file, const YamlNode& entry);
  [[nodiscard]] bool IsTaken(const std::map<std::string, std::string>& match) const;

  const std::map<std::string, std::string>& matchData_;
  Faults& faults_;
  const std::string root_;
  std::vector<ApplicationManifest> applications_;
  // The place of each name that is taken.
  std::map<std::string, std::string> placeOfName_;
  bool areNamesKnown_ = true;
  std::vector<ApplicationPlaces>* places_ = nullptr;
  // The resolved paths of the files that are being read, each included by the one before it.
  std::vector<std::string> chain_;
  std::size_t files_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_MANIFEST_LOADER_H
