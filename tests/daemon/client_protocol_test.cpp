#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

constexpr int kIntMax = std::numeric_limits<int>::max();
constexpr int kIntMin = std::numeric_limits<int>::min();

void ExpectChannelsFree(const DaemonProcess& daemon) {
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    // The end of a refused connection is seen just before its channel is free.
    EXPECT_TRUE(WaitFor(2000, [&] {
      return Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status == 0;
    })) << channel;
  }
}

TEST(ClientProtocol, HeaderOfWrongSizeIsRefused) {
  const DaemonProcess daemon;
  const TcpIpRequest request = MakeTcpIpRequest(1);
  for (const std::size_t size : {0, 1, 63}) {
    SCOPED_TRACE(size);
    const Stopwatch watch;
    RawClient client(daemon.SocketPath());
    if (size > 0) {
      client.Send(&request, size);
    }
    client.EndInput();
    ExpectRefused(client.Read(5000));
    EXPECT_LT(watch.Ms(), kSlackMs);
  }
  const Stopwatch watch;
  RawClient waiting(daemon.SocketPath(), request, 63);
  ExpectRefused(waiting.Read(5000));
  EXPECT_LT(watch.Ms(), kSlackMs) << "one read decides, also when the client waits";
  ExpectChannelsFree(daemon);
}

TEST(ClientProtocol, PayloadOfWrongSizeIsAReadError) {
  struct Case {
    int type;
    std::size_t size;
    bool is_ended;
    int status;
    int least_ms;
  };
  const Case cases[] = {
      {1, 4000, false, 4, 0}, {1, 4220, true, 4, 0},  {1, 0, false, 4, 900},
      {2, 4901, false, 4, 0}, {2, 0, true, 4, 0},     {1, 4221, false, 8, 0},
      {1, 4902, false, 8, 0}, {2, 4902, false, 0, 0}, {2, 9000, false, 0, 0},
  };
  const DaemonProcess daemon;
  for (const Case& row : cases) {
    SCOPED_TRACE("type " + std::to_string(row.type) + " size " + std::to_string(row.size));
    std::vector<byte> bytes(sizeof(DataHeader) + row.size);
    TcpIpRequest request = MakeTcpIpRequest(3);
    request.header.type = row.type;
    // Both payloads begin with the channel.
    std::memcpy(bytes.data(), &request,
                std::min(bytes.size(), sizeof(DataHeader) + sizeof(request.payload.channel)));
    const Stopwatch watch;
    RawClient client(daemon.SocketPath());
    client.Send(bytes.data(), bytes.size());
    if (row.is_ended) {
      client.EndInput();
    }
    ExpectResponse(client.Read(5000), row.type, row.status);
    EXPECT_GE(watch.Ms(), row.least_ms);
    EXPECT_LT(watch.Ms(), row.least_ms + kSlackMs);
  }
  const std::string console = daemon.Console();
  for (const char* const line :
       {"read len err[4000] Correctly[4221]", "read len err[4901] Correctly[4902]",
        "read len err[0] Correctly[4902]", "read len err[-1] Correctly[4221]"}) {
    EXPECT_NE(console.find(line), std::string::npos) << line;
  }
  ExpectChannelsFree(daemon);
}

TEST(ClientProtocol, UnknownChannelsAndTypesAreClosedWithoutAnswer) {
  const DaemonProcess daemon;
  for (const int channel : {0, 4, -1, kIntMax, kIntMin}) {
    SCOPED_TRACE(channel);
    RawClient client(daemon.SocketPath());
    std::vector<byte> much(20000);  // input left unread would reset the connection
    const TcpIpRequest request = MakeTcpIpRequest(channel);
    std::memcpy(much.data(), &request, sizeof(request));
    client.Send(much.data(), much.size());
    ExpectRefused(client.Read(5000));
    EXPECT_TRUE(daemon.WaitForConsole("Exec read err... ch[" + std::to_string(channel) + "]", 500));
  }
  for (const int type : {3, 0, -1, kIntMax, kIntMin}) {
    SCOPED_TRACE(type);
    TcpIpRequest request = MakeTcpIpRequest(2);
    request.header.type = type;
    ExpectRefused(RawClient(daemon.SocketPath(), request).Read(5000));
    ExpectChannelsFree(daemon);
  }
  EXPECT_EQ(CountText(daemon.Console(), "unknown dat..."), 5);
}

TEST(ClientProtocol, BusyChannelIsAnsweredAtOnce) {
  const DaemonProcess daemon;
  Devices slow(1, {simulator::FaultKind::kDelay, 1500});
  RawClient first(daemon.SocketPath(), slow.Request(2, 5000));
  ASSERT_TRUE(WaitFor(2000, [&] { return slow->RequestsReceived(1) == 1; }));
  for (const int type : {1, 2, 3, kIntMax}) {
    SCOPED_TRACE(type);
    TcpIpRequest request = MakeTcpIpRequest(2);
    request.header.type = type;
    const Stopwatch watch;
    const Reply reply = RawClient(daemon.SocketPath(), request).Read(5000);
    EXPECT_LT(watch.Ms(), kSlackMs / 2);
    ExpectResponse(reply, type, kDeviceCommunicationChannelBusyError);
    EXPECT_EQ(reply.end, StreamEnd::kEnd);
  }
  EXPECT_FALSE(first.IsReadable(0));
  ExpectAnswered(first.Read(5000).Response(), 1);
}

TEST(ClientProtocol, NextRequestOfAClientIsNeverBusy) {
  const DaemonProcess daemon(Settings{{"LogLevel", "3"}});
  std::vector<std::thread> threads;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    threads.emplace_back([&daemon, channel] {
      for (int i = 0; i < 100; ++i) {
        if (i % 2 == 0) {
          ASSERT_EQ(Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status, 0) << i;
        } else {
          ASSERT_EQ(Exchange(daemon, MakeRs485Request(channel, 3)).receive_data.status, 8) << i;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace tmsc::test
