// sample_app, an application of the example platform: it runs until it is told to end.
//
//   sample_app [--ignore-term] [ANYTHING...]
//
// With --ignore-term it doesn't hear SIGTERM, like an application that hangs.
#include <csignal>
#include <string_view>

int main(int argc, char** argv) {
  sigset_t ends;
  (void)sigemptyset(&ends);
  (void)sigaddset(&ends, SIGINT);
  if (argc > 1 && std::string_view(argv[1]) == "--ignore-term") {
    (void)std::signal(SIGTERM, SIG_IGN);
  } else {
    (void)sigaddset(&ends, SIGTERM);
  }
  (void)sigprocmask(SIG_BLOCK, &ends, nullptr);
  int signal = 0;
  return sigwait(&ends, &signal);
}
