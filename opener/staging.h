// staging.h -- the root-owned copies that the daemon runs from.
#pragma once

// Builds the staging tree anew and fills it with checked copies of the bundle's files: the hook for
// ServiceImpl_SetPreStartHook.  Called with lowered privileges, which it raises meanwhile.  True
// when the whole tree is in place, each source and each copy with a valid signature.  False
// otherwise, for example when the install root or its parent is not root's alone; what has been
// staged by then stays, out of everybody's reach but root's, and of the item that failed only the
// name, unless a record says that its copy could not be emptied.  No more of an item is copied than was checked.  Not thread-safe.
[[nodiscard]] bool constructWorkingDir();
