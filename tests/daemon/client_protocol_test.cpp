#include <gtest/gtest.h>

#include <limits>
#include <random>
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
  for (std::size_t size = 0; size < sizeof(DataHeader); ++size) {
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
      {1, 4000, false, 4, 0}, {1, 4000, true, 4, 0},  {1, 4220, true, 4, 0},
      {1, 1, false, 4, 0},    {1, 0, true, 4, 0},     {1, 0, false, 4, 900},
      {2, 4901, false, 4, 0}, {2, 4901, true, 4, 0},  {2, 0, true, 4, 0},
      {2, 0, false, 4, 900},  {2, 4221, false, 4, 0}, {1, 4221, false, 8, 0},
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
    RawClient client(daemon.SocketPath(), MakeTcpIpRequest(channel));
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

TEST(ClientProtocol, ChannelsWorkSideBySide) {
  const DaemonProcess daemon;
  Devices slow[] = {Devices(3, {simulator::FaultKind::kDelay, 800}),
                    Devices(3, {simulator::FaultKind::kDelay, 800}),
                    Devices(3, {simulator::FaultKind::kDelay, 800})};
  const Stopwatch watch;
  std::vector<RawClient> clients;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    clients.emplace_back(daemon.SocketPath(), slow[channel - 1].Request(channel, 5000));
  }
  for (RawClient& client : clients) {
    ExpectAnswered(client.Read(5000).Response(), 3);
  }
  EXPECT_GE(watch.Ms(), 800);
  EXPECT_LT(watch.Ms(), 820 + kSlackMs) << "one after the other takes 2400 ms";
}

TEST(ClientProtocol, NextRequestOfAClientIsNeverBusy) {
  const DaemonProcess daemon(Settings{{"LogLevel", "3"}});
  std::vector<std::thread> threads;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    threads.emplace_back([&daemon, channel] {
      for (int i = 0; i < 300; ++i) {
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

TEST(ClientProtocol, RandomRequestsDoNoHarm) {
  const DaemonProcess daemon(Settings{{"LogLevel", "3"}});
  std::mt19937 random(20220725);
  const auto any = [&](int count) { return static_cast<int>(random() % unsigned(count)); };
  const int channels[] = {1, 2, 3, 1, 2, 3, 0, -1, kIntMax, 4};
  const int types[] = {1, 2, 3, 2, kIntMin, 0};
  for (int i = 0; i < 400; ++i) {
    SCOPED_TRACE(i);
    std::vector<byte> bytes(i % 4 == 0 ? std::size_t(any(6000)) : sizeof(TcpIpRequest));
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<byte>(any(256)); });
    DataHeader header{};
    std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof(header)));
    header.channel_index = i % 8 == 1 ? header.channel_index : channels[any(10)];
    header.type = i % 8 == 2 ? header.type : types[any(6)];
    std::memcpy(bytes.data(), &header, std::min(bytes.size(), sizeof(header)));
    RawClient client(daemon.SocketPath());
    client.Send(bytes.data(), bytes.size());
    client.EndInput();
    const Reply reply = client.Read(15000);
    EXPECT_NE(reply.end, StreamEnd::kNone);
    if (reply.bytes.empty()) {
      continue;
    }
    ASSERT_TRUE(reply.IsResponse()) << reply.bytes.size();
    EXPECT_EQ(reply.Response().header.type, header.type);
  }
  ExpectChannelsFree(daemon);
}

struct FieldCase {
  const char* name;
  void (*change)(TcpIpRequest& request);
  int device_status;
  bool is_answered;
};

NetworkParams& Place(TcpIpRequest& request) {
  return request.payload.port_params[0];
}
SendData& Frame(TcpIpRequest& request) {
  return request.payload.send_data[0];
}

const FieldCase kFieldCases[] = {
    {"place address 255", [](auto& r) { Place(r).address = 255; }, 0, true},
    {"place address 0", [](auto& r) { Place(r).address = 0; }, 0, false},
    {"frame address 0", [](auto& r) { Frame(r).address = 0; }, 0, false},
    {"frame length 0", [](auto& r) { Frame(r).send_data[0] = 0; }, 0, false},
    {"frame length 127", [](auto& r) { Frame(r).send_data[0] = 127; }, 16, false},
    {"frame length 65535", [](auto& r) { Frame(r).send_data[0] = Frame(r).send_data[1] = 255; }, 16,
     false},
    {"ip without end", [](auto& r) { std::memset(Place(r).ip_address, '1', 18); }, 4, false},
    {"ip empty", [](auto& r) { Place(r).ip_address[0] = 0; }, 4, false},
    {"ip no number", [](auto& r) { std::strcpy(Place(r).ip_address, "localhost"); }, 4, false},
    {"ip too large", [](auto& r) { std::strcpy(Place(r).ip_address, "256.0.0.1"); }, 4, false},
    {"port 0", [](auto& r) { Place(r).port = 0; }, 4, false},
    {"port negative", [](auto& r) { Place(r).port = -1; }, 4, false},
    {"port 65536 more", [](auto& r) { Place(r).port += 65536; }, 4, false},
    {"port highest", [](auto& r) { Place(r).port = kIntMax; }, 4, false},
    {"port lowest", [](auto& r) { Place(r).port = kIntMin; }, 4, false},
    {"unit lowest", [](auto& r) { Place(r).unit_id = kIntMin; }, 0, true},
    {"time-out 0", [](auto& r) { Place(r).timeout = 0; }, 0, true},
    {"time-out lowest", [](auto& r) { Place(r).timeout = -32768; }, 0, true},
    {"time-out highest", [](auto& r) { Place(r).timeout = 32767; }, 0, true},
    {"header's own fields",
     [](auto& r) {
       r.header.data_length = kIntMin;
       std::memset(r.header.identifier, 255, 4);
       r.header.priority = 255;
       std::memset(r.header.buffer, 255, 47);
     },
     0, true},
    {"payload's channel", [](auto& r) { r.payload.channel = kIntMin; }, 0, true},
};

TEST(ClientProtocol, FieldsAtTheirExtremes) {
  const DaemonProcess daemon;
  const Devices device;
  for (const FieldCase& row : kFieldCases) {
    SCOPED_TRACE(row.name);
    TcpIpRequest request = device.Request(1, 1000);
    row.change(request);
    const Stopwatch watch;
    const ResponseReceiveData response = Exchange(daemon, request);
    EXPECT_LT(watch.Ms(), kSlackMs);
    ExpectResponse(response, 2, 0, {1});
    const auto answer = DeviceAnswer(response, 1);
    EXPECT_EQ(answer->status, row.device_status);
    EXPECT_EQ(answer->frame, row.is_answered ? AnswerFrame(1) : std::vector<byte>{});
  }
  for (const int address : {32, 255}) {
    TcpIpRequest request = device.Request(1);
    Place(request).address = Frame(request).address = static_cast<byte>(address);
    ExpectResponse(Exchange(daemon, request), 2, 0);
  }
  Rs485Request serial = MakeRs485Request(1, 255);
  std::memset(&serial.payload, 255, sizeof(serial.payload));
  serial.payload.channel = 1;
  ExpectResponse(Exchange(daemon, serial), 1, kDeviceCommunicationStatusOpenFailed);
}

}  // namespace
}  // namespace tmsc::test
