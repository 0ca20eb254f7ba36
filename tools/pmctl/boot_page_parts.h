// What is the same in every page of a boot (boot_page.h).
#ifndef TOOLS_PMCTL_BOOT_PAGE_PARTS_H
#define TOOLS_PMCTL_BOOT_PAGE_PARTS_H

namespace PmCtl {

extern const char* const kDrawingStyle;  // Of the picture, and of the page.
extern const char* const kPageHead;
extern const char* const kPageStyle;
extern const char* const kPageControls;
extern const char* const kPageScript;

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_BOOT_PAGE_PARTS_H
