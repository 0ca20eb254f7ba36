/* Two threads send to a peer that may be slow or gone, and the keeper tries again what found no room:
   message/outbox.cpp, keeper.cpp. A step under the outbox's lock is atomic here.

   To be shown: what the peer gets of one sender is in order, each message's outcome is told once, and whatever waits
   is tried again.

   FAULT OVERTAKE: a message is tried at once although others wait.
   FAULT CALL_FIRST: the keeper is called before the message is kept. */

#define MESSAGES 2 /* Of each sender. */
#define ROOM 1
#define TRIES 3

chan peer = [ROOM] of { byte, byte };
chan waiting = [4] of { byte, byte };
byte tries = 0;
bool hasGivenUp;
byte told = 0;

bool isKeeperCalled;
bool isClosed;

proctype sender(byte me) {
  byte number = 0;
  do
  :: number < MESSAGES ->
     number++;
#ifdef CALL_FIRST
     isKeeperCalled = true;
#endif
     atomic {
       if
       :: isClosed && empty(waiting) -> told++
#ifdef OVERTAKE
       :: !isClosed && nfull(peer) -> peer ! me, number; told++
       :: !isClosed && full(peer) -> waiting ! me, number
#else
       :: !isClosed && empty(waiting) && nfull(peer) -> peer ! me, number; told++
       :: nempty(waiting) || (!isClosed && full(peer)) -> waiting ! me, number
#endif
       fi
     };
#ifndef CALL_FIRST
     isKeeperCalled = true
#endif
  :: else -> break
  od
}

/* Reads what has been sent; may stop for good. */
active proctype reader() {
  byte last[3];
  byte who, number;
end:
  do
  :: peer ? who, number -> assert(number > last[who]); last[who] = number
  :: true -> break
  od
}

inline end_first() {
  waiting ? _, _;
  tries = 0;
  told++
}

/* One pass: everything that waits gets its try. */
inline try_waiting() {
  atomic {
    do
    :: empty(waiting) -> break
    :: nempty(waiting) && isClosed -> end_first()
    :: nempty(waiting) && !isClosed && nfull(peer) ->
       waiting ? who, number;
       peer ! who, number;
       hasGivenUp = false;
       tries = 0;
       told++
    :: nempty(waiting) && !isClosed && full(peer) ->
       tries++;
       if
       :: tries < TRIES && !hasGivenUp -> isKeeperCalled = true; break
       :: else -> hasGivenUp = true; end_first()
       fi
    od
  }
}

active proctype keeper() {
  byte who, number;
end:
  do
  :: atomic { isKeeperCalled -> isKeeperCalled = false };
     try_waiting()
  od
}

/* A closed channel takes nothing more, and refuses what waits for it. */
active proctype closer() {
end:
  isClosed = true
}

init {
  atomic { run sender(1); run sender(2) };
  told == 2 * MESSAGES
}
