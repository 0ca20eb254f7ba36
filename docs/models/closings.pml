/* A channel is closed while one of its callbacks runs on another thread, which the library refuses: message/closings.cpp,
   keeper.cpp, proc_mgr_master.cpp. A step under a lock is atomic here.

   To be shown: a marked channel is closed, and nobody is told that it couldn't be.

   FAULT NO_CLAIM: the keeper believes the library's word on a channel that its callback has closed.
   FAULT NO_LEFT_OVER: nobody looks after a channel whose callback was past its look at the mark. */

#define CLOSE_TRIES 2

mtype = { DONE, BAD, IN_CALLBACK };

bool isClosed, isMarked, isInCallback;
byte closeTries = 0;
bool isCloseWaiting, isCloseOver;

/* The library's closing: refused while the callback runs on another thread. */
inline close_pipe(result) {
  atomic {
    if
    :: isInCallback -> result = IN_CALLBACK
    :: !isInCallback && isClosed -> result = BAD
    :: !isInCallback && !isClosed -> isClosed = true; result = DONE
    fi
  }
}

/* Whoever takes the mark away has closed the channel, and nobody else has failed to. */
inline claim(isMine) {
  d_step { isMine = isMarked; isMarked = false }
}

/* One try of a marked channel. Behind the last, a callback closes on its way out. */
inline try_close() {
  closeTries++;
  if
  :: !isMarked -> isCloseOver = true
  :: else ->
     close_pipe(result);
     if
     :: result == IN_CALLBACK -> isCloseOver = (closeTries == CLOSE_TRIES)
     :: else ->
#ifdef NO_CLAIM
        isMine = true;
#else
        claim(isMine);
#endif
        assert(!isMine || result == DONE);
        isCloseOver = true
     fi
  fi
}

active proctype keeper() {
  mtype result;
  bool isMine;
  do
  :: isCloseOver -> break
  :: !isCloseOver && isCloseWaiting -> try_close()
  od
}

/* The callback of a frame that has come. It may begin before the mark and end behind it. */
active proctype callback() {
  bool isMine;
end:
  atomic { !isClosed -> isInCallback = true };
  if
  :: isMarked ->
     claim(isMine);
     if
     :: isMine -> isClosed = true /* The library lets it close its own channel. */
     :: else
     fi
  :: else
  fi;
  isInCallback = false
}

active proctype closer() {
  isMarked = true;
  isCloseWaiting = true
}

#ifndef NO_LEFT_OVER
/* The next opening or closing of any channel. */
active proctype next_operation() {
  mtype result;
  bool isMine;
  isCloseOver && !isInCallback;
  if
  :: isMarked ->
     close_pipe(result);
     claim(isMine)
  :: else
  fi
}
#endif

init {
  isClosed
}
