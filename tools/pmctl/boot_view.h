// Where the boot's time went, as text for a person.
#ifndef TOOLS_PMCTL_BOOT_VIEW_H
#define TOOLS_PMCTL_BOOT_VIEW_H

#include <string>

#include "tools/pmctl/boot_timeline.h"

namespace PmCtl {

// A row an application, the longest links of the chain that the boot's end has waited for, and how
// long it took or whom it waits for.
[[nodiscard]] std::string FormatBoot(const BootTimeline& boot);

// How long each application took in this boot and in the one before, what has changed most first.
[[nodiscard]] std::string CompareBoots(const BootTimeline& boot, const BootTimeline& before);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_BOOT_VIEW_H
