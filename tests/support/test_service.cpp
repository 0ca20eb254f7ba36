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
//   --close-output      closes standard output and error
//   --exit-after MS     ends MS milliseconds from now, with the code of --exit-code
//   --exit-code N       0 unless given; without --exit-after the end comes at once
//   --crash SIGNAL      kills itself with the signal of that number, with no core file
//   --abort-in-thread   aborts on a thread
//
// It is linked statically and uses no library of the project, so that its start costs as little as
// a program's can.
#include <dirent.h>
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

std::string ReadWhole(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  std::string text;
  std::array<char, 4096> part{};
  for (ssize_t size = 0; fd >= 0 && (size = read(fd, part.data(), part.size())) > 0;) {
    text.append(part.data(), static_cast<std::size_t>(size));
  }
  if (fd >= 0) {
    close(fd);
  }
  return text;
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

class Report {
 public:
  void Add(const std::string& key, const std::string& value) { text_ += key + "=" + value + "\n"; }
  void Add(const std::string& key, long long value) { Add(key, std::to_string(value)); }
  const std::string& Text() const { return text_; }

 private:
  std::string text_;
};

void AddDescriptors(Report& report) {
  DIR* const folder = opendir("/proc/self/fd");
  if (folder == nullptr) {
    Fail("/proc/self/fd");
  }
  std::string numbers;
  for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
    if (entry->d_name[0] == '.' || Number(entry->d_name) == dirfd(folder)) {
      continue;
    }
    std::array<char, 4096> target{};
    (void)!readlinkat(dirfd(folder), entry->d_name, target.data(), target.size() - 1);
    report.Add(std::string("fd.") + entry->d_name, target.data());
    numbers += (numbers.empty() ? "" : ",") + std::string(entry->d_name);
  }
  closedir(folder);
  report.Add("fds", numbers);
}

void AddIdentity(Report& report) {
  uid_t ruid = 0;
  uid_t euid = 0;
  uid_t suid = 0;
  gid_t rgid = 0;
  gid_t egid = 0;
  gid_t sgid = 0;
  (void)getresuid(&ruid, &euid, &suid);
  (void)getresgid(&rgid, &egid, &sgid);
  report.Add("uids",
             std::to_string(ruid) + "," + std::to_string(euid) + "," + std::to_string(suid));
  report.Add("gids",
             std::to_string(rgid) + "," + std::to_string(egid) + "," + std::to_string(sgid));
  std::vector<gid_t> groups(65536);
  const int count = getgroups(static_cast<int>(groups.size()), groups.data());
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += (i == 0 ? "" : ",") + std::to_string(groups[static_cast<std::size_t>(i)]);
  }
  report.Add("groups", text);
}

void AddLimits(Report& report) {
  struct {
    const char* name;
    __rlimit_resource_t resource;
  } const limits[] = {{"memlock", RLIMIT_MEMLOCK}, {"rtprio", RLIMIT_RTPRIO},
                      {"nofile", RLIMIT_NOFILE},   {"core", RLIMIT_CORE},
                      {"nproc", RLIMIT_NPROC},     {"nice", RLIMIT_NICE}};
  const auto text = [](rlim_t value) {
    return value == RLIM_INFINITY ? std::string("unlimited") : std::to_string(value);
  };
  for (const auto& limit : limits) {
    rlimit value{};
    (void)getrlimit(limit.resource, &value);
    report.Add(std::string("limit.") + limit.name,
               text(value.rlim_cur) + "," + text(value.rlim_max));
  }
}

void AddScheduling(Report& report) {
  report.Add("policy", sched_getscheduler(0));
  sched_param parameters{};
  (void)sched_getparam(0, &parameters);
  report.Add("priority", parameters.sched_priority);
  errno = 0;
  report.Add("nice", getpriority(PRIO_PROCESS, 0));
  int mode = -1;
  std::array<unsigned long, 16> nodes{};
  (void)syscall(SYS_get_mempolicy, &mode, nodes.data(), nodes.size() * 64, nullptr, 0);
  report.Add("mempolicy", std::to_string(mode) + "," + std::to_string(nodes[0]));
}

// "Key:\tVALUE" of /proc/self/status as "status.Key=VALUE": the mask of cores and of memory nodes,
// blocked, ignored and caught signals, capabilities.
void AddStatus(Report& report) {
  const std::string status = ReadWhole("/proc/self/status");
  for (std::size_t at = 0; at < status.size();) {
    const std::size_t end = std::min(status.find('\n', at), status.size());
    const std::string line = status.substr(at, end - at);
    if (const std::size_t colon = line.find(":\t"); colon != std::string::npos) {
      report.Add("status." + line.substr(0, colon), line.substr(colon + 2));
    }
    at = end + 1;
  }
}

void AddCgroups(Report& report) {
  const std::string text = ReadWhole("/proc/self/cgroup");
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string line = text.substr(at, end - at);
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (second != std::string::npos) {
      report.Add("cgroup." + line.substr(first + 1, second - first - 1), line.substr(second + 1));
    }
    at = end + 1;
  }
}

// Written beside its place and moved there, so that nobody reads half of it.
void WriteReport(const char* path, int argc, char** argv) {
  Report report;
  AddDescriptors(report);
  report.Add("pid", getpid());
  report.Add("ppid", getppid());
  AddIdentity(report);
  AddLimits(report);
  AddScheduling(report);
  AddStatus(report);
  AddCgroups(report);
  const mode_t mask = umask(0);
  (void)umask(mask);
  report.Add("umask", mask);
  std::array<char, 4096> folder{};
  report.Add("cwd", getcwd(folder.data(), folder.size()) == nullptr ? "" : folder.data());
  report.Add("argc", argc);
  for (int i = 0; i < argc; ++i) {
    report.Add("argv." + std::to_string(i), argv[i]);
  }
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const char* const equals = strchr(*entry, '=');
    if (equals != nullptr) {
      report.Add("env." + std::string(*entry, static_cast<std::size_t>(equals - *entry)),
                 equals + 1);
    }
  }
  const std::string draft = std::string(path) + "." + std::to_string(getpid());
  const int fd = open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    Fail(draft.c_str());
  }
  WriteWhole(fd, report.Text(), path);
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

void* AbortThread(void*) {
  abort();
}

[[noreturn]] void ExitAfter(long milliseconds, int code) {
  timespec left{milliseconds / 1000, (milliseconds % 1000) * 1'000'000};
  while (nanosleep(&left, &left) != 0) {
  }
  _exit(code);
}

struct Plan {
  long exitAfterMs = -1;
  int exitCode = -1;
};

// Yields the flag's value and moves on, or ends the program: a test that misspells is told so.
const char* Value(int argc, char** argv, int& at) {
  if (at + 1 >= argc) {
    errno = EINVAL;
    Fail(argv[at]);
  }
  return argv[++at];
}

void Obey(int argc, char** argv, int& at, Plan& plan) {
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
  } else if (flag == "--close-output") {
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
  } else if (flag == "--exit-after") {
    plan.exitAfterMs = Number(Value(argc, argv, at));
  } else if (flag == "--exit-code") {
    plan.exitCode = Number(Value(argc, argv, at));
  } else if (flag == "--crash") {
    Crash(Number(Value(argc, argv, at)));
  } else if (flag == "--abort-in-thread") {
    pthread_t thread{};
    (void)pthread_create(&thread, nullptr, &AbortThread, nullptr);
  } else {
    errno = EINVAL;
    Fail(argv[at]);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Plan plan;
  for (int at = 1; at < argc; ++at) {
    Obey(argc, argv, at, plan);
  }
  if (plan.exitAfterMs >= 0 || plan.exitCode >= 0) {
    ExitAfter(plan.exitAfterMs < 0 ? 0 : plan.exitAfterMs, plan.exitCode < 0 ? 0 : plan.exitCode);
  }
  WaitForever(nullptr);
}
