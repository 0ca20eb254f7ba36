// What the process that started the manager may have left behind.
//
// A signal mask, ignored signals, timers, limits and descriptors outlive an exec. An ignored
// SIGCHLD would hide every exit, a blocked SIGTERM would make the manager deaf, and the children
// would inherit it all.
#ifndef CORE_STARTER_H
#define CORE_STARTER_H

namespace ProcMgr {

// Puts right what this process was started with. The first act of main, before the log is open:
// says nothing, and what can't be put right stays as it is. Afterwards
// - the signals of platform events are blocked until a thread waits for them (the default action of
//   one that comes before would end the manager), all others aren't, and none is ignored;
// - no timer runs, and new files get their mode under the mask 022;
// - 0, 1 and 2 are open, everything above ends at an exec;
// - the soft limit of open files is the hard one. Children get back the one that was found
//   (host/host_limits.h).
// Other limits, priorities and the environment are the starter's to choose.
void PutStartRight();

// Stands in "/" from now on, so that no mount is held. To be called when the paths of the command
// line have been resolved.
void LeaveWorkingDirectory();

}  // namespace ProcMgr

#endif  // CORE_STARTER_H
