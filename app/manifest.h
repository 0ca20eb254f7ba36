// The interface of the manifest library: service files, patterns and the start graph.
//
// platform/manifest holds the implementation that this project ships; a platform with a library of
// its own implements this header instead. docs/manifest.md describes the files.
#ifndef APP_MANIFEST_H
#define APP_MANIFEST_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ProcMgr {

// A share pool group that an application wants, and the right it wants there ("admin", "alloc",
// "rw" or "ro"); the right may be empty in a manifest.
struct SharepoolGroupsInfo {
  std::string groupName;
  std::string permission;

  bool operator==(const SharepoolGroupsInfo&) const = default;
};

// One application's configuration, a value. The fields are the library's; everybody else reads them
// through the getters.
class ApplicationManifest {
 public:
  [[nodiscard]] const std::string& GetAppName() const { return fields_.appName; }
  [[nodiscard]] const std::string& GetBinPath() const { return fields_.binPath; }
  // The resolved path of the file in which the application itself stands.
  [[nodiscard]] const std::string& GetCfgPath() const { return fields_.cfgPath; }
  [[nodiscard]] const std::string& GetCpuset() const { return fields_.cpuset; }
  [[nodiscard]] const std::string& GetProcessBindPath() const { return fields_.processBindPath; }
  [[nodiscard]] const std::string& GetResGroupName() const { return fields_.resGroupName; }
  [[nodiscard]] const std::string& GetRestart() const { return fields_.restart; }
  [[nodiscard]] const std::string& GetSoName() const { return fields_.soName; }
  [[nodiscard]] const std::string& GetSoPath() const { return fields_.soPath; }
  [[nodiscard]] std::string GetSecurityCon() const { return fields_.securityCon; }
  // Resolved against the manifest's own folder at the parse; empty for none.
  [[nodiscard]] std::string GetStartupEntryPath() const { return fields_.startupEntryPath; }
  // The pattern of the device function number; empty if the manifest gives a number or none.
  [[nodiscard]] std::string GetVfIdPattern() const { return fields_.vfIdPattern; }
  [[nodiscard]] const std::vector<std::string>& GetArguments() const { return fields_.arguments; }
  [[nodiscard]] const std::set<std::string>& GetDependList() const { return fields_.dependList; }
  [[nodiscard]] const std::map<std::string, std::string>& GetEnvArgv() const {
    return fields_.envArgv;
  }
  [[nodiscard]] const std::vector<std::uint32_t>& GetCoreAffinity() const {
    return fields_.coreAffinity;
  }
  [[nodiscard]] const std::vector<SharepoolGroupsInfo>& GetSharepoolGroups() const {
    return fields_.sharepoolGroups;
  }
  [[nodiscard]] std::uint32_t GetUid() const { return fields_.uid; }
  [[nodiscard]] std::uint32_t GetGid() const { return fields_.gid; }
  // Milliseconds.
  [[nodiscard]] std::uint32_t GetTermTimeOut() const { return fields_.termTimeOut; }
  [[nodiscard]] std::int32_t GetNice() const { return fields_.nice; }
  [[nodiscard]] std::int32_t GetNodeType() const { return fields_.nodeType; }
  // -1 for none.
  [[nodiscard]] std::int32_t GetStartupPriority() const { return fields_.startupPriority; }
  // Negative for none.
  [[nodiscard]] std::int32_t GetVfId() const { return fields_.vfId; }
  [[nodiscard]] bool GetHeartBeatSwitch() const { return fields_.heartBeatSwitch; }
  [[nodiscard]] bool GetIsDelayCoreAffinity() const { return fields_.isDelayCoreAffinity; }
  [[nodiscard]] bool GetIsDynamicPara() const { return fields_.isDynamicPara; }
  [[nodiscard]] bool GetIsForceTerm() const { return fields_.isForceTerm; }
  [[nodiscard]] bool GetIsReporting() const { return fields_.isReporting; }
  [[nodiscard]] bool GetIsSetRtPrio() const { return fields_.isSetRtPrio; }
  [[nodiscard]] bool GetIsSo() const { return fields_.isSo; }

  // The values of a manifest, each with the default of a key that is left out.
  struct Fields {
    std::string appName;
    std::string binPath;
    std::string cfgPath;
    std::string cpuset;
    std::string processBindPath;
    std::string resGroupName;
    std::string restart = "no";
    std::string soName;
    std::string soPath;
    std::string securityCon;
    std::string startupEntryPath;
    std::string vfIdPattern;
    std::vector<std::string> arguments;
    std::set<std::string> dependList;
    std::map<std::string, std::string> envArgv;
    std::vector<std::uint32_t> coreAffinity;
    std::vector<SharepoolGroupsInfo> sharepoolGroups;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint32_t termTimeOut = 5000;
    std::int32_t nice = 0;
    std::int32_t nodeType = 0;
    std::int32_t startupPriority = -1;
    std::int32_t vfId = -1;
    bool heartBeatSwitch = false;
    bool isDelayCoreAffinity = false;
    bool isDynamicPara = false;
    bool isForceTerm = true;
    bool isReporting = false;
    bool isSetRtPrio = false;
    bool isSo = false;
  };

  ApplicationManifest() = default;
  explicit ApplicationManifest(Fields fields) : fields_(std::move(fields)) {}

 private:
  Fields fields_;
};

// What a parse is for; the manager knows one kind.
enum class ParamType : std::uint32_t { kDefault = 0 };

// The open dependencies of a set of applications. Filled by ParseAndDepend::GetStartGraph, emptied
// by Pop. One thread at a time.
class DependGraph {
 public:
  DependGraph();
  ~DependGraph();
  DependGraph(DependGraph&& other) noexcept;  // Leaves nothing to be called in `other`.
  DependGraph& operator=(DependGraph&&) = delete;

  // Adds an application and the names that must be popped before it comes up for its turn.
  void AddVertex(const std::string& name, const std::set<std::string>& dependencies);

  // The names with no open dependency. When only circles are left, each circle is logged once at
  // error level ("a -> b -> c -> a") and all of their vertices are handed out, so a walk that pops
  // what it gets always ends. What hangs on a circle without being part of it comes up behind it.
  [[nodiscard]] std::set<std::string> GetNoDependVertices();

  // Removes a name, and with it the dependency of others on it. Unknown names do nothing.
  void Pop(const std::string& name);

  [[nodiscard]] bool IsEmpty() const;

 private:
  // The library's own business; so is that of ParseAndDepend.
  struct State;
  std::unique_ptr<State> state_;
};

// The parser. One process-wide instance; every operation may be called from any thread at any time.
class ParseAndDepend {
 public:
  static ParseAndDepend& Instance();

  // Appends one manifest per application of the file at `path`, its includes in their places, that
  // `matchData` lets through. Yields 0, or non-zero with one error line "FILE:LINE:COLUMN: fault"
  // per fault, of all faults of all files, and `manifests` untouched. Reads files; may block on the
  // user database.
  [[nodiscard]] int ParseYaml(ParamType type, const std::string& path,
                              std::vector<ApplicationManifest>& manifests,
                              const std::map<std::string, std::string>& matchData);

  // Fills `graph` with the names and with the dependencies among them that the last parses found. A
  // dependency on a name that isn't among `names` doesn't hold its dependant back.
  void GetStartGraph(const std::vector<std::string>& names, DependGraph& graph);

  // True if `text` holds a "${EXPRESSION}".
  [[nodiscard]] bool IsDynamicPara(const std::string& text) const;

  // True if the whole of `value` fits `pattern`. Linear in the length of `value`.
  [[nodiscard]] bool IsDynamicParaMatch(const std::string& pattern, const std::string& value) const;

 private:
  ParseAndDepend();
  ~ParseAndDepend();

  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ProcMgr

#endif  // APP_MANIFEST_H
