// staging.h -- the root-owned copies that the daemon runs from.
#pragma once

// Builds the staging tree anew and fills it with checked copies of the bundle's files: the hook for
// ServiceImpl_SetPreStartHook.  Called with lowered privileges, which it raises temporarily.  True if
// the whole tree is in place and each source and each copy has a valid signature.  False otherwise, for
// example if others than root may write to the install root or its parent.  What has been staged by then
// stays where only root can reach it; of the item that failed, only the name stays, unless a record says
// that its copy could not be emptied.  No more of an item is copied than was checked.  Not thread-safe.
[[nodiscard]] bool constructWorkingDir();
