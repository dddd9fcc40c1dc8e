// helperListener_test.cpp -- the listener with many peers, and every reference to its Blocks.

#include "opener/helperListener.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/darwin/xpc.h"

namespace {

using Tally = std::shared_ptr<std::atomic<int>>;  // its owners are those who hold the handler

XpcObject message{XPC_TYPE_DICTIONARY};

[[noreturn]] void Serve(const Tally &borrowed) {
  const Tally tally = borrowed;
  HelperListener_Run("com.zephrin.helper", ^(xpc_object_t received) {
    *tally += received == &message ? 1 : 1000000;
  });
}

TEST(HelperListener, ServesPeersAtTheSameTimeAndGivesUpEveryReference) {
  constexpr int kMessages = 100;
  const Tally tally = std::make_shared<std::atomic<int>>(0);
  std::vector<XpcObject> peers(8);
  const std::string records = CaptureOutput([&] {
    std::thread([&] { Serve(tally); }).join();
    // The listener's copy has it; the caller's Block has gone with its stack.
    EXPECT_EQ(2, tally.use_count());
    std::vector<std::jthread> threads;
    for (XpcObject &peer : peers) {
      peer = {XPC_TYPE_CONNECTION, nullptr, 1001 + static_cast<pid_t>(threads.size())};
      threads.emplace_back([&peer] {
        Xpc_Deliver(Xpc_Listener(), &peer);
        for (int i = 0; i < kMessages; i++) Xpc_Deliver(&peer, &message);
      });
    }
    threads.clear();
    // Peers go on without the listener: each holds the handler by itself.
    Xpc_Drop(Xpc_Listener());
    for (XpcObject &peer : peers) {
      Xpc_Deliver(&peer, &message);
      Xpc_Deliver(&peer, XPC_ERROR_CONNECTION_INVALID);
      Xpc_Drop(&peer);
    }
  });
  EXPECT_EQ(8 * (kMessages + 1), *tally);
  EXPECT_EQ(1, tally.use_count());
  EXPECT_TRUE(WithoutStamps(records).starts_with("Starting service: com.zephrin.helper\n"));
  for (const XpcObject &peer : peers) {
    const std::string closed = std::to_string(peer.pid) + ": Connection closed by client.\n";
    EXPECT_NE(std::string::npos, records.find(closed)) << closed;
  }
}

}  // namespace
