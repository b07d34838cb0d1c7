#include "socket_manager/tcp_socket_manager.h"

#include <gtest/gtest.h>

#include <future>

#include "support/tcp_listener.h"

namespace tmsc {
namespace {

TEST(TcpSocketManagerTest, OneSocketForEachDevice) {
  TCPSocketManager manager;
  const auto socket = manager.GetSocket("192.0.2.5", 502, 1);
  EXPECT_EQ(socket, manager.GetSocket("192.0.2.5", 502, 1));
  EXPECT_NE(socket, manager.GetSocket("192.0.2.5", 502, 2));
  EXPECT_NE(socket, manager.GetSocket("192.0.2.5", 503, 1));
  EXPECT_NE(socket, manager.GetSocket("192.0.2.6", 502, 1));
  EXPECT_NE(socket, manager.GetSocket("192.0.2.5", 50, 201));
  manager.RemoveSocket("192.0.2.5", 502, 9);  // not pooled: nothing happens
  manager.RemoveSocket("192.0.2.5", 502, 1);
  EXPECT_NE(socket, manager.GetSocket("192.0.2.5", 502, 1));
}

// Every third holder removes the socket; nobody else may be using it then, and whoever waited for
// it must not get the removed one.
TEST(TcpSocketManagerTest, HolderOfALockedSocketIsAlone) {
  const test::Listener listener(1000);
  TCPSocketManager manager;
  std::atomic<int> holders{0};
  std::atomic<int> faults{0};
  std::vector<std::future<void>> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.push_back(std::async(std::launch::async, [&, thread] {
      for (int i = 0; i < 100; ++i) {
        const ExclusiveSocket held = manager.LockSocket("127.0.0.1", listener.Port(), 1);
        faults += holders++;
        faults += held.socket->Connect(5000) != 0 ? 1 : 0;
        const int descriptor = held.socket->GetDescriptor();
        std::this_thread::yield();
        faults += held.socket->GetDescriptor() != descriptor || descriptor < 0 ? 1 : 0;
        faults += manager.GetSocket("127.0.0.1", listener.Port(), 1) != held.socket ? 1 : 0;
        --holders;
        if ((i + thread) % 3 == 0) {
          manager.RemoveSocket("127.0.0.1", listener.Port(), 1);
          faults += held.socket->IsSocketCreated() ? 1 : 0;
        }
      }
    }));
  }
  threads.clear();  // waits
  EXPECT_EQ(0, faults);
}

}  // namespace
}  // namespace tmsc
