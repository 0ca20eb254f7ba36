#include "tools/pmctl/manager_client.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "base/printable.h"
#include "base/steady_time.h"

namespace PmCtl {
namespace {

using nlohmann::json;

// A connection that nothing comes over for so long is asked whether somebody is there; and so long
// an answer may take. Together they are the two seconds in which a dead manager is told.
constexpr std::chrono::seconds kSilence{1};
constexpr std::chrono::seconds kWatchPatience{1};
constexpr std::chrono::seconds kPatience{2};

// Why the manager can't be asked, and what to do about it.
std::string Advice(const std::string& socket, int error) {
  switch (error) {
    case EACCES:
      return "you may not ask the manager: only root and the members of the group of " + socket +
             " may";
    case ENOENT:
      return "the manager isn't running, or doesn't tell its status, or is too old to: there is "
             "no " +
             socket;
    case ECONNREFUSED:
      return "the manager isn't running: nobody serves " + socket;
    case ETIMEDOUT:
      return "the manager doesn't answer: it is stopped, or the machine is overloaded";
    case ECONNRESET:
    case EPIPE:
      return "the manager has closed the connection: it has ended, or has too many clients";
    default:
      return "can't ask the manager at " + socket + ": " + std::generic_category().message(error);
  }
}

json ParseAny(const std::string& line) {
  json answer = json::parse(line);
  if (answer.at("version") != 1) {
    throw CantAsk("the manager answers in a way that this pmctl is too old for", 0);
  }
  return answer;
}

json Parse(const std::string& line) {
  json answer = ParseAny(line);
  if (answer.contains("error")) {
    throw CantAsk(ProcMgr::Printable(answer.at("error").get<std::string>(), 1000), 0);
  }
  return answer;
}

// Runs `talk`, and says in words what goes wrong in it.
template <typename Talk>
auto InWords(const std::string& socket, Talk talk) {
  try {
    return talk();
  } catch (const std::system_error& e) {
    throw CantAsk(Advice(socket, e.code().value()), e.code().value());
  } catch (const json::exception&) {
    throw CantAsk("what serves " + socket + " answers as no manager does that this pmctl knows", 0);
  }
}

}  // namespace

json AskManager(const std::string& socket, const json& request) {
  return InWords(socket, [&] { return Parse(Local::Ask(socket, request.dump(), kPatience)); });
}

ManagerWatch::ManagerWatch(std::string socket)
    : socket_(std::move(socket)), client_(InWords(socket_, [this] {
        return Local::LineClient(socket_, ProcMgr::SteadyNow() + kPatience);
      })) {
  InWords(socket_, [this] {
    const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
    client_.Send(R"({"watch":true})", deadline);
    status_ = Parse(client_.Receive(deadline));
    heard_ = ProcMgr::SteadyNow();
  });
}

std::optional<json> ManagerWatch::Next(std::chrono::milliseconds limit) {
  return InWords(socket_, [&]() -> std::optional<json> {
    const ProcMgr::SteadyTime now = ProcMgr::SteadyNow();
    if (!asked_ && now >= heard_ + kSilence) {
      asked_ = now;
      client_.Send(R"({"get":"time"})", now + kWatchPatience);
    }
    const ProcMgr::SteadyTime due = asked_ ? *asked_ + kWatchPatience : heard_ + kSilence;
    try {
      return Take(ParseAny(client_.Receive(std::min(now + limit, due))));
    } catch (const std::system_error& e) {
      if (e.code().value() != ETIMEDOUT || (asked_ && ProcMgr::SteadyNow() >= due)) {
        throw;
      }
      return std::nullopt;
    }
  });
}

// A change names one application; a line with more of them is all there is.
std::optional<json> ManagerWatch::Take(json line) {
  heard_ = ProcMgr::SteadyNow();
  asked_.reset();
  if (line.contains("error")) {
    status_["time"] = line.at("time");
    return std::nullopt;
  }
  json& apps = status_.at("apps");
  if (line.at("apps").size() > 1) {
    apps.clear();
  }
  for (const json& changed : line.at("apps")) {
    const auto known = std::find_if(apps.begin(), apps.end(), [&changed](const json& app) {
      return app.at("name") == changed.at("name") && app.at("kind") == changed.at("kind");
    });
    if (known == apps.end()) {
      apps.push_back(changed);
    } else {
      *known = changed;
    }
  }
  status_["manager"] = line.at("manager");
  status_["time"] = line.at("time");
  return line;
}

}  // namespace PmCtl
