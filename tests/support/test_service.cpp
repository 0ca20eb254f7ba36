// test-service: a service that does what a test asks of it, in the order of its flags, and then
// waits for its end.
//
//   --mark FILE         appends "PID NANOSECONDS" (monotonic clock), first of all
//   --report FILE       writes what this process is, as "key=value" lines, in place of FILE
//   --touch FILE        makes FILE
//   --serve NAME        makes the socket on which the manager opens a channel to NAME, and reads
//                       nothing from it
//   --threads N         starts N threads, each named "worker"
//   --ignore-term       ignores SIGTERM
//   --exit-code N       ends with the code N
//   --crash SIGNAL      kills itself with the signal of that number, with no core file
//
// It is linked statically and uses no library of the project, so that its start costs as little as
// a program's can.
#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

[[noreturn]] void Fail(const char* what) {
  (void)fprintf(stderr, "test-service: %s: %s\n", what, strerror(errno));
  _exit(99);
}

int Number(const char* text) {
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < INT_MIN || value > INT_MAX) {
    errno = EINVAL;
    Fail(text);
  }
  return static_cast<int>(value);
}

void WriteWhole(int fd, const std::string& text, const char* what) {
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    Fail(what);
  }
}

void Mark(const char* path) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long nanoseconds = static_cast<long long>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    Fail(path);
  }
  WriteWhole(fd, std::to_string(getpid()) + " " + std::to_string(nanoseconds) + "\n", path);
  close(fd);
}

void AddLine(std::string& report, const std::string& key, const std::string& value) {
  report += key + "=" + value + "\n";
}

template <typename... Values>
std::string Joined(Values... values) {
  std::string text;
  ((text += (text.empty() ? "" : ",") + std::to_string(values)), ...);
  return text;
}

void AddDescriptors(std::string& report) {
  const std::string folder = "/proc/" + std::to_string(getpid()) + "/fd";
  std::string numbers;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string number = entry.path().filename();
    const std::string target = std::filesystem::read_symlink(entry.path());
    if (target != folder) {  // That one is the iterator's own.
      AddLine(report, "fd." + number, target);
      numbers += (numbers.empty() ? "" : ",") + number;
    }
  }
  AddLine(report, "fds", numbers);
}

void AddIdentity(std::string& report) {
  std::array<uid_t, 3> uids{};
  std::array<gid_t, 3> gids{};
  (void)getresuid(&uids[0], &uids[1], &uids[2]);
  (void)getresgid(&gids[0], &gids[1], &gids[2]);
  AddLine(report, "uids", Joined(uids[0], uids[1], uids[2]));
  AddLine(report, "gids", Joined(gids[0], gids[1], gids[2]));
  std::vector<gid_t> groups(65536);
  groups.resize(static_cast<std::size_t>(getgroups(65536, groups.data())));
  std::string text;
  for (const gid_t group : groups) {
    text += (text.empty() ? "" : ",") + std::to_string(group);
  }
  AddLine(report, "groups", text);
}

void AddLimit(std::string& report, const char* key, __rlimit_resource_t resource) {
  const auto text = [](rlim_t value) {
    return value == RLIM_INFINITY ? std::string("unlimited") : std::to_string(value);
  };
  rlimit value{};
  (void)getrlimit(resource, &value);
  AddLine(report, key, text(value.rlim_cur) + "," + text(value.rlim_max));
}

void AddScheduling(std::string& report) {
  sched_param parameters{};
  (void)sched_getparam(0, &parameters);
  AddLine(report, "policy", Joined(sched_getscheduler(0)));
  AddLine(report, "priority", Joined(parameters.sched_priority));
  AddLine(report, "nice", Joined(getpriority(PRIO_PROCESS, 0)));
  int mode = -1;
  std::array<unsigned long, 16> nodes{};
  (void)syscall(SYS_get_mempolicy, &mode, nodes.data(), nodes.size() * 64, nullptr, 0);
  AddLine(report, "mempolicy", Joined(mode, nodes[0]));
}

// The lines of /proc/self/status, "Key:\tVALUE", as "status.Key=VALUE": the mask of cores, blocked
// and ignored signals, capabilities.
void AddStatus(std::string& report) {
  std::ifstream file("/proc/self/status");
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(":\t");
    if (colon != std::string::npos) {
      AddLine(report, "status." + line.substr(0, colon), line.substr(colon + 2));
    }
  }
}

// Written beside its place and moved there, so that nobody reads half of it.
void WriteReport(const char* path, int argc, char** argv) {
  std::string report;
  AddDescriptors(report);
  AddLine(report, "pid", Joined(getpid()));
  AddIdentity(report);
  AddLimit(report, "limit.memlock", RLIMIT_MEMLOCK);
  AddLimit(report, "limit.rtprio", RLIMIT_RTPRIO);
  AddLimit(report, "limit.nofile", RLIMIT_NOFILE);
  AddScheduling(report);
  AddStatus(report);
  AddLine(report, "argc", Joined(argc));
  for (int i = 0; i < argc; ++i) {
    AddLine(report, "argv." + Joined(i), argv[i]);
  }
  for (char** entry = environ; *entry != nullptr; ++entry) {
    report += "env." + std::string(*entry) + "\n";
  }
  const std::string draft = std::string(path) + "." + std::to_string(getpid());
  const int fd = open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    Fail(draft.c_str());
  }
  WriteWhole(fd, report, path);
  close(fd);
  // A folder with the sticky bit keeps one user from replacing another's file.
  if (rename(draft.c_str(), path) != 0) {
    Fail(path);
  }
}

void Serve(const char* name) {
  (void)mkdir("/run/nexio", 0777);
  (void)chmod("/run/nexio", 01777);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = std::string("/run/nexio/") + name + ".sock";
  (void)unlink(path.c_str());
  (void)path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      chmod(path.c_str(), 0666) != 0 || listen(fd, 8) != 0) {
    Fail(name);
  }
}

void* WaitForever(void*) {
  for (;;) {
    pause();
  }
}

void StartThreads(int count) {
  for (int i = 0; i < count; ++i) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, &WaitForever, nullptr) != 0) {
      Fail("pthread_create");
    }
    (void)pthread_setname_np(thread, "worker");
  }
}

[[noreturn]] void Crash(int signal) {
  // Whatever the host does with core files, there is none.
  (void)prctl(PR_SET_DUMPABLE, 0);
  (void)::signal(signal, SIG_DFL);
  (void)raise(signal);
  Fail("the signal did not end this process");
}

// Yields the flag's value and moves on, or ends the program: a test that misspells is told so.
const char* Value(int argc, char** argv, int& at) {
  if (at + 1 >= argc) {
    errno = EINVAL;
    Fail(argv[at]);
  }
  return argv[++at];
}

void Obey(int argc, char** argv, int& at) {
  const std::string flag = argv[at];
  if (flag == "--mark") {
    Mark(Value(argc, argv, at));
  } else if (flag == "--report") {
    WriteReport(Value(argc, argv, at), argc, argv);
  } else if (flag == "--touch") {
    close(open(Value(argc, argv, at), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  } else if (flag == "--serve") {
    Serve(Value(argc, argv, at));
  } else if (flag == "--threads") {
    StartThreads(Number(Value(argc, argv, at)));
  } else if (flag == "--ignore-term") {
    (void)signal(SIGTERM, SIG_IGN);
  } else if (flag == "--exit-code") {
    _exit(Number(Value(argc, argv, at)));
  } else if (flag == "--crash") {
    Crash(Number(Value(argc, argv, at)));
  } else {
    errno = EINVAL;
    Fail(argv[at]);
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (int at = 1; at < argc; ++at) {
    Obey(argc, argv, at);
  }
  WaitForever(nullptr);
}
