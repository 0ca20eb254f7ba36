// bench-service FILE [--once|--rest]: tells the instant of its main and what it has cost until
// then, and then waits for its end, or ends at once with --once.
//
// It appends one line "PID NANOSECONDS CPU-NANOSECONDS" to FILE: the monotonic clock, and the CPU
// time of the process since its fork, which an exec doesn't reset. Before it waits it listens at
// the socket of its name, where a restarted service is expected; nobody is answered. With --rest it
// leaves that socket alone.
//
// What is measured is the start, not the loader and not a libc's own beginning: it is linked
// statically, with a small libc. A large one asks the processor some 46 times what it can do, and
// each time a virtual machine asks its host: 166 us of a start of 450.
#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

static long long Nanoseconds(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return (long long)now.tv_sec * 1000000000 + now.tv_nsec;
}

static bool Tell(const char* path, long long now, long long cpu) {
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    return false;
  }
  const bool isTold = dprintf(fd, "%d %lld %lld\n", getpid(), now, cpu) > 0;
  close(fd);
  return isTold;
}

// The socket lives as long as the process.
static bool Listen(void) {
  const char* const name = getenv("PROC_NAME");
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (name == NULL) {
    return false;
  }
  const size_t room = sizeof(address.sun_path);
  // NOLINTNEXTLINE(clang-analyzer-security.*): no libc on Linux has the snprintf_s that it wants.
  if ((size_t)snprintf(address.sun_path, room, "/run/nexio/%s.sock", name) >= room) {
    return false;
  }
  (void)unlink(address.sun_path);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  return fd >= 0 && bind(fd, (const struct sockaddr*)&address, sizeof(address)) == 0 &&
         listen(fd, 4) == 0;
}

int main(int argc, char** argv) {
  const long long now = Nanoseconds(CLOCK_MONOTONIC);
  const long long cpu = Nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
  if (argc < 2 || !Tell(argv[1], now, cpu)) {
    return 2;
  }
  const char* const how = argc > 2 ? argv[2] : "";
  if (strcmp(how, "--once") == 0) {
    return 0;
  }
  if (strcmp(how, "--rest") != 0 && !Listen()) {
    return 3;
  }
  for (;;) {
    pause();
  }
}
