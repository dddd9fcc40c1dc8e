// dispatch.h -- see ../xpcConnections.cpp.
#pragma once

[[noreturn]] void dispatch_main();
