// Text for XML and HTML.
#ifndef BASE_XML_TEXT_H
#define BASE_XML_TEXT_H

#include <string>
#include <string_view>

namespace ProcMgr {

// `text` as it may stand between tags, or between the double quotes of an attribute.
[[nodiscard]] inline std::string XmlText(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

}  // namespace ProcMgr

#endif  // BASE_XML_TEXT_H
