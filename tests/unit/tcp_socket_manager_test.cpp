#include "socket_manager/tcp_socket_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/tcp_listener.h"

namespace tmsc {
namespace {

TEST(TcpSocketManagerTest, OneSocketForEachDevice) {
  TCPSocketManager manager;
  const auto socket = manager.GetSocket("192.0.2.5", 502, 1);
  EXPECT_EQ(socket, manager.GetSocket("192.0.2.5", 502, 1));
  const struct {
    const char* ip_address;
    int port;
    int address;
  } others[] = {{"192.0.2.5", 502, 2},
                {"192.0.2.5", 503, 1},
                {"192.0.2.6", 502, 1},
                {"192.0.2.5", 502, 101},
                {"192.0.2.5", 50, 201}};
  for (const auto& other : others) {
    EXPECT_NE(socket, manager.GetSocket(other.ip_address, other.port, other.address))
        << other.ip_address << " " << other.port << " " << other.address;
  }
  manager.RemoveSocket("192.0.2.5", 502, 9);  // not pooled: nothing happens
  manager.RemoveSocket("192.0.2.5", 502, 1);
  EXPECT_NE(socket, manager.GetSocket("192.0.2.5", 502, 1));
}

TEST(TcpSocketManagerTest, RemovedSocketIsClosed) {
  const test::Listener listener;
  TCPSocketManager manager;
  const auto socket = manager.GetSocket("127.0.0.1", listener.Port(), 1);
  ASSERT_EQ(0, socket->Connect(1000));
  manager.RemoveSocket("127.0.0.1", listener.Port(), 1);
  EXPECT_FALSE(socket->IsSocketCreated());
}

// Every third holder removes the socket; nobody else may be using it then, and whoever waited for
// it must not get the removed one.
TEST(TcpSocketManagerTest, HolderOfALockedSocketIsAlone) {
  const test::Listener listener(1000);
  std::thread accepting([&] {
    while (listener.Accept().IsOpen()) {
    }
  });
  TCPSocketManager manager;
  std::atomic<int> holders{0};
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
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
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  listener.Shutdown();
  accepting.join();
  EXPECT_EQ(0, faults);
}

}  // namespace
}  // namespace tmsc
