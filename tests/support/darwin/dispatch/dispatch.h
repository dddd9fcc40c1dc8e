// dispatch.h -- a stand-in; tests/unit/helperListener_test.cpp defines it.
#pragma once

[[noreturn]] void dispatch_main();
