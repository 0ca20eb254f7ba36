#include "tools/pmctl/operator_commands.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "base/printable.h"
#include "tools/pmctl/manager_client.h"
#include "tools/pmctl/taken_parameters.h"

namespace PmCtl {
namespace {

using nlohmann::json;
using ProcMgr::Printable;

// What the service may take beyond the limit that it was given.
constexpr std::chrono::seconds kAnswerSlack{10};

// Why the service can't be asked, and what to do about it.
std::string Advice(const std::string& socket, int error) {
  switch (error) {
    case EACCES:
      return "you may not ask the operator service: only root and the members of its group may "
             "(try sudo, or have yourself added to the group of " +
             socket + ")";
    case ENOENT:
    case ECONNREFUSED:
      return "the operator service isn't up: nobody serves " + socket +
             " (is process-manager running, and does its service file list the operator?)";
    case ETIMEDOUT:
      return "no answer in time; ask for more with --timeout, or look with pmctl status";
    default:
      return "can't ask the operator service at " + socket + ": " +
             std::generic_category().message(error);
  }
}

json Ask(const Options& options, const json& request) {
  const auto limit = std::chrono::milliseconds(static_cast<std::int64_t>(options.timeout * 1000));
  std::string text;
  try {
    text = Local::Ask(options.socket, request.dump(), limit + kAnswerSlack);
  } catch (const std::system_error& e) {
    throw std::runtime_error(Advice(options.socket, e.code().value()));
  }
  json answer = json::parse(text);
  if (answer.contains("error")) {
    throw std::runtime_error(Printable(answer.at("error").get<std::string>(), 1000));
  }
  return answer;
}

json MakeRequest(const char* operation, const Options& options) {
  return {{"request", operation}, {"timeoutMs", static_cast<std::int64_t>(options.timeout * 1000)}};
}

json MakeOperation(const char* operation, const Options& options,
                   const std::vector<std::string>& names) {
  json request = MakeRequest(operation, options);
  request["names"] = names;
  if (!options.args.empty()) {
    request["args"] = options.args;
  }
  if (!options.env.empty()) {
    request["env"] = options.env;
  }
  if (!options.path.empty()) {
    request["path"] = options.path;
  }
  if (!options.vf.empty()) {
    request["vf"] = options.vf;
  }
  return request;
}

// The manager's picture; null if it doesn't show it, or not to this user: requests need none.
json PictureOf(const Options& options) {
  try {
    return AskManager(options.manager, {{"get", "status"}});
  } catch (const CantAsk& e) {
    if (e.Error() == EACCES || e.Error() == ENOENT) {
      return {};
    }
    throw;
  }
}

// Who governs the application, if it isn't the operator; else empty.
std::string GovernorOf(const json& picture, const std::string& name) {
  if (picture.is_null()) {
    return {};
  }
  for (const json& app : picture.at("apps")) {
    if (app.at("name") != name || app.at("kind") == "general") {
      continue;
    }
    if (app.at("kind") == "base") {
      return "is a base service: the manager starts it at the boot and brings it back as its "
             "service file says (restart: " +
             Printable(app.at("restarts").at("policy").get<std::string>()) +
             "); requests are for the applications of start-up files";
    }
    return "has announced itself: whoever has started it ends it";
  }
  return {};
}

void Say(bool ok, const std::string& name, const std::string& text) {
  (void)std::fprintf(ok ? stdout : stderr, "%s %s\n", Printable(name).c_str(), text.c_str());
}

}  // namespace

int Operate(const char* operation, const Options& options) {
  int status = kDone;
  std::vector<std::string> names;
  const json picture = PictureOf(options);
  for (const std::string& name : options.names) {
    if (const std::string governor = GovernorOf(picture, name); governor.empty()) {
      names.push_back(name);
    } else {
      Say(false, name, governor);
      status = kNotDone;
    }
  }
  if (names.empty()) {
    return status;
  }
  const json answer = Ask(options, MakeOperation(operation, options, names));
  for (const json& result : answer.at("results")) {
    const bool ok = result.at("ok").get<bool>();
    const auto name = result.at("name").get<std::string>();
    Say(ok, name, result.at("text").get<std::string>());
    status = ok ? status : kNotDone;
    if (const std::string ignored = ok ? UntakenParameters(options, name) : ""; !ignored.empty()) {
      Say(false, name, "runs without " + ignored + ": it ran already, or its manifest fixes that");
    }
  }
  return status;
}

int Query(const Options& options) {
  json request = MakeRequest("query", options);
  request["names"] = options.names;
  int status = kDone;
  const json answer = Ask(options, request);
  for (const json& result : answer.at("results")) {
    const auto word = result.at("status").get<std::string>();
    Say(true, result.at("name").get<std::string>(), word);
    status = word == "running" ? status : kNotDone;
  }
  return status;
}

int Load(const char* operation, const Options& options) {
  json request = MakeRequest(operation, options);
  request["match"] = json::object();
  for (const std::string& pair : options.match) {
    const std::size_t equals = pair.find('=');
    request["match"][pair.substr(0, equals)] = pair.substr(equals + 1);
  }
  const json answer = Ask(options, request);
  const bool ok = answer.at("ok").get<bool>();
  (void)std::fprintf(ok ? stdout : stderr, "%s%s\n",
                     ok ? "" : "pmctl: ", answer.at("text").get<std::string>().c_str());
  return ok ? kDone : kNotDone;
}

}  // namespace PmCtl
