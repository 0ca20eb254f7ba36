// The boot as a picture.
#ifndef TOOLS_PMCTL_BOOT_PAGE_H
#define TOOLS_PMCTL_BOOT_PAGE_H

#include <string>

#include "tools/pmctl/boot_timeline.h"

namespace PmCtl {

// An SVG picture: a row an application below an axis of time. Whatever an application is called,
// its name is nothing but text.
[[nodiscard]] std::string BootSvg(const BootTimeline& boot);

// The same as a page that needs nothing but itself, and forbids itself to fetch anything: rows are
// searched by their names, the axis of time is zoomed, a row tells its numbers under the pointer.
[[nodiscard]] std::string BootPage(const BootTimeline& boot);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_BOOT_PAGE_H
