// What a run shares with a library that is loaded into the manager before all others.
#ifndef TORTURE_PRELOAD_H
#define TORTURE_PRELOAD_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "sandbox/system_error.h"

namespace PmTorture {

// The library's side: the T that the run shares by the variable's name; null if it shares none.
template <typename T>
T* OpenShared(const char* variable) {
  const char* const path = std::getenv(variable);
  if (path == nullptr) {
    return nullptr;
  }
  const ProcMgr::UniqueFd file(open(path, O_RDWR | O_CLOEXEC));
  void* const shared = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  return shared == MAP_FAILED ? nullptr : static_cast<T*>(shared);
}

// The run's side: a T of zeros, all of it atomics.
template <typename T>
class Preload {
 public:
  // `library` is the path of the library, which opens what is shared by `variable`.
  Preload(std::string library, std::string variable)
      : library_(std::move(library)),
        variable_(std::move(variable)),
        file_(memfd_create("preload", MFD_CLOEXEC)) {
    void* const shared =
        ftruncate(file_.Get(), sizeof(T)) != 0
            ? MAP_FAILED
            : mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED, file_.Get(), 0);
    PmSandbox::CheckStep(shared != MAP_FAILED, "share something with " + library_);
    shared_ = static_cast<T*>(shared);
  }
  ~Preload() { (void)munmap(shared_, sizeof(T)); }
  Preload(const Preload&) = delete;
  Preload& operator=(const Preload&) = delete;

  [[nodiscard]] T& Shared() const { return *shared_; }
  // What the environment of a program holds that is to have the library.
  [[nodiscard]] std::map<std::string, std::string> Environment() const {
    // By this path another process reaches the descriptor.
    const std::string path =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file_.Get());
    return {{"LD_PRELOAD", library_}, {variable_, path}};
  }

 private:
  const std::string library_;
  const std::string variable_;
  const ProcMgr::UniqueFd file_;
  T* shared_ = nullptr;
};

}  // namespace PmTorture

#endif  // TORTURE_PRELOAD_H
