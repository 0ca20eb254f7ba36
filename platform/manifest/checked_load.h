// Loading a service file for tools that tell people about it: what ParseAndDepend::ParseYaml does,
// with the place of everything, and with what is whole of a file that has faults.
#ifndef PLATFORM_MANIFEST_CHECKED_LOAD_H
#define PLATFORM_MANIFEST_CHECKED_LOAD_H

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/manifest.h"
#include "platform/manifest/place.h"

namespace ProcMgr::Manifest {

// Where the value of a key stands, and what it consists of.
struct ValuePlaces {
  Place value;
  // Of a list each element's text and place, of a mapping each key with the place of its value; in
  // the order of the file.
  std::vector<std::pair<std::string, Place>> elements;
};

// Where an application stands.
struct ApplicationPlaces {
  std::string file;  // As it is to be shown.
  Place application;
  std::map<std::string, ValuePlaces> ofKey;
};

struct LoadFault {
  bool isError = false;
  std::string file;  // Empty for what concerns the load as a whole.
  Place place;
  std::string text;
};

struct CheckedLoad {
  std::vector<LoadFault> faults;
  bool hasErrors = false;
  // The applications without faults, and their places in the same order.
  std::vector<ApplicationManifest> applications;
  std::vector<ApplicationPlaces> places;
  // The names of all applications that the load takes; incomplete if areNamesKnown is false.
  std::set<std::string> names;
  bool areNamesKnown = true;
};

// Loads the file at `path`, one of this machine, with its includes. In what the files name, the
// folder `root` stands for "/"; it is empty for this machine, else resolved and without a slash at
// its end. Never throws but std::bad_alloc; reads files, and may block on the user database.
[[nodiscard]] CheckedLoad LoadForCheck(const std::string& path,
                                       const std::map<std::string, std::string>& matchData,
                                       const std::string& root = {});

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_CHECKED_LOAD_H
