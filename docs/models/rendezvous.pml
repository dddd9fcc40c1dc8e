/* rendezvous.pml -- how openers meet the service daemon, and what can then run as root.
 *
 * N openers each want to be greeted by the daemon; one that finds nobody listening starts it.  Spin
 * runs them in every possible order and looks for one in which something goes wrong.  A step is one
 * system call.  A process that is stopped (SIGSTOP, a frozen control group) takes no step for a
 * while, so stops of any length, between any two calls, are covered.
 *
 * The protocol of one opener (opener/serviceImpl.cpp):
 *
 *   take the side lock; connect
 *     accepted: release; wait for the greeting; if the listener goes away first, begin again
 *     refused:  try to take the start lock
 *       busy:   release the side lock, pause, begin again
 *       taken:  on macOS, repeat the connect a few times with both locks held; if still refused:
 *               unlink, bind, listen; release the side lock
 *               stage: delete the tree, copy the daemon, check the copy
 *               fork; the child inherits the listener, and keeps the start lock until exec
 *               release the start lock, begin again
 *
 * The attacker owns the bundle: whatever was checked there, a copy may turn out good or bad.  A bad
 * one stays in place here: safety must not rest on how soon the opener removes it.
 *
 * Properties.  The first two are asserted before each exec; the third ends this file.
 *   VERIFIED  nothing is executed but a good copy
 *   SINGLE    no daemon is executed while another one runs
 *   served    every opener is greeted, provided that no process is stopped for ever
 *
 * Switches.  Without any, this is the protocol as shipped, on Linux, in calm weather.
 *   MACOS     a full queue refuses a connection at once; on Linux, connect waits for room
 *   ATTACK    a copy may be bad
 *   KILLS=n   n openers or children are killed, at any moment
 *   DEATHS=n  n daemons die
 *   HANG      a daemon may stop accepting, and for longer than connect is repeated
 *   N, QUEUE  openers; connections that fit into a listener's queue
 * Each of these leaves something out, to show what it is for:
 *   NO_START_LOCK   NOT_KEPT (the child has no descriptor of the start lock)   NO_REPEAT
 *
 * What tools/checkModels runs: verdict, properties, switches.
 *   row:  holds VERIFIED,SINGLE -DMACOS -DATTACK -DKILLS=1 -DDEATHS=1
 *   row:  holds VERIFIED,SINGLE -DATTACK -DKILLS=1 -DDEATHS=1 -DHANG
 *   row:  holds VERIFIED -DMACOS -DATTACK -DDEATHS=1 -DHANG
 *   row:  holds served -DMACOS -DDEATHS=1
 *   row:  holds served -DDEATHS=1
 *   row:  fails VERIFIED -DMACOS -DATTACK -DNO_START_LOCK
 *   row:  fails VERIFIED -DMACOS -DATTACK -DKILLS=1 -DNOT_KEPT
 *   row:  fails SINGLE -DMACOS -DNO_START_LOCK
 *   row:  fails SINGLE -DMACOS -DNO_REPEAT
 *   row:  fails SINGLE -DMACOS -DHANG
 *   row:  fails served -DMACOS -DNO_START_LOCK
 *   long: holds VERIFIED,SINGLE -DMACOS -DATTACK -DKILLS=2 -DDEATHS=1
 *   long: holds VERIFIED -DMACOS -DATTACK -DKILLS=1 -DDEATHS=1 -DHANG
 *   long: holds VERIFIED,SINGLE -DN=4 -DQUEUE=2 -DMACOS -DATTACK -DKILLS=1
 *   long: holds VERIFIED,SINGLE -DN=4 -DQUEUE=2 -DATTACK -DKILLS=1
 *
 * Promela in brief.  `a -> b` and `a; b` execute a, then b; a condition is waited for.  `if` takes
 * any of its `::` branches that need not wait, and waits while there is none; `do` repeats that.
 * `atomic` makes several statements one step.  `A unless B` abandons A as soon as B need not wait.
 * `(c -> x : y)` is C's `c ? x : y`.  `queue!x` appends to a queue, `queue?x` takes its first
 * element.  `_pid` is the process's number.
 */
#ifndef N
#define N 3
#endif
#ifndef QUEUE
#define QUEUE 1
#endif
#ifndef KILLS
#define KILLS 0
#endif
#ifndef DEATHS
#define DEATHS 0
#endif
#if defined(MACOS) && !defined(NO_REPEAT)
#define REPEATS 1
#else
#define REPEATS 0 /* on Linux, a refusal proves that nobody listens */
#endif

#define NONE 255
#define LISTENERS (N + 2) /* listening sockets that there may be at a time */

/* ---- what the kernel knows ------------------------------------------------------------------- */

byte sideLock = NONE;         /* the opener that holds it */
byte startLock = NONE;        /* the opener that has a descriptor of it */
byte startLockInChild = NONE; /* the opener whose child has one; free if there is neither */

byte socketFile = NONE;       /* the listener that the socket's path leads to */
byte made[N] = NONE;          /* the listener that an opener has open */
byte inherited[N] = NONE;     /* the one that its child has open; NONE: there is no child */
byte descriptors[LISTENERS];  /* of each listener, in openers, children and daemons together */
chan queue[LISTENERS] = [QUEUE] of { byte }; /* openers that connected and were not accepted yet */

mtype = { nothing, greeting, endOfFile };
mtype received[N] = nothing;  /* by an opener on its connection */
byte staged = NONE;           /* the opener whose copy the daemon's path leads to */
bool good;                    /* what is there is complete, and what the maker signed */
bool execFailed[N];           /* what the child reports to its opener */
bool daemon[LISTENERS];       /* a daemon serves this listener */
bool hangs[LISTENERS];        /* and does not accept */
bool killed[2 * N];           /* openers, then children */
byte daemons, deaths, kills, served;
hidden byte scratch_;         /* used within single steps only */

#define LISTENING (socketFile != NONE && descriptors[socketFile] > 0)
#define ROOM (len(queue[socketFile]) < QUEUE)
#define ACCEPTING (daemon[socketFile] && !hangs[socketFile])

/* One descriptor of `listener` is closed; with the last one, the connections in its queue end. */
inline Close(listener) {
  descriptors[listener]--;
  do
  :: descriptors[listener] == 0 && nempty(queue[listener]) ->
     queue[listener]?scratch_; received[scratch_] = endOfFile
  :: descriptors[listener] > 0 || empty(queue[listener]) -> break
  od
}

/* The opener closes whatever it has open, by itself or because it was killed. */
inline CloseAll(me) {
  startLock = (startLock == me -> NONE : startLock);
  sideLock = (sideLock == me -> NONE : sideLock);
  atomic { if :: made[me] != NONE -> Close(made[me]); made[me] = NONE :: else fi }
}

/* ---- openers --------------------------------------------------------------------------------- */

active [N] proctype Opener() {
  byte repeats;
  {
    skip;
again:
    atomic { sideLock == NONE -> sideLock = _pid; repeats = REPEATS };
connect:
    atomic { if
      :: LISTENING && ROOM ->
         queue[socketFile]!_pid; printf("%d connects to %d\n", _pid, socketFile); goto client
#ifdef MACOS
      :: LISTENING && !ROOM -> printf("%d is refused: the queue of %d is full\n", _pid, socketFile)
#endif
      :: !LISTENING -> printf("%d is refused: nobody listens\n", _pid) fi };
#ifndef NO_START_LOCK
    atomic { if
      :: startLock == NONE && startLockInChild == NONE -> startLock = _pid
      :: startLock == _pid /* this was a repeated connect */
      :: else -> sideLock = NONE; goto again fi };
#endif
    if
    :: repeats > 0 -> /* Nobody else can connect now, so a daemon that accepts makes room. */
       repeats--; !(LISTENING && !ROOM && ACCEPTING); goto connect
    :: else
    fi;

    atomic { socketFile = NONE; printf("%d unlinks the socket\n", _pid) };
    atomic {
      scratch_ = 0;
      do :: descriptors[scratch_] > 0 -> scratch_++ :: else -> break od;
      made[_pid] = scratch_; descriptors[scratch_] = 1; socketFile = scratch_;
      printf("%d binds and listens: %d\n", _pid, socketFile)
    };
    sideLock = NONE;
    atomic { staged = NONE; good = false; printf("%d deletes the tree\n", _pid) };
    atomic { if :: staged == NONE -> staged = _pid :: else -> goto fail fi }; /* O_EXCL */
    if
    :: good = (staged == _pid -> true : good) /* no matter if another opener has deleted the file */
#ifdef ATTACK
    :: printf("%d copies a BAD file\n", _pid)
#endif
    fi;
    atomic { if :: good :: else -> goto fail fi; printf("%d has checked the copy\n", _pid) };

    atomic {
      inherited[_pid] = made[_pid]; descriptors[made[_pid]]++;
#if !defined(NO_START_LOCK) && !defined(NOT_KEPT)
      startLockInChild = _pid;
#endif
      printf("%d forks\n", _pid)
    };
    atomic { inherited[_pid] == NONE -> /* the child is the daemon now, failed, or was killed */
      if :: execFailed[_pid] -> execFailed[_pid] = false; goto fail :: else fi
    };
    CloseAll(_pid); goto again;

fail:
    printf("%d fails\n", _pid); CloseAll(_pid); goto over;
client:
    CloseAll(_pid);
    atomic { if
      :: received[_pid] == greeting -> received[_pid] = nothing; served++
      :: received[_pid] == endOfFile -> received[_pid] = nothing; goto again fi };
over: skip
  } unless { killed[_pid] };
  CloseAll(_pid)
}

/* ---- their children, between fork and exec --------------------------------------------------- */

#define parent (_pid - N)

active [N] proctype Child() {
end: do
  :: atomic { inherited[parent] != NONE ->
       if
       :: killed[_pid] -> Close(inherited[parent]) /* the opener begins again, as after a success */
       :: !killed[_pid] && staged == NONE -> execFailed[parent] = true; Close(inherited[parent])
       :: !killed[_pid] && staged != NONE ->
          printf("the child of %d executes the copy that %d made\n", parent, staged);
#ifdef VERIFIED
          assert(good);
#endif
#ifdef SINGLE
          assert(daemons == 0);
#endif
          daemon[inherited[parent]] = true; daemons++ /* the daemon has the descriptor now */
       fi;
       inherited[parent] = NONE;
       startLockInChild = (startLockInChild == parent -> NONE : startLockInChild) }
  od
}

/* ---- daemons, and what kills ----------------------------------------------------------------- */

#define mine (_pid - 2 * N)

active [LISTENERS] proctype Daemon() {
end: do
  :: atomic { daemon[mine] && !hangs[mine] && nempty(queue[mine]) ->
       queue[mine]?scratch_; received[scratch_] = greeting; printf("%d is greeted\n", scratch_) }
  :: atomic { daemon[mine] && deaths < DEATHS ->
       deaths++; daemons--; daemon[mine] = false; hangs[mine] = false; Close(mine) }
#ifdef HANG
  :: atomic { daemon[mine] -> hangs[mine] = !hangs[mine] }
#endif
  od
}

#if KILLS > 0
active proctype Killer() {
  byte victim;
end: do
  :: atomic { kills < KILLS ->
       do :: victim < 2 * N - 1 -> victim++ :: break od;
       killed[victim] = true; kills++; printf("process %d is killed\n", victim); victim = 0 }
  od
}
#endif

ltl served { <> (served == N) }
