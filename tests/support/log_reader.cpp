#include "tests/support/log_reader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "core/text.h"
#include "tests/support/socket_path.h"
#include "tests/support/system_error.h"

namespace PmTest {
namespace {

// The longest line of the system is a child message of 900 bytes and the paths of a manifest; what
// a datagram may hold is far above.
constexpr std::size_t kDatagramLimit = 65536;
constexpr int kReceiveBuffer = 64 << 20;

// "<PRIORITY>" at the start; the rest of the text stays in `rest`.
std::optional<int> TakePriority(std::string_view& rest) {
  const std::size_t close = rest.find('>');
  if (rest.empty() || rest.front() != '<' || close == std::string_view::npos) {
    return std::nullopt;
  }
  const auto priority = ProcMgr::ParseNumber<int>(rest.substr(1, close - 1));
  if (priority.has_value()) {
    rest.remove_prefix(close + 1);
  }
  return priority;
}

// "IDENT[PID]: " or "IDENT: " at the start.
void TakeIdent(std::string_view& rest, LogLine& line) {
  const std::size_t end = rest.find(": ");
  if (end == std::string_view::npos) {
    return;
  }
  std::string_view ident = rest.substr(0, end);
  const std::size_t open = ident.rfind('[');
  if (open != std::string_view::npos && ident.back() == ']') {
    line.pid =
        ProcMgr::ParseNumber<pid_t>(ident.substr(open + 1, ident.size() - open - 2)).value_or(0);
    ident = ident.substr(0, open);
  }
  line.ident = ident;
  rest.remove_prefix(end + 2);
}

std::size_t DigitCount(std::string_view text) {
  return std::min(text.find_first_not_of("0123456789"), text.size());
}

// The length of a boot trace "[SECONDSs][BOOT_TRACE][PM]" at the start of a text, 0 for none.
std::size_t TraceLength(std::string_view text) {
  constexpr std::string_view kEnd = "s][BOOT_TRACE][PM]";
  if (!text.starts_with('[')) {
    return 0;
  }
  const std::size_t seconds = 1 + DigitCount(text.substr(1));
  if (text.substr(seconds, 1) != ".") {
    return 0;
  }
  const std::size_t end = seconds + 1 + DigitCount(text.substr(seconds + 1));
  return text.substr(end).starts_with(kEnd) ? end + kEnd.size() : 0;
}

// True at "pid=", "pid:", "tid=" and "tid:" with a number behind.
bool IsIdKey(std::string_view text) {
  return text.size() > 4 && (text.starts_with("pid") || text.starts_with("tid")) &&
         (text[3] == '=' || text[3] == ':') && DigitCount(text.substr(text[4] == '-' ? 5 : 4)) > 0;
}

// The prefix "<LEVEL> PROCMGR[PID] " of a kernel log line at the start of a text: sets level and
// pid and yields its length, or 0 for none.
std::size_t KernelPrefix(std::string_view text, LogLine& line) {
  constexpr std::string_view kName = "> PROCMGR[";
  const std::size_t pid = 2 + kName.size();
  const std::size_t end = text.find("] ", pid);
  if (!text.starts_with('<') || text.substr(2, kName.size()) != kName ||
      end == std::string_view::npos) {
    return 0;
  }
  const auto level = ProcMgr::ParseNumber<int>(text.substr(1, 1));
  const auto number = ProcMgr::ParseNumber<pid_t>(text.substr(pid, end - pid));
  if (!level.has_value() || !number.has_value()) {
    return 0;
  }
  line.level = *level;
  line.ident = "PROCMGR";
  line.pid = *number;
  return end + 2;
}

}  // namespace

LogLine ParseSyslog(std::string_view datagram) {
  LogLine line;
  line.at = ProcMgr::SteadyNow();
  std::string_view rest = datagram;
  const std::optional<int> priority = TakePriority(rest);
  constexpr std::size_t kTimestamp = std::string_view("Mmm dd hh:mm:ss ").size();
  if (priority.has_value() && rest.size() >= kTimestamp) {
    line.level = *priority & 7;
    line.facility = *priority >> 3;
    rest.remove_prefix(kTimestamp);
    TakeIdent(rest, line);
  }
  // The C library ends a datagram with neither of them, others do.
  while (!rest.empty() && (rest.back() == '\n' || rest.back() == '\0')) {
    rest.remove_suffix(1);
  }
  line.text = rest;
  return line;
}

std::string Mask(const std::string& text) {
  std::string masked;
  for (std::size_t at = 0; at < text.size();) {
    const std::string_view rest = std::string_view(text).substr(at);
    if (const std::size_t trace = TraceLength(rest); trace > 0) {
      masked += "[TRACE]";
      at += trace;
    } else if (IsIdKey(rest)) {
      masked.append(rest.substr(0, 4)).append("#");
      at += 4;
      at += text.compare(at, 1, "-") == 0 ? 1 : 0;
      at += DigitCount(std::string_view(text).substr(at));
    } else {
      masked += text[at++];
    }
  }
  return masked;
}

std::string MaskLine(const LogLine& line) {
  return std::to_string(line.level) + " " + Mask(line.text);
}

LogReader::LogReader(const Sandbox& sandbox)
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), stop_(eventfd(0, EFD_CLOEXEC)) {
  CheckStep(socket_.IsOpen() && stop_.IsOpen(), "make the log socket");
  // As root the limit of the system doesn't bind; without the size nothing is lost either.
  (void)setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
                   sizeof(kReceiveBuffer));
  const std::string path = sandbox.Outside("/dev/log");
  const SocketPath address(path);
  CheckStep(
      bind(socket_.Get(), address.Get(), address.Size()) == 0 && chmod(path.c_str(), 0666) == 0,
      "serve /dev/log");
  thread_ = std::thread(&LogReader::ReadLoop, this);
}

LogReader::~LogReader() {
  (void)eventfd_write(stop_.Get(), 1);
  thread_.join();
}

void LogReader::ReadLoop() {
  for (;;) {
    std::array<pollfd, 2> ready = {{{socket_.Get(), POLLIN, 0}, {stop_.Get(), POLLIN, 0}}};
    if (poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) {
      return;
    }
    ReadAll();
    if (ready[1].revents != 0) {
      return;
    }
  }
}

void LogReader::ReadAll() {
  std::array<char, kDatagramLimit> buffer{};
  for (;;) {
    const ssize_t size = recv(socket_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0) {
      return;
    }
    LogLine line = ParseSyslog({buffer.data(), static_cast<std::size_t>(size)});
    const ProcMgr::MutexLock lock(mutex_);
    lines_.push_back(std::move(line));
    changed_.NotifyAll();
  }
}

std::vector<LogLine> LogReader::Lines() const {
  const ProcMgr::MutexLock lock(mutex_);
  return lines_;
}

std::vector<std::string> LogReader::Masked(std::size_t begin, std::size_t end) const {
  const std::vector<LogLine> lines = Lines();
  std::vector<std::string> masked;
  for (std::size_t i = begin; i < std::min(end, lines.size()); ++i) {
    masked.push_back(MaskLine(lines[i]));
  }
  return masked;
}

std::size_t LogReader::Count(std::string_view part) const {
  const ProcMgr::MutexLock lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      lines_.begin(), lines_.end(),
      [part](const LogLine& line) { return line.text.find(part) != std::string::npos; }));
}

std::optional<std::size_t> LogReader::WaitFor(std::string_view part, std::size_t from,
                                              std::chrono::milliseconds patience) const {
  return WaitFor([part](const LogLine& line) { return line.text.find(part) != std::string::npos; },
                 from, patience);
}

std::optional<std::size_t> LogReader::WaitFor(const Predicate& predicate, std::size_t from,
                                              std::chrono::milliseconds patience) const {
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + patience;
  const ProcMgr::MutexLock lock(mutex_);
  for (std::size_t i = from;; ++i) {
    while (i >= lines_.size()) {
      if (!changed_.WaitUntil(mutex_, deadline) && i >= lines_.size()) {
        return std::nullopt;
      }
    }
    if (predicate(lines_[i])) {
      return i;
    }
  }
}

bool LogReader::WaitForCount(std::string_view part, std::size_t count,
                             std::chrono::milliseconds patience) const {
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + patience;
  std::size_t from = 0;
  for (std::size_t found = 0; found < count; ++found) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::max(deadline - ProcMgr::SteadyNow(), ProcMgr::SteadyTime::duration::zero()));
    const std::optional<std::size_t> index = WaitFor(part, from, left);
    if (!index.has_value()) {
      return false;
    }
    from = *index + 1;
  }
  return true;
}

LogLine LogReader::At(std::size_t index) const {
  const ProcMgr::MutexLock lock(mutex_);
  return lines_.at(index);
}

std::string LogReader::Text() const {
  std::ostringstream text;
  for (const LogLine& line : Lines()) {
    text << line.level << ' ' << line.ident << '[' << line.pid << "]: " << line.text << '\n';
  }
  return text.str();
}

std::vector<LogLine> KernelLog(const Sandbox& sandbox) {
  const std::string text = sandbox.ReadFile("/dev/kmsg");
  std::vector<LogLine> lines;
  for (std::size_t at = 0; at < text.size();) {
    LogLine line;
    if (const std::size_t prefix = KernelPrefix(std::string_view(text).substr(at), line);
        prefix > 0) {
      lines.push_back(line);
      at += prefix;
    } else {
      if (lines.empty()) {
        lines.emplace_back();  // Not the manager's; kept, so that a test can see it.
      }
      lines.back().text += text[at++];
    }
  }
  return lines;
}

bool WaitForKernelLog(const Sandbox& sandbox, std::string_view part,
                      std::chrono::milliseconds patience) {
  return Eventually(
      [&] {
        const std::vector<LogLine> lines = KernelLog(sandbox);
        return std::any_of(lines.begin(), lines.end(), [part](const LogLine& line) {
          return line.text.find(part) != std::string::npos;
        });
      },
      patience);
}

}  // namespace PmTest
