// coreFoundation.h -- what tests ask of the stand-in for CoreFoundation.
#pragma once

// How many objects were created and not yet released.
int CoreFoundation_LiveObjects();

// The nth call from now on that can fail does so, once; 0 for none.
void CoreFoundation_FailCall(int nth);
