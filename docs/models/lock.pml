/* lock.pml -- the portable file lock: who may have it, in which order, and that all get it.
 *
 * N participants share one lock directory.  Spin runs them in every possible order and looks for
 * one in which something goes wrong.  A step is one call of the file system.  A participant may be
 * slow or stopped for any time between two steps; it takes and releases the lock for ever.
 *
 * The protocol of one participant (lib/file/lock/fileLock.cpp, docs/lock-format.md):
 *
 *   draw a name k; mkdir Dk; if Mk is there, rmdir Dk and begin again
 *   create Ek, also in place of a leftover; read all members; write the highest number plus 1 into
 *     Ek; rename Ek to Mk
 *   rmdir Dk; if it has gone, this participant was taken for dead: unlink Mk and begin again
 *   list until no D is left that the first of these listings had; a D that stays for too long is
 *     dead: unlink its E, rmdir it, and leave its M alone
 *   take the members from the last listing or, if that may be in pieces, from one more; wait for
 *     each one that goes first until it has left; unlink those of dead processes
 *   hold the lock; unlink Mk
 *
 * Properties.  The first two are asserted when somebody gets the lock; the third ends this file.
 *   EXCLUSION  no other one has it, unless both share it; and nobody unlinks the holder's member
 *   TURN       no one still waits that was in the queue before this one came
 *   served     every member of the queue gets the lock, if no process is stopped for ever
 *
 * Switches.  Without any, participants want exclusive locks, are patient, and never die.
 *   N, K       participants, and names that may be drawn
 *   CRASHES=n  n participants die, at any step
 *   SAME=n     n times a name is drawn that is in use: one chance in 65536
 *   LATE       live choosers may be taken for dead: they were stopped for more than 8 seconds
 *   PIECES     a listing is no single moment: some of what comes or goes meanwhile is in it
 *   SHARED=s   a set of participants, one bit each, who may want shared locks
 *   GIVEUP=s   a set of those who may leave instead of waiting, or once they have read a member
 *   ROUNDS=n   each one tries n times only
 * Each of these leaves something out, to show what it is for:
 *   NO_SECOND (listing)   ALL_CHOOSERS (are waited for, those who come later, too)
 *   MEMBER_TOO (of a dead chooser, M is unlinked as well, and first)
 *
 * What tools/checkModels runs: verdict, properties, switches.
 *   row:  holds EXCLUSION,TURN -DN=2 -DCRASHES=1 -DLATE -DPIECES -DSHARED=3 -DGIVEUP=3
 *   row:  holds EXCLUSION,TURN -DN=3 -DROUNDS=1
 *   row:  holds EXCLUSION -DN=3 -DSHARED=3 -DROUNDS=1
 *   row:  holds EXCLUSION -DN=3 -DK=2 -DSAME=1 -DCRASHES=1
 *   row:  holds EXCLUSION -DN=3 -DLATE -DROUNDS=1 -DGIVEUP=7
 *   row:  holds served -DN=2 -DCRASHES=1 -DSHARED=3 -DGIVEUP=2
 *   row:  fails EXCLUSION -DN=2 -DPIECES -DNO_SECOND
 *   row:  fails EXCLUSION -DN=2 -DLATE -DMEMBER_TOO
 *   row:  fails EXCLUSION -DN=3 -DK=2 -DSAME=1 -DCRASHES=1 -DMEMBER_TOO
 *   row:  fails EXCLUSION -DN=2 -DK=2 -DSAME=1 -DLATE
 *   row:  fails served -DN=2 -DALL_CHOOSERS -DGIVEUP=2
 *   row:  fails served -DN=2 -DALL_CHOOSERS -DSHARED=3
 *   long: holds EXCLUSION,TURN -DN=3
 *   long: holds EXCLUSION,TURN -DN=3 -DSHARED=7 -DROUNDS=1
 *   long: holds EXCLUSION,TURN -DN=3 -DPIECES -DROUNDS=1
 *   long: holds served -DN=3 -DGIVEUP=6
 *
 * Left out: time (42 listings in a row are one); the directory itself; other machines, whose dead
 * stay; the last look at the own member, which decides nothing between participants; that members
 * are read once more before they are waited for.  rendezvous.pml explains Promela.
 */
#ifndef K
#define K 3
#endif
#ifndef SAME
#define SAME 0
#endif
#ifndef GIVEUP
#define GIVEUP 0
#endif
#define me _pid
#define BIT(b) (1 << (b))
#define HAS(set, b) ((set) & BIT(b))
#define SAY(text, x) printf(text, me, x)
#define FOR(x, n) x = 0; do :: x < n ->
#define END(x) ; x++ :: else -> break od

/* ---- the lock directory ---------------------------------------------------------------------- */

byte D[K], E[K], M[K];          /* whose the entry is, plus 1; 0: there is none */
byte name[N], prey[N];          /* the own name; the one whose entries are being removed; plus 1 */
byte awaited[N];                /* choosers of the first listing, a set */
byte number[N], highest[N];     /* the own one; the highest that was read */
bool shared[N], written[N];     /* the lock that is wanted; whether the number is in the record */
bool queued[N], holding[N], dead[N];
byte ahead[N], collisions, crashes; /* ahead: a set of those in the queue when this one came */
hidden byte i, low, least, top; /* used within single steps only */
/* A listing is a set: the bits of D from 0, those of M from K. */
inline List() { set = 0; FOR(i, K) set = set | (D[i] != 0) << i | (M[i] != 0) << K + i END(i) }
#ifdef PIECES
byte always[N], ever[N];        /* what was there all the time, and at any time, since it began */
bool listing[N];
#define APPEAR(bit) FOR(i, N) ever[i] = (listing[i] -> ever[i] | (bit) : 0) END(i)
#define VANISH(bit) FOR(i, N) always[i] = always[i] & ~(bit) END(i)
#define BEGIN_LISTING() atomic { true; d_step { \
  List(); always[me] = set; ever[me] = set; listing[me] = true } }
inline EndListing() {
  set = always[me];
  FOR(w, 2 * K) if :: HAS(ever[me] & ~always[me], w) -> set = set | BIT(w) :: true fi END(w);
  listing[me] = false; always[me] = 0; ever[me] = 0; w = 0; SAY("%d has listed %d\n", set)
}
#else
#define APPEAR(bit) skip
#define VANISH(bit) skip
#define BEGIN_LISTING() true
inline EndListing() { d_step { List(); SAY("%d lists %d\n", set) } }
#endif
inline RemoveD(k) { SAY("%d: rmdir D%d\n", k); ok = (D[k] != 0); D[k] = 0; VANISH(BIT(k)) }
inline RemoveE(k) { SAY("%d: unlink E%d\n", k); E[k] = 0 }
inline RemoveM(k) {
  SAY("%d: unlink M%d\n", k);
  assert(M[k] == 0 || M[k] == me + 1 || !holding[M[k] - 1]);
  M[k] = 0; VANISH(BIT(K + k))
}
/* Moves the lowest element of the set to c. */
inline Take(s) { c = 0; do :: !HAS(s, c) -> c++ :: else -> break od; s = s & ~BIT(c) }

/* ---- who is before whom, what may be drawn, who may be removed ------------------------------- */
/* Numbers would grow for ever, but only their order counts, and who is one above whom: gaps of more
 * than 2 become 2. */
inline Next(n) { if :: n > low && (least == 0 || n < least) -> least = n :: else fi }
inline Squeeze() {
  low = 0; top = 0;
  do
  :: least = 0; FOR(i, N) Next(number[i]); Next(highest[i]) END(i);
     if :: least == 0 -> break :: else fi;
     top = top + (least - low > 2 -> 2 : least - low);
     FOR(i, N) number[i] = (number[i] == least -> top : number[i]);
       highest[i] = (highest[i] == least -> top : highest[i]) END(i);
     low = least
  od
}
#define CONFLICT(p) !(shared[p] && shared[me])
#define BEFORE(p, k) (number[p] < number[me] || (number[p] == number[me] && (k) < name[me] - 1))
#define OBSTACLE(p, k) (BEFORE(p, k) && CONFLICT(p))
#define USES(p, k) (p < N && (name[p] == k + 1 || prey[p] == k + 1 || HAS(awaited[p], k)))
#define UNUSED(k) (!D[k] && !E[k] && !M[k] && !USES(0, k) && !USES(1, k) && !USES(2, k))
#define MAY_DRAW(k) (k < K && (UNUSED(k) || (!D[k] && collisions < SAME)))
#define DEAD_CHOOSER(k) (D[k] && dead[D[k] - 1])
#define RUBBISH(k) (M[k] && (dead[M[k] - 1] || !written[M[k] - 1]))
inline Forget() {
  queued[me] = false; holding[me] = false; shared[me] = false; written[me] = false; ahead[me] = 0;
  number[me] = 0; highest[me] = 0; name[me] = 0; prey[me] = 0; awaited[me] = 0;
  FOR(i, N) ahead[i] = ahead[i] & ~BIT(me) END(i); i = 0;
  k = 0; w = 0; set = 0; q = 0; c = 0; ok = false
}

/* ---- participants ---------------------------------------------------------------------------- */
active [N] proctype Participant() {
  byte k, set, w, q, c, rounds; bool ok;
  { skip;
again:
    atomic {
#ifdef ROUNDS
      if :: rounds == ROUNDS -> goto over :: else -> rounds++ fi;
#endif
      if :: MAY_DRAW(0) -> k = 0 :: MAY_DRAW(1) -> k = 1 :: MAY_DRAW(2) -> k = 2 fi;
      if :: UNUSED(k) :: else -> collisions++ fi;
#ifdef SHARED
      if :: HAS(SHARED, me) -> shared[me] = true :: true fi;
#endif
      d_step { D[k] = me + 1; name[me] = k + 1; APPEAR(BIT(k)); SAY("%d: mkdir D%d\n", k);
#ifdef TURN
        FOR(i, N) ahead[me] = ahead[me] | (queued[i] || holding[i] -> BIT(i) : 0) END(i)
#endif
      } };
#if SAME > 0
    if :: M[k] -> goto leaveD :: else fi;
#endif
    d_step { E[k] = me + 1; SAY("%d: create E%d\n", k) };
    BEGIN_LISTING();
    atomic { EndListing(); set = set >> K };
    do
    :: atomic { !prey[me] && set -> d_step { Take(set); SAY("%d reads M%d\n", c);
         if :: !M[c] -> c = 0
            :: RUBBISH(c) -> prey[me] = c + 1
            :: M[c] && !RUBBISH(c) -> highest[me] =
                 (number[M[c] - 1] > highest[me] -> number[M[c] - 1] : highest[me]); c = 0 fi } }
    :: atomic { prey[me] -> d_step { RemoveM(c); prey[me] = 0; c = 0 } }
    :: atomic { !prey[me] && !set -> break }
    :: !prey[me] && highest[me] && HAS(GIVEUP, me) -> goto leaveE
    od;
    atomic { true; d_step {
        number[me] = highest[me] + 1; highest[me] = 0; Squeeze(); written[me] = true } };
    atomic { d_step { SAY("%d renames, with number %d\n", number[me]); ok = (E[k] != 0);
        if :: ok -> M[k] = E[k]; E[k] = 0; APPEAR(BIT(K + k)); queued[me] = true :: else fi };
      if :: !ok -> goto leaveE :: else fi };
    atomic { d_step { RemoveD(k) }; if :: !ok -> goto leaveM :: else -> ok = false fi };
    do /* q: there was a first listing */
    :: BEGIN_LISTING();
       atomic { EndListing(); d_step { w = set & (BIT(K) - 1);
#ifndef ALL_CHOOSERS
           w = (q -> w & awaited[me] : w); q = 1; awaited[me] = w;
#endif
         }; if :: w == 0 -> q = 0; break :: else -> set = 0 fi };
       if :: HAS(GIVEUP, me) -> goto leaveM :: true fi;
       do
       :: atomic { do
            :: w -> Take(w);
               if :: DEAD_CHOOSER(c) -> prey[me] = c + 1; break
#ifdef LATE
                  :: D[c] -> prey[me] = c + 1; break
#endif
                  :: !DEAD_CHOOSER(c) fi
            :: !w -> break od;
          if :: prey[me] :: else -> c = 0; break fi };
#ifdef MEMBER_TOO
          d_step { RemoveM(c) };
#endif
          d_step { RemoveE(c) }; d_step { RemoveD(c); ok = false; prey[me] = 0; c = 0 }
       od
    od;
#if defined(PIECES) && !defined(NO_SECOND)
    BEGIN_LISTING(); atomic { EndListing() };
#endif
    set = (set >> K) & ~BIT(k);
    do /* q: who is being waited for, plus 1 */
    :: atomic { !prey[me] && !q && set -> d_step { Take(set); q = M[c]; SAY("%d looks at M%d\n", c);
         if :: RUBBISH(c) -> prey[me] = c + 1; q = 0
            :: !RUBBISH(c) && (!q || !OBSTACLE(q - 1, c)) -> q = 0; c = 0
            :: else fi } }
    :: atomic { q && (M[c] != q || !OBSTACLE(q - 1, c)) -> q = 0; c = 0 } /* also another's M */
    :: atomic { q && M[c] == q && dead[q - 1] -> prey[me] = c + 1; q = 0 }
    :: q && HAS(GIVEUP, me) -> goto leaveM
    :: atomic { prey[me] -> d_step { RemoveM(c); prey[me] = 0; c = 0 } }
    :: atomic { !prey[me] && !q && !set -> break }
    od;
    atomic { true; d_step {
      SAY("%d HAS the lock, as M%d\n", k); holding[me] = true; queued[me] = false;
      FOR(i, N) skip
#ifdef EXCLUSION
        ; assert(!(i != me && holding[i] && !dead[i] && CONFLICT(i)))
#endif
#ifdef TURN
        ; assert(!(HAS(ahead[me], i) && !dead[i] && queued[i] && CONFLICT(i)))
#endif
      END(i) } };
    d_step { holding[me] = false; RemoveM(k); Forget() };
    goto again;
leaveE: atomic { true; d_step { RemoveE(k) } };
leaveD: atomic { true; d_step { RemoveD(k); Forget() }; goto again };
leaveM: atomic { true; d_step { RemoveM(k); Forget() }; goto again };
over: skip } unless { dead[me] };
  d_step { k = 0; set = 0; w = 0; q = 0; c = 0; ok = false;
    highest[me] = 0; name[me] = 0; prey[me] = 0; awaited[me] = 0 }
}

#if CRASHES > 0
#define DIES(p) (p < N && crashes < CRASHES && !dead[p] && name[p]) -> d_step { \
  dead[p] = true; holding[p] = false; queued[p] = false; crashes++; printf("%d DIES\n", p) }
active proctype Fate() { end: do :: DIES(0) :: DIES(1) :: DIES(2) od }
#endif
ltl served { [] (queued[0] -> <> !queued[0]) }
