#include "socket_manager/tcp_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "support/log_fixture.h"
#include "support/tcp_listener.h"

namespace tmsc {
namespace {

using test::Listener;

TEST(TcpSocketTest, RefusedConnectLeavesTheDescriptorToTheCaller) {
  int port = 0;
  { port = Listener().Port(); }
  TCPSocket socket("127.0.0.1", port);
  socket.Close();
  socket.SetReadWriteTimeout(100, 100);  // no effect before the connect
  const int result = socket.Connect(1000);
  EXPECT_TRUE(result == ECONNREFUSED || result == TCPSocket::kConnectFailed) << result;
  EXPECT_TRUE(socket.IsSocketCreated());
  EXPECT_GE(socket.GetDescriptor(), 0);
  EXPECT_FALSE(socket.IsReusable());
  socket.Close();
  socket.Close();
  EXPECT_EQ(-1, socket.GetDescriptor());
  EXPECT_FALSE(socket.IsSocketCreated());
  EXPECT_EQ(TCPSocket::kConnectFailed, TCPSocket("255.255.255.255", 502).Connect(1000));
}

TEST(TcpSocketTest, ConnectTimeoutClosesTheSocket) {
  const Listener listener(0);
  // Connections that nobody accepts fill the queue; the kernel then lets further ones wait.
  std::vector<std::unique_ptr<TCPSocket>> filling;
  int result = 0;
  test::Stopwatch start;
  for (int i = 0; i < 10 && result == 0; ++i) {
    filling.push_back(std::make_unique<TCPSocket>("127.0.0.1", listener.Port()));
    start = test::Stopwatch();
    result = filling.back()->Connect(200);
  }
  EXPECT_EQ(TCPSocket::kConnectTimeout, result);
  EXPECT_GE(start.Ms(), 200);
  EXPECT_LT(start.Ms(), 900);
  EXPECT_FALSE(filling.back()->IsSocketCreated());
  EXPECT_EQ(-1, filling.back()->GetDescriptor());
}

TEST(TcpSocketTest, ExchangeAndTimeouts) {
  const Listener listener;
  TCPSocket socket("127.0.0.1", listener.Port());
  ASSERT_EQ(0, socket.Connect(1000));
  const int descriptor = socket.GetDescriptor();
  EXPECT_EQ(0, socket.Connect(1000)) << "taken as connected";
  EXPECT_EQ(descriptor, socket.GetDescriptor());
  EXPECT_NE(0, ::fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(0, ::fcntl(descriptor, F_GETFL) & O_NONBLOCK);
  Descriptor peer = listener.Accept();
  EXPECT_TRUE(socket.IsReusable());

  EXPECT_EQ(3, socket.SendBytes("abc", 3));
  char buffer[8] = {};
  EXPECT_EQ(3, ::recv(peer.Get(), buffer, sizeof(buffer), 0));
  ASSERT_EQ(2, ::send(peer.Get(), "de", 2, 0));
  EXPECT_TRUE(test::WaitFor(5000, [&] { return !socket.IsReusable(); })) << "bytes are left over";
  EXPECT_EQ(2, socket.ReceiveBytes(buffer, sizeof(buffer)));

  for (const int option : {SO_KEEPALIVE, SO_TYPE}) {
    int value = 0;
    socklen_t length = sizeof(value);
    ::getsockopt(descriptor, SOL_SOCKET, option, &value, &length);
    EXPECT_EQ(1, value) << "SOCK_STREAM, kept alive";
  }
  socket.SetReadWriteTimeout(1150, 2300);
  timeval send_timeout{};
  socklen_t length = sizeof(send_timeout);
  ::getsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, &length);
  EXPECT_EQ(2, send_timeout.tv_sec);
  const test::Stopwatch start;
  EXPECT_EQ(-1, socket.ReceiveBytes(buffer, sizeof(buffer)));
  EXPECT_GE(start.Ms(), 1140);
  EXPECT_LT(start.Ms(), 2500);

  peer.Reset();
  EXPECT_TRUE(test::WaitFor(5000, [&] { return !socket.IsReusable(); }));
  EXPECT_EQ(0, socket.ReceiveBytes(buffer, sizeof(buffer)));
  EXPECT_TRUE(test::WaitFor(5000, [&] { return socket.SendBytes("abc", 3) == -1; }))
      << "a failure, no signal";
  socket.Close();
  EXPECT_EQ(-1, socket.SendBytes("abc", 3));
  EXPECT_EQ(0, socket.Connect(0)) << "a closed socket connects again";
}

}  // namespace
}  // namespace tmsc
