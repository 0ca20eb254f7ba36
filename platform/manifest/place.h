// Where something stands in a file.
#ifndef PLATFORM_MANIFEST_PLACE_H
#define PLATFORM_MANIFEST_PLACE_H

namespace ProcMgr::Manifest {

// Lines and columns count from 1, columns in bytes.
struct Place {
  int line = 1;
  int column = 1;
};

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_PLACE_H
