#include "sandbox/log_reader.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <regex>
#include <sstream>

#include "base/text.h"
#include "base/unix_address.h"
#include "sandbox/system_error.h"

namespace PmSandbox {
namespace {

// The longest line of the system is a child message of 900 bytes and the paths of a manifest; what
// a datagram may hold is far above.
constexpr std::size_t kDatagramLimit = 65536;
constexpr std::size_t kDatagramsAtOnce = 16;
constexpr int kReceiveBuffer = 64 << 20;

// Takes a datagram "<PRIORITY>Mmm dd hh:mm:ss IDENT[PID]: TEXT" apart, which is what the C library
// sends, the pid only if it was told to; anything else is kept whole, so that a test can see it.
LogLine ParseSyslog(std::string_view datagram) {
  constexpr std::size_t kTimestamp = std::string_view("Mmm dd hh:mm:ss ").size();
  LogLine line;
  line.at = ProcMgr::SteadyNow();
  // Some texts bring a newline of their own.
  datagram.remove_suffix(datagram.ends_with('\n') ? 1 : 0);
  line.text = datagram;
  const std::size_t start = datagram.find('>') + 1 + kTimestamp;
  const std::size_t end = datagram.find(": ", start);
  if (!datagram.starts_with('<') || end == std::string_view::npos) {
    return line;
  }
  const auto priority = ProcMgr::ParseNumber<int>(datagram.substr(1, datagram.find('>') - 1));
  line.level = priority.value_or(-1) & 7;
  line.facility = priority.value_or(-1) >> 3;
  line.ident = datagram.substr(start, end - start);
  line.text = datagram.substr(end + 2);
  if (const std::size_t open = line.ident.rfind('['); open != std::string::npos) {
    line.pid = std::stoi(line.ident.substr(open + 1));
    line.ident.resize(open);
  }
  return line;
}

bool Holds(const LogLine& line, std::string_view part) {
  return line.text.find(part) != std::string::npos;
}

}  // namespace

std::string Mask(const std::string& text) {
  static const std::regex trace(R"(\[\d+\.\d+s\]\[BOOT_TRACE\]\[PM\])");
  static const std::regex id(R"(([pt]id[=:])-?\d+)");
  return std::regex_replace(std::regex_replace(text, trace, "[TRACE]"), id, "$1#");
}

std::string MaskLine(const LogLine& line) {
  return std::to_string(line.level) + " " + Mask(line.text);
}

LogReader::LogReader(const Sandbox& sandbox)
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      end_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  CheckStep(socket_.IsOpen() && end_.IsOpen(), "make the log socket");
  // As root the limit of the system doesn't bind; without the size nothing is lost either.
  (void)setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
                   sizeof(kReceiveBuffer));
  const std::string path = sandbox.Outside("/dev/log");
  const ProcMgr::UnixAddress address(path);
  CheckStep(bind(socket_.Get(), address.Get(), address.Size()) == 0 &&
                chmod(path.c_str(), 0666) == 0 &&
                connect(end_.Get(), address.Get(), address.Size()) == 0,
            "serve /dev/log");
  Resume();
}

LogReader::~LogReader() {
  if (thread_.joinable()) {
    Pause();
  }
}

void LogReader::Pause() {
  isPausing_ = true;
  // Waits while the queue is full; the thread reads it empty.
  while (send(end_.Get(), "", 0, 0) < 0 && errno == EINTR) {
  }
  thread_.join();
}

void LogReader::Resume() {
  isPausing_ = false;
  thread_ = std::thread(&LogReader::ReadLoop, this);
}

// Takes as many lines at a time as there are: the reader shares its cores with those who log, and
// what it costs is in every figure of a busy machine.
void LogReader::ReadLoop() {
  std::vector<char> buffer(kDatagramsAtOnce * kDatagramLimit);
  std::array<iovec, kDatagramsAtOnce> parts{};
  std::array<mmsghdr, kDatagramsAtOnce> messages{};
  for (std::size_t i = 0; i < kDatagramsAtOnce; ++i) {
    parts[i] = {buffer.data() + i * kDatagramLimit, kDatagramLimit};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (;;) {
    const int count =
        recvmmsg(socket_.Get(), messages.data(), messages.size(), MSG_WAITFORONE, nullptr);
    if (count < 0 && errno != EINTR) {
      return;
    }
    for (int i = 0; i < count; ++i) {
      const mmsghdr& message = messages[static_cast<std::size_t>(i)];
      if (message.msg_len == 0 && isPausing_) {
        return;
      }
      LogLine line = ParseSyslog(
          {static_cast<const char*>(message.msg_hdr.msg_iov->iov_base), message.msg_len});
      const ProcMgr::MutexLock lock(mutex_);
      lines_.push_back(std::move(line));
      changed_.NotifyAll();
    }
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
      lines_.begin(), lines_.end(), [part](const LogLine& line) { return Holds(line, part); }));
}

std::optional<std::size_t> LogReader::WaitFor(std::string_view part, std::size_t from,
                                              std::chrono::milliseconds patience) const {
  return WaitFor([part](const LogLine& line) { return Holds(line, part); }, from, patience);
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
  std::size_t found = 0;
  return count == 0 ||
         WaitFor([&](const LogLine& line) { return Holds(line, part) && ++found == count; }, 0,
                 patience)
             .has_value();
}

LogLine LogReader::At(std::size_t index) const {
  const ProcMgr::MutexLock lock(mutex_);
  return lines_.at(index);
}

void LogReader::Forget() {
  const ProcMgr::MutexLock lock(mutex_);
  lines_.clear();
}

std::string LogReader::Text() const {
  std::ostringstream text;
  for (const LogLine& line : Lines()) {
    text << line.level << ' ' << line.ident << '[' << line.pid << "]: " << line.text << '\n';
  }
  return text.str();
}

std::vector<LogLine> KernelLog(const Sandbox& sandbox) {
  static const std::regex prefix(R"(<(\d)> PROCMGR\[(\d+)\] )");
  const std::string text = sandbox.ReadFile("/dev/kmsg");
  std::vector<LogLine> lines;
  for (std::sregex_iterator it(text.begin(), text.end(), prefix), end; it != end; ++it) {
    LogLine line;
    line.level = std::stoi((*it)[1]);
    line.ident = "PROCMGR";
    line.pid = std::stoi((*it)[2]);
    const auto next = std::next(it);
    line.text.assign(it->suffix().first, next == end ? text.end() : next->prefix().second);
    lines.push_back(std::move(line));
  }
  return lines;
}

bool WaitForKernelLog(const Sandbox& sandbox, std::string_view part,
                      std::chrono::milliseconds patience) {
  return Eventually(
      [&] {
        const std::vector<LogLine> lines = KernelLog(sandbox);
        return std::any_of(lines.begin(), lines.end(),
                           [part](const LogLine& line) { return Holds(line, part); });
      },
      patience);
}

}  // namespace PmSandbox
