// helperListener_test.cpp -- the listener with many peers, and every reference to its Blocks.

#include "opener/helperListener.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/darwin/xpc.h"

namespace {

constexpr int kPeers = 8;
constexpr int kMessages = 100;
constexpr pid_t kFirstPid = 1001;

using Tally = std::shared_ptr<std::atomic<int>>;  // its owners are those who hold the handler

XpcObject message{XPC_TYPE_DICTIONARY};

// Messages are counted by one, anything else as a great many.
[[noreturn]] void Serve(const Tally &borrowed) {
  const Tally tally = borrowed;
  HelperListener_Run("com.zephrin.helper", ^(xpc_object_t received) {
    *tally += received == &message ? 1 : 1000000;
  });
}

void ForEachPeerAtOnce(std::array<XpcObject, kPeers> &peers, void (*body)(XpcObject *peer)) {
  std::vector<std::thread> threads;
  for (XpcObject &peer : peers) threads.emplace_back(body, &peer);
  for (std::thread &thread : threads) thread.join();
}

TEST(HelperListener, ServesPeersAtTheSameTimeAndGivesUpEveryReference) {
  const Tally tally = std::make_shared<std::atomic<int>>(0);
  std::array<XpcObject, kPeers> peers;
  for (int i = 0; i < kPeers; i++) peers[size_t(i)] = {XPC_TYPE_CONNECTION, nullptr, kFirstPid + i};
  const std::string records = CaptureOutput([&] {
    std::thread([&] { Serve(tally); }).join();
    // The listener's copy has it; the caller's Block has gone with its stack.
    EXPECT_EQ(2, tally.use_count());
    ForEachPeerAtOnce(peers, [](XpcObject *peer) {
      Xpc_Deliver(Xpc_Listener(), peer);
      for (int i = 0; i < kMessages; i++) Xpc_Deliver(peer, &message);
    });
    // Peers go on without the listener: each holds the handler by itself.
    Xpc_Deliver(Xpc_Listener(), XPC_ERROR_CONNECTION_INVALID);
    Xpc_Drop(Xpc_Listener());
    ForEachPeerAtOnce(peers, [](XpcObject *peer) {
      Xpc_Deliver(peer, &message);
      Xpc_Deliver(peer, XPC_ERROR_CONNECTION_INVALID);
      Xpc_Drop(peer);
    });
  });
  EXPECT_EQ(kPeers * (kMessages + 1), *tally);
  EXPECT_EQ(1, tally.use_count());
  EXPECT_TRUE(WithoutStamps(records).starts_with("Starting service: com.zephrin.helper\n"));
  for (const XpcObject &peer : peers) {
    const std::string pid = std::to_string(peer.pid);
    const size_t met = records.find(" " + pid + ": Received connection from /bin/" + pid + "\n");
    EXPECT_NE(std::string::npos, met) << pid;
    EXPECT_NE(std::string::npos, records.find(" " + pid + ": Connection closed by client.\n", met));
  }
}

}  // namespace
