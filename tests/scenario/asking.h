// What the real daemon in a sandbox tells of itself, as a client of its status socket gets it.
#ifndef TESTS_SCENARIO_ASKING_H
#define TESTS_SCENARIO_ASKING_H

#include <fstream>
#include <string>

#include "tests/support/json_schema.h"
#include "tests/support/scenario_test.h"
#include "tests/support/status_peer.h"

namespace PmTest {

inline const JsonSchema& Schema() {
  static const JsonSchema schema([] {
    std::ifstream file(PM_STATUS_SCHEMA);
    return nlohmann::json::parse(file);
  }());
  return schema;
}

// Asks as `pmctl` would, and has every answer checked by the schema.
class Asking {
 public:
  using json = nlohmann::json;
  static inline const std::string kSocket = "/run/process-manager/status.sock";

  explicit Asking(const Sandbox& sandbox) : sandbox_(sandbox) {}

  [[nodiscard]] std::string Path() const { return sandbox_.Outside(kSocket); }

  [[nodiscard]] json Ask(const std::string& request, const std::string& definition) const {
    StatusPeer peer(Path());
    json answer = peer.Ask(request);
    EXPECT_EQ(Schema().Check(answer, definition), "");
    return answer;
  }
  [[nodiscard]] json Status() const { return Ask(R"({"get":"status"})", "status"); }
  [[nodiscard]] json Boot() const { return Ask(R"({"get":"boot"})", "boot"); }
  [[nodiscard]] json Details(const std::string& name) const {
    return Ask(R"({"get":"app","name":")" + name + "\"}", "app");
  }

  // The application's entry; null if it has none.
  [[nodiscard]] json App(const std::string& name) const {
    const json status = Status();
    for (const json& app : status.at("apps")) {
      if (app.at("name") == name) {
        return app;
      }
    }
    return {};
  }

  // "STATE CAUSE ON HOW VALUE" of it, with what isn't there left out.
  [[nodiscard]] std::string Brief(const std::string& name) const {
    const json app = App(name);
    if (app.is_null()) {
      return "unknown";
    }
    std::string text = app.at("state");
    if (const json& cause = app.at("cause"); !cause.is_null()) {
      text += " " + cause.at("what").get<std::string>();
      text += cause.at("on").is_null() ? "" : " " + cause.at("on").get<std::string>();
    }
    if (const json& exits = app.at("exits"); !exits.empty()) {
      text += " " + exits[0].at("how").get<std::string>() + " " + exits[0].at("value").dump();
    }
    return text;
  }
  void Await(const std::string& name, const std::string& brief) const {
    EXPECT_TRUE(Eventually([&] { return Brief(name) == brief; })) << name << ": " << Brief(name);
  }

  // Waits for the socket, which is there when the initialisation is through.
  void AwaitServed() const {
    ASSERT_TRUE(Eventually([&] { return StatusPeer(Path()).Error() == 0; }));
  }

 private:
  const Sandbox& sandbox_;
};

}  // namespace PmTest

#endif  // TESTS_SCENARIO_ASKING_H
