#include "platform/manifest/checked_load.h"

#include <exception>
#include <new>

#include "platform/manifest/faults.h"
#include "platform/manifest/manifest_loader.h"

namespace ProcMgr::Manifest {

CheckedLoad LoadForCheck(const std::string& path,
                         const std::map<std::string, std::string>& matchData,
                         const std::string& root) {
  CheckedLoad load;
  Faults faults(
      [&load](bool isError, const std::string& file, const Place& place, const std::string& text) {
        load.faults.push_back({isError, file, place, text});
      });
  try {
    ManifestLoader loader(matchData, faults, root);
    loader.NotePlaces(load.places);
    loader.Load(path);
    load.applications = std::move(loader.Applications());
    for (const auto& [name, place] : loader.PlaceOfName()) {
      load.names.insert(name);
    }
    load.areNamesKnown = loader.AreNamesKnown();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& failure) {
    faults.Error(path, {}, std::string("the file can't be loaded: ") + failure.what());
    load.applications.clear();
    load.places.clear();
    load.areNamesKnown = false;
  }
  faults.Finish();
  load.hasErrors = faults.HasErrors();
  return load;
}

}  // namespace ProcMgr::Manifest
