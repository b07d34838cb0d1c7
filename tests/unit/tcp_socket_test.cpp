#include "socket_manager/tcp_socket.h"

#include <gtest/gtest.h>

#include <deque>

#include "support/tcp_listener.h"
#include "support/wait.h"

namespace tmsc {
namespace {

TEST(TcpSocketTest, RefusedConnectLeavesTheDescriptorToTheCaller) {
  TCPSocket socket("127.0.0.1", test::Listener().Port());
  const int result = socket.Connect(1000);
  EXPECT_TRUE(result == ECONNREFUSED || result == TCPSocket::kConnectFailed) << result;
  EXPECT_GE(socket.GetDescriptor(), 0);
  EXPECT_FALSE(socket.IsReusable());
  EXPECT_EQ(TCPSocket::kConnectFailed, TCPSocket("255.255.255.255", 502).Connect(1000));
}

TEST(TcpSocketTest, ConnectTimeoutClosesTheSocket) {
  const test::Listener listener(0);
  // Connections that nobody accepts fill the queue; the kernel then lets further ones wait.
  std::deque<TCPSocket> filling;
  int result = 0;
  int duration_ms = 0;
  while (result == 0 && filling.size() < 10) {
    const test::Stopwatch watch;
    result = filling.emplace_back("127.0.0.1", listener.Port()).Connect(500);
    duration_ms = watch.Ms();
  }
  EXPECT_EQ(TCPSocket::kConnectTimeout, result);
  EXPECT_GE(duration_ms, 500);
  EXPECT_LT(duration_ms, 500 + test::kSlackMs);
  EXPECT_FALSE(filling.back().IsSocketCreated());
}

TEST(TcpSocketTest, ExchangeAndTimeouts) {
  const test::Listener listener;
  TCPSocket socket("127.0.0.1", listener.Port());
  ASSERT_EQ(0, socket.Connect(1000));
  Descriptor peer = listener.Accept();
  EXPECT_TRUE(socket.IsReusable());

  EXPECT_EQ(3, socket.SendBytes("abc", 3));
  char buffer[8] = {};
  EXPECT_EQ(3, ::recv(peer.Get(), buffer, sizeof(buffer), 0));
  ASSERT_EQ(2, ::send(peer.Get(), "de", 2, 0));
  EXPECT_TRUE(test::WaitFor(5000, [&] { return !socket.IsReusable(); })) << "bytes are left over";
  EXPECT_EQ(2, socket.ReceiveBytes(buffer, sizeof(buffer)));

  const auto option = [&](int level, int name) {
    int value[4] = {};  // room for a time, whose first part are its seconds
    socklen_t length = sizeof(value);
    EXPECT_EQ(0, ::getsockopt(socket.GetDescriptor(), level, name, &value, &length));
    return value[0];
  };
  EXPECT_EQ(1, option(SOL_SOCKET, SO_KEEPALIVE));
  socket.SetReadWriteTimeout(1150, 2300);
  EXPECT_EQ(2, option(SOL_SOCKET, SO_SNDTIMEO));
  const test::Stopwatch watch;
  EXPECT_EQ(-1, socket.ReceiveBytes(buffer, sizeof(buffer)));
  EXPECT_GE(watch.Ms(), 1140);
  EXPECT_LT(watch.Ms(), 1150 + test::kSlackMs);

  peer.Reset();
  EXPECT_TRUE(test::WaitFor(5000, [&] { return !socket.IsReusable(); }));
  EXPECT_TRUE(test::WaitFor(5000, [&] { return socket.SendBytes("abc", 3) == -1; }))
      << "a failure, no signal";
  socket.Close();
  EXPECT_EQ(0, socket.Connect(0)) << "a closed socket connects again";
}

}  // namespace
}  // namespace tmsc
