// pmupload: announces a process that the manager did not start, or itself, and prints the share
// pool groups that the manager has. With a command it announces itself and then becomes the
// command.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "base/names.h"
#include "message/nexio_wrappers.h"
#include "message/upload_msg.h"

namespace {

using PmUpload::LoadAppInfo;
using PmUpload::UploadMsg;
using PmUpload::UploadResponse;

constexpr int kRefused = 1;
constexpr int kUsage = 2;
constexpr int kNoManager = 3;
constexpr int kNotRunnable = 127;

constexpr std::uint32_t kOpenTimeoutMs = 2000;
constexpr std::uint32_t kAnswerTimeoutMs = 5000;

struct Wish {
  std::string procName;
  std::vector<std::string> rwGroups;
  std::vector<std::string> allocGroups;
  pid_t pid = 0;
  std::vector<std::string> command;
};

bool IsProgram(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) && access(path.c_str(), X_OK) == 0;
}

// Where the exec will find the command: along PATH, unless the name has a slash. Empty if nowhere.
std::string FoundCommand(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    return name;
  }
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "/bin:/usr/bin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    // An empty entry is the working directory.
    std::string candidate = (folder.empty() ? "." : folder) + "/" + name;
    if (IsProgram(candidate)) {
      return candidate;
    }
  }
  return {};
}

// The path of the process's program, or of the program that `command` names, without links.
std::optional<std::string> BinaryPath(const Wish& wish) {
  std::array<char, PATH_MAX> path{};
  if (!wish.command.empty()) {
    return realpath(FoundCommand(wish.command.front()).c_str(), path.data()) != nullptr
               ? std::optional<std::string>(path.data())
               : std::nullopt;
  }
  const std::string link = "/proc/" + std::to_string(wish.pid) + "/exe";
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  if (length < 0) {
    // The program of somebody else's process can't be seen; whether it may be announced all the
    // same is the manager's to say.
    return errno == EACCES ? std::optional<std::string>(link) : std::nullopt;
  }
  return std::string(path.data(), static_cast<std::size_t>(length));
}

std::optional<LoadAppInfo> Describe(const Wish& wish) {
  struct stat process {};
  const std::string folder = "/proc/" + std::to_string(wish.pid);
  const std::optional<std::string> binPath = BinaryPath(wish);
  if (stat(folder.c_str(), &process) != 0 || !binPath.has_value()) {
    (void)std::fprintf(stderr, "pmupload: can't look at %s: %s\n",
                       wish.command.empty() ? folder.c_str() : wish.command.front().c_str(),
                       std::strerror(errno));
    return std::nullopt;
  }
  LoadAppInfo info;
  info.pidAppName = wish.procName;
  info.binPath = *binPath;
  info.pid = wish.pid;
  info.gid = process.st_gid;
  info.rwGroups = wish.rwGroups;
  info.allocGroups = wish.allocGroups;
  return info;
}

// One request and its answer; says what is wrong.
bool Ask(int fd, const LoadAppInfo& info, UploadResponse& answer) {
  UploadMsg msg;
  if (!PmUpload::PackInfoRequest(info, msg)) {
    (void)std::fprintf(stderr, "pmupload: the names are too long for one request, or hold a '#'\n");
    return false;
  }
  ProcMgr::NexioRequest request;
  request.data = &msg;
  request.size = sizeof(msg);
  std::array<char, 4096> buffer{};
  ProcMgr::NexioResponse response;
  response.data = buffer.data();
  response.size = static_cast<std::uint32_t>(buffer.size());
  const int ret = ProcMgr::ProcMgrNexioTimedRPCSync(fd, request, response, kAnswerTimeoutMs);
  if (ret < 0) {
    (void)std::fprintf(stderr, "pmupload: the manager gives no answer (%d); its log tells why\n",
                       ret);
    return false;
  }
  if (!PmUpload::UnPackResponse(std::string_view(buffer.data(), response.size), answer)) {
    (void)std::fprintf(stderr, "pmupload: the manager's answer can't be read\n");
    return false;
  }
  return true;
}

// Announces, then fetches the groups that didn't fit the first answer. Yields the exit status.
int Announce(int fd, LoadAppInfo info) {
  std::size_t received = 0;
  for (;;) {
    UploadResponse answer;
    if (!Ask(fd, info, answer)) {
      return kNoManager;
    }
    if (!answer.result) {
      (void)std::fprintf(
          stderr,
          "pmupload: the manager refused %s (pid %d): the name is in use, the process "
          "isn't yours, or the access service isn't up; its log tells which\n",
          info.pidAppName.c_str(), info.pid);
      return kRefused;
    }
    for (const std::string& group : answer.groups) {
      std::printf("%s\n", group.c_str());
    }
    received += answer.groups.size();
    if (answer.stillToCome == 0) {
      return 0;
    }
    if (answer.groups.empty()) {
      (void)std::fprintf(stderr, "pmupload: %lu more groups have names too long to be sent\n",
                         answer.stillToCome);
      return 0;
    }
    info.alreadyReported = true;
    info.receivedMemGroupsNum = received;
  }
}

int Become(const std::vector<std::string>& command) {
  std::vector<std::string> words = command;
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  (void)std::fflush(stdout);
  execvp(argv.front(), argv.data());
  (void)std::fprintf(stderr, "pmupload: can't run %s: %s\n", argv.front(), std::strerror(errno));
  return kNotRunnable;
}

int Run(const Wish& wish) {
  const std::optional<LoadAppInfo> info = Describe(wish);
  if (!info.has_value()) {
    return kUsage;
  }
  ProcMgr::NexioOpenParam param;
  param.peerName = ProcMgr::kManagerName;
  param.timeout = kOpenTimeoutMs;
  const int fd = ProcMgr::NexioOpen(param);
  if (fd < 1) {
    (void)std::fprintf(
        stderr,
        "pmupload: no manager takes announcements (%d): is it running, with pmupload "
        "enabled in its procmgr_cfg.yaml?\n",
        fd);
    return kNoManager;
  }
  const int status = Announce(fd, *info);
  ProcMgr::ProcMgrNexioClosePipe(fd);
  return status == 0 && !wish.command.empty() ? Become(wish.command) : status;
}

int RunWithArguments(int argc, char** argv) {
  CLI::App app{
      "Announces a running process to the process manager, or itself before it becomes COMMAND, "
      "and "
      "prints the names of all share pool groups, one a line.\n"
      "Exit status: 0 announced, 1 refused, 2 wrong usage, 3 no manager or no answer, 127 COMMAND "
      "can't be run; otherwise that of COMMAND.",
      "pmupload"};
  app.set_version_flag("--version", "pmupload " PM_VERSION);
  Wish wish;
  app.add_option("--procName", wish.procName, "The name under which the process wants to be known")
      ->required();
  app.add_option("--rwGroups", wish.rwGroups, "Groups to read and write, or \"all\"")
      ->delimiter(',');
  app.add_option("--allocGroups", wish.allocGroups, "Groups to allocate from")->delimiter(',');
  CLI::Option* const pid =
      app.add_option("--pid", wish.pid, "The process to announce")->check(CLI::PositiveNumber);
  CLI::Option* const command =
      app.add_option("COMMAND", wish.command, "What to become, behind a --")->excludes(pid);
  try {
    app.parse(argc, argv);
    if (pid->empty() && command->empty()) {
      throw CLI::RequiredError("--pid or a COMMAND behind --");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  if (pid->empty()) {
    wish.pid = getpid();
  }
  return Run(wish);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunWithArguments(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "pmupload: %s\n", error.what());
  } catch (...) {
    (void)std::fprintf(stderr, "pmupload: failed for an unknown reason\n");
  }
  return kNoManager;
}
