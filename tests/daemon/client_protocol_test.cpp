#include "daemon_client.h"

namespace tmsc::test {
namespace {

constexpr int kIntMax = std::numeric_limits<int>::max();
constexpr int kIntMin = std::numeric_limits<int>::min();

TEST(ClientProtocol, OneReadOfRightSizeDecides) {
  const struct {
    int type;
    std::size_t size;
    bool is_ended;
    int status;  // -1: refused
    std::string log;
  } rows[] = {
      {2, 0, true, -1, ""},
      {2, 63, false, -1, ""},
      {1, 64, false, 4, "read len err[-1] Correctly[4221]"},
      {1, 64 + 4220, true, 4, "read len err[4220] Correctly[4221]"},
      {1, 64 + 4902, false, 8, ""},
      {2, 64, true, 4, "read len err[0] Correctly[4902]"},
      {2, 64 + 4901, false, 4, "read len err[4901] Correctly[4902]"},
      {2, 64 + 9000, false, 0, ""},
  };
  const DaemonProcess daemon;
  for (const auto& row : rows) {
    SCOPED_TRACE("type " + std::to_string(row.type) + " size " + std::to_string(row.size));
    std::vector<byte> bytes(sizeof(DataHeader) + 9000);
    TcpIpRequest request = MakeTcpIpRequest(3);
    request.header.type = row.type;
    // Both payloads begin with the channel.
    std::memcpy(bytes.data(), &request, sizeof(DataHeader) + sizeof(request.payload.channel));
    const Stopwatch watch;
    RawClient client(daemon.SocketPath());
    client.Send(bytes.data(), row.size);
    if (row.is_ended) {
      client.EndInput();
    }
    const Reply reply = client.Read(5000);
    // Only a payload of which nothing has come is waited for, one second.
    const int least_ms = row.size == 64 && !row.is_ended ? 900 : 0;
    EXPECT_GE(watch.Ms(), least_ms);
    EXPECT_LT(watch.Ms(), least_ms + 900);
    if (row.status == -1) {
      ExpectRefused(reply);
    } else {
      ExpectResponse(reply.Response(), row.type, row.status);
    }
    EXPECT_TRUE(daemon.WaitForConsole(row.log));
    ExpectServes(daemon);
  }
}

TEST(ClientProtocol, UnknownChannelsAndTypesAreClosedWithoutAnswer) {
  const DaemonProcess daemon;
  const std::pair<int, int> rows[] = {{2, 0}, {2, 4}, {2, kIntMax}, {2, kIntMin},
                                      {0, 2}, {3, 2}, {kIntMax, 2}, {kIntMin, 2}};
  for (const auto& [type, channel] : rows) {
    SCOPED_TRACE(std::to_string(type) + " " + std::to_string(channel));
    std::vector<byte> much(10000);  // input left unread would reset the connection
    TcpIpRequest request = MakeTcpIpRequest(channel);
    request.header.type = type;
    std::memcpy(much.data(), &request, sizeof(request));
    RawClient client(daemon.SocketPath());
    client.Send(much.data(), much.size());
    ExpectRefused(client.Read(5000));
    EXPECT_TRUE(daemon.WaitForConsole(
        type == 2 ? "Exec read err... ch[" + std::to_string(channel) + "]" : "unknown dat..."));
    ExpectServes(daemon);
  }
}

TEST(ClientProtocol, BusyChannelIsAnsweredAtOnce) {
  const DaemonProcess daemon;
  const Devices slow(1, {simulator::FaultKind::kDelay, 2000});
  RawClient first(daemon.SocketPath(), slow.Request(2, 10000));
  ASSERT_TRUE(WaitFor(5000, [&] { return slow.RequestsReceived(1) == 1; }));
  for (const int type : {1, 2, kIntMax}) {
    TcpIpRequest request = MakeTcpIpRequest(2);
    request.header.type = type;
    const Reply reply = RawClient(daemon.SocketPath(), request).Read(5000);
    ExpectResponse(reply.Response(), type, kDeviceCommunicationChannelBusyError);
    EXPECT_EQ(reply.end, StreamEnd::kEnd);
  }
  EXPECT_EQ(first.Read(0).end, StreamEnd::kNone);
  ExpectAnswered(first.Read(5000).Response(), 1);
}

}  // namespace
}  // namespace tmsc::test
