#include "tools/pmctl/boot_view.h"

#include <nlohmann/json.hpp>

#include "tools/pmctl/table.h"
#include "tools/pmctl/words.h"

namespace PmCtl {

using nlohmann::json;

std::string FormatBoot(const json& boot) {
  Table table({">BEGIN", ">END", ">MS", "PHASE", "NAME"});
  for (const json& span : boot.at("spans")) {
    const json& end = span.at("end");
    const json length =
        end.is_null() ? json() : json(end.get<double>() - span.at("begin").get<double>());
    table.Add(
        {Ms(span.at("begin")), Ms(end), Ms(length), Text(span.at("phase")), Text(span.at("name"))});
  }
  return table.Text(false) + (boot.at("end").is_null()
                                  ? "the boot goes on\n"
                                  : "the boot took " + Ms(boot.at("end")) + " ms\n");
}

}  // namespace PmCtl
