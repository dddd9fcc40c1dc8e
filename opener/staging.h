// staging.h -- the root-owned copies that the daemon runs from.
#pragma once

// Builds the staging tree anew and fills it with checked copies of the bundle's files: the hook for
// ServiceImpl_SetPreStartHook.  Called with lowered privileges, which it raises meanwhile.  True
// when the whole tree is in place, each source and each copy with a valid signature.  False
// otherwise; what has been staged by then stays, out of everybody's reach but root's.  Not
// thread-safe.
[[nodiscard]] bool constructWorkingDir();
