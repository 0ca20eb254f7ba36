// How pmctl writes what the manager's answers hold.
#ifndef TOOLS_PMCTL_WORDS_H
#define TOOLS_PMCTL_WORDS_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace PmCtl {

// A text made printable, a number as it is; "-" for null.
[[nodiscard]] std::string Text(const nlohmann::json& value);

// Seconds as a person reads them.
[[nodiscard]] std::string Ago(double seconds);

// For how long the application, or whatever else has a `since`, was so when `answer` was made.
[[nodiscard]] std::string Since(const nlohmann::json& answer, const nlohmann::json& app);

// With one decimal.
[[nodiscard]] std::string OneDecimal(double value);

// A state that somebody has to do something about.
[[nodiscard]] bool IsWrong(const std::string& state);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_WORDS_H
