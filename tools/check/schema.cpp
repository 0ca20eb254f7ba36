#include "tools/check/schema.h"

#include <nlohmann/json.hpp>

#include "app/manifest.h"
#include "platform/manifest/key_info.h"

namespace ProcMgr::Check {
namespace {

using Json = nlohmann::ordered_json;
using Manifest::KeyInfo;
using Manifest::KeyKind;

constexpr const char* kHasPattern = "\\$\\{.*\\}";

// Neither "#" nor "/" outside of "${...}"; braces nest once, which is enough for counts.
constexpr const char* kNamePattern = "^([^#/$]|\\$(?!\\{)|\\$\\{([^{}]|\\{[^{}]*\\})*\\})*$";

Json Reference(const char* name) {
  return {{"$ref", std::string("#/$defs/") + name}};
}

Json Text() {
  return {{"type", "string"}};
}

Json FilledText() {
  return {{"type", "string"}, {"minLength", 1}};
}

Json Integer(std::int64_t low, std::int64_t high) {
  return {{"type", "integer"}, {"minimum", low}, {"maximum", high}};
}

Json ListOf(Json element) {
  return {{"type", "array"}, {"items", std::move(element)}};
}

Json AnyOf(Json first, Json second) {
  return {{"anyOf", Json::array({std::move(first), std::move(second)})}};
}

Json Cores() {
  static const std::string kRange = "[ \\t]*[0-9]+[ \\t]*(-[ \\t]*[0-9]+[ \\t]*)?";
  const Json text = {{"type", "string"}, {"pattern", '^' + kRange + "(," + kRange + ")*$"}};
  const Json element = AnyOf(Integer(0, Manifest::kMaxCore), text);
  return AnyOf(element, ListOf(element));
}

Json Groups() {
  Json properties = Json::object();
  for (const std::string_view key : Manifest::kGroupKeys) {
    properties[std::string(key)] = key == Manifest::kGroupKeys.front() ? FilledText() : Text();
  }
  return ListOf({{"type", "object"},
                 {"properties", std::move(properties)},
                 {"required", Json::array({Manifest::kGroupKeys.front()})},
                 {"additionalProperties", false}});
}

Json ShapeOf(const KeyInfo& key) {
  switch (key.kind) {
    case KeyKind::kName:
      return {{"type", "string"},
              {"minLength", 1},
              {"maxLength", Manifest::kMaxNameBytes},
              {"pattern", kNamePattern}};
    case KeyKind::kPath:
      return {{"type", "string"}, {"pattern", std::string("^/|") + kHasPattern}};
    case KeyKind::kId:
      return AnyOf(Integer(key.low, key.high), FilledText());
    case KeyKind::kText:
      return Text();
    case KeyKind::kFlag:
      return {{"type", "boolean"}};
    case KeyKind::kInteger:
      return Integer(key.low, key.high);
    case KeyKind::kIntegerOrPattern:
      return AnyOf(Integer(key.low, key.high), {{"type", "string"}, {"pattern", kHasPattern}});
    case KeyKind::kRestart:
      return {{"enum", Manifest::kRestartWords},
              {"default", ApplicationManifest::Fields{}.restart}};
    case KeyKind::kScalars:
      return ListOf(Reference("scalar"));
    case KeyKind::kNames:
      return ListOf(FilledText());
    case KeyKind::kCores:
      return Cores();
    case KeyKind::kVariables:
      return {{"type", "object"},
              {"propertyNames", {{"pattern", "^[^=]+$"}}},
              {"additionalProperties", Reference("scalar")}};
    case KeyKind::kPairs:
      return {{"type", "object"}, {"additionalProperties", Reference("scalar")}};
    case KeyKind::kGroups:
      break;
  }
  return Groups();
}

Json Application() {
  Json properties = Json::object();
  for (const KeyInfo& key : Manifest::ApplicationKeys()) {
    Json property = {{"description", key.description}};
    property.update(ShapeOf(key));
    if (key.fallback != nullptr) {
      const std::int64_t value = key.fallback();
      property["default"] = key.kind == KeyKind::kFlag ? Json(value != 0) : Json(value);
    }
    properties[std::string(key.name)] = std::move(property);
  }
  return {{"type", "object"},
          {"properties", std::move(properties)},
          {"required", Manifest::kRequiredKeys},
          {"additionalProperties", false}};
}

Json Include() {
  Json path = FilledText();
  path["description"] = "A service file, relative to this one, whose applications stand here.";
  return {{"type", "object"},
          {"properties", {{"include", std::move(path)}}},
          {"additionalProperties", false}};
}

Json WhenRequired(const char* key, const char* then, const char* otherwise) {
  return {{"if", {{"type", "object"}, {"required", Json::array({key})}}},
          {"then", Reference(then)},
          {"else", Reference(otherwise)}};
}

}  // namespace

std::string ServiceFileSchema() {
  Json list = ListOf(Reference("entry"));
  list["description"] = "Applications and includes.";
  const Json file = {{"type", "object"},
                     {"properties", {{"applications", Reference("list")}}},
                     {"required", Json::array({"applications"})},
                     {"additionalProperties", false}};
  const Json definitions = {
      {"file", file},
      {"list", std::move(list)},
      {"entry", WhenRequired("include", "include", "application")},
      {"include", Include()},
      {"application", Application()},
      {"scalar", {{"type", Json::array({"string", "number", "boolean", "null"})}}},
      {"mapping", WhenRequired("applications", "file", "application")}};
  const Json schema = {
      {"$schema", "https://json-schema.org/draft/2020-12/schema"},
      {"title", "Service file of the process manager"},
      {"description",
       "A list of applications; an included file may also be the bare list, or one application."},
      {"if", {{"type", "array"}}},
      {"then", Reference("list")},
      {"else", Reference("mapping")},
      {"$defs", definitions}};
  return schema.dump(2) + '\n';
}

}  // namespace ProcMgr::Check
