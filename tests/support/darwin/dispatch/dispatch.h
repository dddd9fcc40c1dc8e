// dispatch.h -- see tests/unit/helperListener_test.cpp.
#pragma once

[[noreturn]] void dispatch_main();
