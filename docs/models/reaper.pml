/* Two applications are started, killed and started again while a few pids go round: core/reaper.cpp, app_lists.cpp,
   starter.cpp. A step under the list's lock is atomic here.

   To be shown: each exit goes to the record of the process that made it, none is lost, and a signal reaches the
   process that is meant or its zombie.

   FAULT REAP_FIRST: the zombie is taken before its exit is filed.
   FAULT NO_ENTRY: the reaper doesn't wait for a process that is started and not entered yet. */

#define PIDS 2
#define APPS 2
#define STARTS 2

#ifdef NO_ENTRY
#define ENTRIES_ARE_DONE true
#else
#define ENTRIES_ARE_DONE (entriesOpen == 0)
#endif

mtype = { FREE, LIVES, ZOMBIE };

/* The kernel: who has a number, and whose process it is (application * 8 + its start). */
mtype process[PIDS + 1];
byte owner[PIDS + 1];

/* The records. A start enters its record behind the fork. */
byte pidOf[APPS + 1], startOf[APPS + 1];
bool isEntered[APPS + 1], isExited[APPS + 1];
byte entriesOpen = 0;
byte ends = 0, filedEnds = 0;

#define IDENTITY(app) ((app) * 8 + startOf[app])

proctype application(byte app) {
  byte number, starts = 0;
  do
  :: starts < STARTS ->
     starts++;
     entriesOpen++;
     atomic { /* fork */
       if
       :: process[1] == FREE -> number = 1
       :: process[2] == FREE -> number = 2
       fi;
       process[number] = LIVES;
       owner[number] = app * 8 + starts
     };
     atomic { /* The record is entered under the lock. */
       pidOf[app] = number;
       startOf[app] = starts;
       isExited[app] = false;
       isEntered[app] = true;
       entriesOpen--
     };
     isExited[app] /* The next start comes behind the exit on file. */
  :: else -> break
  od
}

/* A process may end by itself at any moment. */
active [PIDS] proctype fate() {
  byte number = _pid + 1;
end:
  do
  :: atomic { process[number] == LIVES -> process[number] = ZOMBIE; ends++ }
  od
}

/* A request to end, or the term time-out: under the lock, if no exit is on file. */
active proctype killer() {
  byte app = 0;
  byte times = 0;
end:
  do
  :: times < 2 ->
     times++;
     if
     :: app = 1
     :: app = 2
     fi;
     atomic {
       if
       :: isEntered[app] && !isExited[app] ->
          assert(process[pidOf[app]] != FREE && owner[pidOf[app]] == IDENTITY(app));
          if
          :: process[pidOf[app]] == LIVES -> process[pidOf[app]] = ZOMBIE; ends++
          :: else
          fi
       :: else
       fi
     }
  :: else -> break
  od
}

inline file_exit(number, whose) {
  atomic {
    ENTRIES_ARE_DONE ->
    if
    :: isEntered[1] && !isExited[1] && pidOf[1] == number -> assert(IDENTITY(1) == whose); isExited[1] = true
    :: isEntered[2] && !isExited[2] && pidOf[2] == number -> assert(IDENTITY(2) == whose); isExited[2] = true
    :: else -> assert(false) /* "can not find app" */
    fi;
    filedEnds++
  }
}

active proctype reaper() {
  byte number, whose;
end:
  do
  :: atomic {
       if
       :: process[1] == ZOMBIE -> number = 1
       :: process[2] == ZOMBIE -> number = 2
       fi;
       whose = owner[number]
     };
#ifdef REAP_FIRST
     process[number] = FREE;
     file_exit(number, whose)
#else
     file_exit(number, whose);
     process[number] = FREE
#endif
  od
}

init {
  atomic {
    process[1] = FREE;
    process[2] = FREE;
    run application(1);
    run application(2)
  };
  /* All have been started, have ended, and are known to have ended. */
  (ends == APPS * STARTS && filedEnds == ends)
}
