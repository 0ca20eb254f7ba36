/* The bring-up waits for a reporting service that may die and come back: core/bring_up.cpp, check_pass.cpp,
   bring_up_handshake.cpp, reaper.cpp, message/openings.cpp. What is done under baseAppMutex_, and nobody waits
   under it, is an atomic step here.

   Each process serves, is connected to, reports once, and may die at any moment; the last one that the policy
   grants doesn't die. To be shown: the bring-up ends whatever happens, and a report counts for the process that
   made it and for no other.

   FAULT TWO_OPENINGS: a restart doesn't wait for the opening of the one that died, which goes on.
   FAULT ANY_CHANNEL: a report counts whichever channel it came by.
   FAULT LATE_COUNT: the bring-up counts the events after its look at the record.
   FAULT END_IS_LOST: an opening that is told to end before it waits doesn't hear of it. */

#define PROCESSES 3
#define CONNECTIONS 6

#ifdef TWO_OPENINGS
#define MAY_RESTART true
#else
#define MAY_RESTART (openingsUnderWay == 0)
#endif

mtype = { STARTING, RUNNING, TERMINATED };

/* The service's processes, by their number. */
byte started = 0;
bool alive[PROCESSES + 1], serves[PROCESSES + 1];
byte connectionTo[PROCESSES + 1]; /* 0: none yet. Its process reports by the first one. */

/* The record. */
mtype state = TERMINATED;
bool isExited, isGone;
byte granted; /* How many processes the policy grants in all. */
bool mayDie[PROCESSES + 1];

/* The channel on file, the openings, and what has been said. */
byte filed = 0;
byte connections = 0;
byte processOf[CONNECTIONS + 1];
byte openingsUnderWay = 0;
bool isTold[PROCESSES + 2]; /* The opening has been told to end. By the number of its process. */
chan reports = [CONNECTIONS] of { byte };

/* What the main thread waits for. */
bool isAwaited;
mtype awaited;
byte events = 0;

inline note_state() {
  if
  :: isAwaited && awaited == STARTING -> awaited = state
  :: else
  fi
}

proctype service(byte me) {
  if
  :: serves[me] = true
  :: mayDie[me] -> goto dies
  fi;
  if
  :: connectionTo[me] != 0 -> reports ! connectionTo[me]
  :: mayDie[me] -> goto dies
  fi;
  if
  :: mayDie[me] -> goto dies
  :: !mayDie[me] -> goto lives
  :: true -> goto lives
  fi;
dies:
  atomic { alive[me] = false; serves[me] = false };
  /* The reaper files the exit, and tells the opening under the same lock. */
  atomic {
    isExited = true;
    isTold[me] = true;
  };
lives:
  skip
}

/* Connects to whoever serves under the name. */
proctype opening(byte mine) {
  byte server = 0, connection = 0;
#ifdef END_IS_LOST
  isTold[mine] = false;
#endif
#ifdef TWO_OPENINGS
end: /* It may wait for minutes; that alone isn't what is to be found. */
#endif
  do
  :: atomic {
       server == 0 && started > 0 && serves[started] ->
       server = started;
       connections++;
       connection = connections;
       processOf[connection] = server;
       if
       :: connectionTo[server] == 0 -> connectionTo[server] = connection
       :: else
       fi;
       break
     }
#ifndef TWO_OPENINGS
  :: isTold[mine] -> break
#endif
  od;
  if
  :: connection != 0 -> filed = connection /* An older channel of the name is closed by it. */
  :: else
  fi;
  openingsUnderWay--;
  events++
}

inline start_process() {
  started++;
  alive[started] = true;
  mayDie[started] = started < PROCESSES;
  state = STARTING;
  isExited = false;
  run service(started)
}

inline begin_opening() {
  openingsUnderWay++;
  run opening(started)
}

active proctype check_pass() {
end:
  do
  :: atomic {
       isExited && !isGone && state != TERMINATED && MAY_RESTART ->
       state = TERMINATED;
       filed = 0;
       if
       :: started < granted -> start_process(); begin_opening()
       :: else -> isGone = true; events++
       fi;
       note_state()
     }
  od
}

active proctype reader() {
  byte connection;
end:
  do
  :: reports ? connection ->
     /* The report may come before its channel is on file. */
#ifdef TWO_OPENINGS
endFiling: /* A wait of seconds at most. */
#endif
     (filed == connection || openingsUnderWay == 0);
     atomic {
       if
#ifndef ANY_CHANNEL
       :: filed != connection /* Of a channel that is no more. */
#else
       :: isGone
#endif
       :: else ->
          assert(processOf[connection] == started);
          if
          :: !isGone -> state = RUNNING; note_state()
          :: else
          fi
       fi
     }
  od
}

active proctype bring_up() {
  byte seen;
  bool isAsked = false, isOpen = false, hasFailed = false;
  if
  :: granted = 1
  :: granted = 2
  :: granted = PROCESSES
  fi;
  atomic { start_process() };
  do
  :: isOpen || hasFailed -> break
  :: else ->
#ifndef LATE_COUNT
     seen = events;
#endif
     atomic {
       if
       :: isGone -> hasFailed = true
       :: !isGone && filed != 0 -> isOpen = true
       :: !isGone && filed == 0 && openingsUnderWay > 0
       :: !isGone && filed == 0 && openingsUnderWay == 0 && (isExited || state == TERMINATED)
       :: !isGone && filed == 0 && openingsUnderWay == 0 && !isExited && state != TERMINATED ->
          if
          :: isAsked -> hasFailed = true
          :: else -> isAsked = true; begin_opening()
          fi
       fi
     };
#ifdef LATE_COUNT
     seen = events;
#endif
     if
     :: isOpen || hasFailed
     :: else -> events != seen
     fi
  od;
  if
  :: isOpen ->
     atomic {
       isAwaited = true;
       if
       :: isGone -> awaited = TERMINATED
       :: else -> awaited = state
       fi
     };
     awaited != STARTING
  :: else
  fi
}
