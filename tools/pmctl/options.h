// What the command line asks for, and what the program ends with.
#ifndef TOOLS_PMCTL_OPTIONS_H
#define TOOLS_PMCTL_OPTIONS_H

#include <string>
#include <vector>

#include "tools/local/local_client.h"

namespace PmCtl {

// kNotDone: of what was asked for something isn't done, or what was looked for is there.
enum ExitStatus : int { kDone = 0, kNotDone = 1, kWrongUsage = 2, kCantAsk = 3 };

struct Options {
  std::string socket = Local::kOperatorSocket;
  std::string manager = "/run/process-manager/status.sock";
  double timeout = 30;  // Seconds.
  double stopTimeout = 120;
  bool now = false;
  std::string name;
  bool asJson = false;
  bool watch = false;
  bool onlyWrong = false;
  bool onlyGeneral = false;
  bool once = false;
  double interval = 1;  // Seconds, between two looks of top.
  std::string sortKey = "cpu";
  std::string htmlFile;  // Where the boot is to be written, in each form; empty for nowhere.
  std::string svgFile;
  std::string saveFile;
  std::string compareFile;  // An earlier boot.
  std::vector<std::string> names;
  std::vector<std::string> args;
  std::vector<std::string> env;
  std::string path;
  std::string vf;
  std::vector<std::string> match;
};

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_OPTIONS_H
