#include "tools/operator/operator_requests.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <utility>

#include "base/app_state.h"

namespace Operator {
namespace {

using nlohmann::json;
using ProcMgr::ReportAppStateType;
using ProcMgr::SteadyTime;
using std::chrono::milliseconds;

constexpr milliseconds kDefaultLimit{30'000};
constexpr milliseconds kLongestLimit{600'000};
// The check pass reports what a start has become; this is many of its periods.
constexpr milliseconds kReportDelay{2'000};

milliseconds LimitOf(const json& request) {
  const milliseconds limit(request.value("timeoutMs", kDefaultLimit.count()));
  return std::clamp(limit, milliseconds(1), kLongestLimit);
}

// Sorted and each once: one name twice in a request would wait for itself.
std::vector<std::string> NamesOf(const json& request) {
  const auto names = request.at("names").get<std::set<std::string>>();
  if (names.empty()) {
    throw std::invalid_argument("a request needs at least one name");
  }
  return {names.begin(), names.end()};
}

ProcMgr::Message::DynamicPara DynamicParaOf(const json& request) {
  enum Key : int { kPath = 0, kVf = 1, kEnv = 2 };
  ProcMgr::Message::DynamicPara para;
  if (request.contains("path")) {
    para[kPath] = {request.at("path").get<std::string>()};
  }
  if (request.contains("vf")) {
    para[kVf] = {request.at("vf").get<std::string>()};
  }
  if (request.contains("env")) {
    para[kEnv] = request.at("env").get<std::vector<std::string>>();
  }
  return para;
}

json MakeResult(const std::string& name, bool ok, const std::string& text) {
  return {{"name", name}, {"ok", ok}, {"text", text}};
}

json FailedBeforeStart(const ProcMgr::Message::AppStateInfo& report) {
  const std::string& name = report.appName;
  if (report.eioFlag != 0) {
    return MakeResult(name, false, "its program could not be read: input/output error");
  }
  return MakeResult(name, false,
                    "has ended at once, or could not be started: unknown name, parameters that "
                    "don't fit its patterns, or a program that fails; see: pmctl why");
}

// The words for what a report says about a request.
json Describe(const std::string& operation, const ProcMgr::Message::AppStateInfo& report) {
  const std::string& name = report.appName;
  const std::string pid = "pid " + std::to_string(report.pid);
  const bool wantsEnd = operation == "stop";
  switch (static_cast<ReportAppStateType>(report.state)) {
    case ReportAppStateType::RUNNING_NORMAL_START:
      return MakeResult(name, !wantsEnd, "is running, " + pid);
    case ReportAppStateType::RUNNING_NORMAL_RESTART:
      return MakeResult(name, !wantsEnd, "has been restarted, " + pid);
    case ReportAppStateType::RUNNING_ABNORMAL_TERM_TIMEOUT:
      return MakeResult(name, false,
                        "did not end in time and must not be killed (isForceTerm: false); it runs "
                        "on, " +
                            pid);
    case ReportAppStateType::TERMINATED_NORMAL_EXIT:
      return MakeResult(name, wantsEnd,
                        wantsEnd && report.pid < 1
                            ? "was not running: no start-up file's application of that name was"
                            : "has ended");
    case ReportAppStateType::TERMINATED_ABNORMAL_EXIT:
      return wantsEnd ? MakeResult(name, true, "has ended by itself") : FailedBeforeStart(report);
    case ReportAppStateType::INVALID_INTERMEDIATE_STATE:
      return MakeResult(name, false, "is on its way up or down just now; try again");
  }
  return MakeResult(name, false, "got a report that means nothing here");
}

// In ASCII, whatever a name holds, so that a terminal shows it.
std::string TextOf(const json& answer) {
  return answer.dump(-1, ' ', true, json::error_handler_t::replace);
}

}  // namespace

std::string OperatorRequests::Handle(const std::string& request) const {
  try {
    return Dispatch(request);
  } catch (const json::exception& e) {
    return TextOf({{"error", std::string("not a request: ") + e.what()}});
  } catch (const std::exception& e) {
    return TextOf({{"error", e.what()}});
  }
}

std::string OperatorRequests::Dispatch(const std::string& text) const {
  const json request = json::parse(text);
  const auto operation = request.at("request").get<std::string>();
  if (operation == "start" || operation == "stop" || operation == "restart") {
    return TextOf(Operate(operation, request));
  }
  if (operation == "query") {
    return TextOf(Query(request));
  }
  if (operation == "load" || operation == "reload") {
    return TextOf(Load(operation, request));
  }
  throw std::invalid_argument("there is no request of that kind");
}

json OperatorRequests::Operate(const std::string& operation, const json& request) const {
  const SteadyTime deadline = ProcMgr::SteadyNow() + LimitOf(request);
  const std::vector<std::string> names = NamesOf(request);
  const Outcomes::Waiter waiter(outcomes_, names, deadline);
  if (!waiter.IsValid()) {
    throw std::runtime_error("another request for one of the names is still under way; try again");
  }
  json results = json::array();
  std::vector<std::string> sent;
  for (const std::string& name : names) {
    // One by one: an unknown name would take the rest of its start request with it.
    const ProcMgr::Result result = Send(operation, name, request);
    if (result == ProcMgr::Result::kOk) {
      sent.push_back(name);
    } else {
      results.push_back(MakeResult(name, false, ProcMgr::ToText(result)));
    }
  }
  AddOutcomes(operation, waiter, sent, deadline, results);
  return {{"results", std::move(results)}};
}

// Adds the outcome of each of the names.
void OperatorRequests::AddOutcomes(const std::string& operation, const Outcomes::Waiter& waiter,
                                   const std::vector<std::string>& names, SteadyTime deadline,
                                   json& results) const {
  // The manager is silent about a name that it doesn't know at a start. It handles the frames of a
  // channel in order, so once a query is answered the start has been tried.
  std::vector<std::string> unknown;
  if (operation == "start") {
    const Outcomes::Reports early =
        waiter.Wait(names, std::min(deadline, ProcMgr::SteadyNow() + kReportDelay));
    for (const std::string& name : names) {
      if (!early.contains(name) && !IsThere(name, deadline)) {
        unknown.push_back(name);
      }
    }
  }
  std::vector<std::string> awaited = names;
  std::erase_if(awaited, [&unknown](const std::string& name) {
    return std::find(unknown.begin(), unknown.end(), name) != unknown.end();
  });
  Outcomes::Reports reports = waiter.Wait(awaited, deadline);
  reports.merge(waiter.Wait(unknown, ProcMgr::SteadyNow()));
  for (const std::string& name : names) {
    if (const auto report = reports.find(name); report != reports.end()) {
      results.push_back(Describe(operation, report->second));
    } else if (std::find(unknown.begin(), unknown.end(), name) != unknown.end()) {
      results.push_back(MakeResult(
          name, false,
          "is unknown: no start-up file that has been loaded names it (see: pmctl load)"));
    } else {
      results.push_back(MakeResult(
          name, false,
          "has no outcome yet; look with: pmctl query (another service that asked for it first "
          "may get the report)"));
    }
  }
}

ProcMgr::Result OperatorRequests::Send(const std::string& operation, const std::string& name,
                                       const json& request) const {
  if (operation == "stop") {
    return agent_.TermApps({name});
  }
  const auto args = request.value("args", std::vector<std::string>());
  if (operation == "start") {
    return agent_.StartApps({{name, args, DynamicParaOf(request)}});
  }
  return agent_.RestartApps({{name, args, DynamicParaOf(request)}});
}

// In doubt it is there: then its report is awaited.
bool OperatorRequests::IsThere(const std::string& name, SteadyTime deadline) const {
  ProcMgr::Agent::StatusMap status;
  const auto left = std::chrono::ceil<milliseconds>(deadline - ProcMgr::SteadyNow());
  if (agent_.QueryAppStatus({name}, left, status) != ProcMgr::Result::kOk) {
    return true;
  }
  const auto found = status.find(name);
  return found == status.end() || found->second != ProcMgr::AppStatus::kGone;
}

json OperatorRequests::Query(const json& request) const {
  ProcMgr::Agent::StatusMap status;
  const ProcMgr::Result result = agent_.QueryAppStatus(NamesOf(request), LimitOf(request), status);
  if (result != ProcMgr::Result::kOk) {
    throw std::runtime_error(ProcMgr::ToText(result));
  }
  json results = json::array();
  for (const auto& [name, value] : status) {
    const char* const word = value == ProcMgr::AppStatus::kThere     ? "running"
                             : value == ProcMgr::AppStatus::kStopped ? "stopped"
                                                                     : "gone";
    results.push_back({{"name", name}, {"status", word}});
  }
  return {{"results", std::move(results)}};
}

json OperatorRequests::Load(const std::string& operation, const json& request) const {
  ProcMgr::Message::StartupCfgInfo info;
  info.matchData = request.value("match", std::map<std::string, std::string>());
  const milliseconds limit = LimitOf(request);
  std::uint32_t code = 0;
  const ProcMgr::Result result = operation == "load" ? agent_.LoadStartupCfg(info, limit, &code)
                                                     : agent_.ReloadStartupCfg(info, limit, &code);
  if (result == ProcMgr::Result::kOk) {
    return {{"ok", true},
            {"text", "the start-up file of the operator has been " + operation + "ed"}};
  }
  std::string text = ProcMgr::ToText(result);
  if (result == ProcMgr::Result::kLoadFailed) {
    text += " (code " + std::to_string(code) + "); check the file with pmcheck";
  }
  return {{"ok", false}, {"text", text}};
}

}  // namespace Operator
