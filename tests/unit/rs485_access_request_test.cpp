#include "access_worker_request/rs485_access_request.h"

#include <Poco/AutoPtr.h>

#include <optional>

#include "health/health_keeper.h"
#include "health_reader.h"
#include "support/log_fixture.h"
#include "vlm_rs485.h"

namespace {

/// Stands in for the serial library in this program: writes down each call and fails as told.
struct ScriptedLibrary {
  std::mutex mutex;
  std::string calls;  // guarded by mutex
  std::atomic<int> cycles{0};
  std::mutex gates[MAX_CHANNEL + 1];  // held: the channel's cycle does not end
  std::string failing;                // name of the call that fails
  int failures_left = 0;              // so many times
  int error = 0;                      // errno that it leaves then
  bool is_answer_missing = false;     // getReceiveStream gives null
  std::vector<unsigned char> bytes = std::vector<unsigned char>(439, 0xa5);  // of every answer
  receive_data answers[RS485_MAX_MC_NUM] = {};
  receive_data_full stream = {};
  std::atomic<void (*)()> listener{nullptr};

  /// Notes the call; false when it is to fail.
  template <typename... Numbers>
  bool Call(const std::string& name, Numbers... numbers) {
    const std::lock_guard<std::mutex> lock(mutex);
    calls += name;
    ((calls += " " + std::to_string(numbers)), ...);
    calls += "; ";
    const bool is_good = name != failing || failures_left-- <= 0;
    errno = is_good ? EACCES : error != 0 ? error : errno;  // as calls do that are good
    return is_good;
  }
  std::string TakeCalls() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(calls, "");
  }
};

std::optional<ScriptedLibrary> library;  // each test's own

}  // namespace

int vlm_rs485_open(int channel, bool sniffer, unsigned char baud_rate) {
  return library->Call("open", channel, sniffer, baud_rate) ? 0 : 1;
}
int vlm_rs485_close(int channel) {
  return library->Call("close", channel) ? 0 : 1;
}
int vlm_rs485_setPortParams(int channel, unsigned char address, unsigned char databits,
                            short timeout, unsigned char delimitertype,
                            unsigned char byte_after_delimiter, unsigned char com_wait_time) {
  library->Call("params", channel, address, databits, timeout, delimitertype, byte_after_delimiter,
                com_wait_time);
  return 0;
}
int vlm_rs485_addEventListener(int channel, void (*listener)()) {
  library->listener = listener;
  return library->Call("listen", channel) ? 0 : 1;
}
int vlm_rs485_removeEventListener(int channel) {
  return library->Call("unlisten", channel) ? 0 : 1;
}
unsigned char vlm_rs485_putOutputStream(int channel, unsigned char address, xfer_data* data) {
  return library->Call("put", channel, address, data->xfr_da_len, data->xfr_da[0]) ? 2 : 0;
}
unsigned char vlm_rs485_setComFlags(int channel, unsigned int flags) {
  return library->Call("flags", channel, flags) ? 2 : 0;
}
unsigned char vlm_rs485_startCom(int channel) {
  const bool is_good = library->Call("start", channel);
  ++library->cycles;
  const std::lock_guard<std::mutex> lock(library->gates[channel]);
  library->listener.load()();
  errno = is_good || library->error == 0 ? errno : library->error;
  return is_good ? 2 : 0;
}
receive_data_full* vlm_rs485_getReceiveStream(int channel, int reserved) {
  library->Call("stream", channel, reserved);
  return library->is_answer_missing ? nullptr : &library->stream;
}

namespace tmsc {
namespace {

using Cache = Rs485AccessRequestLibcache;

class RS485AccessRequestTest : public test::LogFixture {
 protected:
  RS485AccessRequestTest() {
    library.emplace();
    StartLog({{"ApiRetryCount", "2"},
              {"ApiRetryInterval", "10"},
              {"Rs485StartWait", "20"},
              {"LogLevel", "0"},
              {"TamselComStartComFailedCloseCount", "2"}});
    Cache::Create();
    AddDevice(0, 12, {3, 0, 0x11, 0x22, 0x33});
  }
  ~RS485AccessRequestTest() override { Cache::Destroy(); }

  /// `data`: the frame with its length in front.
  void AddDevice(int entry, byte address, const std::vector<byte>& data) {
    payload_.port_params[entry] = {address, 1, -2, 3, 4, 5};
    payload_.send_data[entry].address = address;
    std::copy(data.begin(), data.end(), payload_.send_data[entry].send_data);
  }
  static void Answer(int address, std::uint16_t length, byte status = 0) {
    receive_data& answer = library->answers[address - 1];
    answer = {length, status, library->bytes.data()};
    library->stream.rcv_dt[address - 1] = &answer;
  }
  ResponseReceiveData Execute(int channel = 2) {
    DeviceAccessRS485 payload = payload_;
    payload.channel = channel;
    std::promise<std::shared_ptr<CommunicationResult>> promise;
    DataHeader header{};
    Poco::AutoPtr<Request>(new RS485AccessRequest(&header, &payload, &promise))->Execute();
    return *promise.get_future().get()->ReceiveData();
  }
  int Status(int channel = 2) { return Execute(channel).receive_data.status; }
  std::future<int> StatusLater(int channel = 2) {
    return std::async(std::launch::async, [this, channel] { return Status(channel); });
  }
  void ExpectLogged(const std::vector<std::string>& texts) {
    const std::string log = StopLog();
    for (const std::string& text : texts) {
      EXPECT_TRUE(test::Contains(log, text)) << text;
    }
  }
  DeviceAccessRS485 payload_{0, 7, {}, {}};
};

TEST_F(RS485AccessRequestTest, TheLibraryIsCalledInOrderAndThePortStaysOpen) {
  EXPECT_EQ(Status(), 0);
  const std::string cycle =
      "params 2 12 1 -2 3 4 5; listen 2; put 2 12 3 17; flags 2 2048; start 2; unlisten 2; "
      "stream 2 0; ";
  EXPECT_EQ(library->TakeCalls(), "open 2 0 7; " + cycle);
  EXPECT_EQ(Status(), 0);
  EXPECT_EQ(library->TakeCalls(), cycle) << "neither close nor open with the same baud rate";
  payload_.baud_rate = 6;
  EXPECT_EQ(Status(), 0);
  EXPECT_EQ(library->TakeCalls(), "close 2; open 2 0 6; " + cycle);
  ExpectLogged(
      {"D] 485ARq vlm_485_op[0] <C2>, false, [7]\n", "D] 485ARq vlm_485_cls C<2> for Reopen\n",
       "V] 485ARq vlm_485_putOStm start <C2:12> [17]\n", "V] 485ARq vlm_485_putOStm [1] <C2:12>\n",
       "D] 485ARq vlm_485_putOStm [112233]\n", "D] 485ARq vlm_485_setCFlg [1] <C2> [2048]\n",
       "D] 485ARq vlm_485_stCom [1]\n", "V] 485ARq vlm_485_rmListn <C2>\n",
       "D] 485ARq Rs485ListenerProc\n", "D] 485ARq vlm_485_setPtParam <C2:12>[1][-2][3][4][5]\n"});
}

TEST_F(RS485AccessRequestTest, EachStepIsTriedAgainAndEndsWithItsStatus) {
  // Two retries: three attempts, with a pause after each that failed.
  using Row = std::tuple<const char*, int, int, bool>;
  for (const auto& [failing, failures, status, is_closed] :
       {Row{"open", 99, 8, true}, Row{"open", 2, 0, false}, Row{"put", 2, 0, false},
        Row{"put", 99, 7, true}, Row{"flags", 2, 0, false}, Row{"flags", 99, 6, true},
        Row{"start", 2, 0, false}, Row{"start", 99, 5, false}, Row{"start", 99, 5, true},
        Row{"start", 99, 5, false}, Row{"start", 0, 0, false}, Row{"start", 99, 5, false},
        Row{"start", 99, 5, true}}) {
    library->failing = failing;
    library->failures_left = failures;
    const test::Stopwatch watch;
    EXPECT_EQ(Status(), status) << failing;
    EXPECT_GE(watch.Ms(), 20 + 10 * std::min(failures, 3));
    const std::string calls = library->TakeCalls();
    EXPECT_EQ(test::CountText(calls, failing), std::min(failures, 2) + 1) << calls;
    EXPECT_EQ(test::CountText(calls, "close"), is_closed ? 1 : 0) << calls;
    EXPECT_EQ(Cache::GetInstance()->CheckVlmOpen(2, false, 7),
              is_closed ? Cache::kStatusClosed : Cache::kStatusOpened);
  }
}

TEST_F(RS485AccessRequestTest, HealthSaysWhatTheLibraryLeavesOfAPort) {
  Singleton<HealthKeeper>::Create(folder_.Path("health"));
  const auto cause = [&](const std::string& failing, int error) {
    library->failing = failing;
    library->failures_left = 99;
    library->error = error;
    errno = EACCES;
    Status();
    HealthKeeper::GetInstance()->Inspect();
    const tamsel_health_device device = ReadHealth(folder_.Path("health")).snapshot->devices.at(0);
    return HealthCauseText(device.last_cause, device.last_detail);
  };
  const std::string not_opened = "serial port cannot be opened";
  const std::string not_run = "serial library did not run the cycle (request status ";
  const std::tuple<const char*, int, std::string> rows[] = {
      {"open", 0, not_opened},  // a board's own library leaves no error
      {"open", ENOENT, not_opened + ": No such file or directory"},
      {"open", EACCES, not_opened + ": Permission denied"},
      {"start", 0, not_run + "5)"},
      {"start", EBADF, not_run + "5)"},  // the second in a row closes the port
      {"open", EACCES, not_opened + ": Permission denied"},
      {"open", ENOENT, "serial port gone"},  // it has been there
      {"start", EIO, "serial port gone"},
      {"start", EBUSY, not_opened + ": Device or resource busy"},
      {"open", ENXIO, "serial port gone"},
      {"flags", ENOENT, not_run + "6)"},
      {"put", ENOENT, not_run + "7)"}};
  for (const auto& [failing, error, text] : rows) {
    EXPECT_EQ(cause(failing, error), text) << failing << " " << error;
  }
  Singleton<HealthKeeper>::Destroy();
}

TEST_F(RS485AccessRequestTest, AnswersAreJudgedOneByOne) {
  AddDevice(1, 3, {2, 0, 0x00, 0x01});  // broadcast
  AddDevice(2, 4, {1, 0, 0x04});        // too long an answer
  AddDevice(3, 5, {1, 0, 0x05});        // the library has nothing
  AddDevice(4, 32, {1, 0, 0x20});       // no such address
  AddDevice(5, 6, {1, 0, 0x06});
  AddDevice(6, 6, {2, 0, 0x00, 0x01});  // again, now as a broadcast
  Answer(12, 438, 9);
  Answer(3, 2, 2);
  Answer(4, 439, 1);
  Answer(6, 2);
  AddDevice(7, 7, {1, 0, 0x07});
  Answer(7, 0, VLM_RS485_LINE_ERROR);
  AddDevice(8, 8, {1, 0, 0x08});
  Answer(8, 0);
  Singleton<HealthKeeper>::Create(folder_.Path("health"));
  const ResponseReceiveData response = Execute();
  EXPECT_EQ(response.header.type, kRequestDataTypeRS485);
  for (int address = 1; address <= kMaxDeviceCountAtChannel; ++address) {
    const DeviceReceiveData& slot = response.receive_data.receive_data[address - 1];
    EXPECT_EQ(int{slot.length}, address == 12 ? 438 : 0) << address;
    EXPECT_EQ(slot.status, address == 12 ? 9 : address == 3 || address == 7 ? 2 : 0) << address;
  }
  HealthKeeper::GetInstance()->Inspect();
  const HealthReading reading = ReadHealth(folder_.Path("health"));
  std::string health;
  for (const tamsel_health_device& device : reading.snapshot->devices) {
    health += std::to_string(device.address) + " " +
              HealthCauseText(device.last_cause, device.last_detail) + "; ";
  }
  EXPECT_EQ(health,
            "3 line error (status 2); 4 frame too long (439 bytes); 5 no answer in time; "
            "6 answered; 7 line error (status 2); 8 no answer in time; 12 status of the serial "
            "library 9; ");
  Singleton<HealthKeeper>::Destroy();
  EXPECT_EQ(response.receive_data.receive_data[11].data[437], 0xa5);
  EXPECT_EQ(response.receive_data.receive_data[2].data[0], 0);
  const std::string calls = library->TakeCalls();
  EXPECT_TRUE(test::Contains(calls, "flags 2 2300;")) << calls;
  EXPECT_FALSE(test::Contains(calls, " 32 ")) << calls;
  library->is_answer_missing = true;
  EXPECT_EQ(Status(), -1);
  ExpectLogged({"D] 485ARq Rcv dat <C2:12> len:[438] status:[9]\n",
                "W] 485ARq Rcv dat size too large. <C2:04> len:[439] status:[1]",
                "Rcv dat [-]: Rcv dat size is 0 for bc comm.",
                "vlm_485_putOStm - snd dat to bc addr <C2:03>", "W] 485ARq Dev addr err. <C2:32>",
                "vlm_485_getRcvStm return NULL"});
}

TEST_F(RS485AccessRequestTest, WhatCannotBeRightTouchesNoPort) {
  for (const int channel : {0, 4, -1}) {
    EXPECT_EQ(Status(channel), 9);
    EXPECT_EQ(Cache::GetInstance()->CheckVlmOpen(channel, false, 7), Cache::kStatusError);
    Cache::GetInstance()->SetVlmStartComFailed(channel);
  }
  EXPECT_EQ(library->TakeCalls(), "");
  payload_.send_data[0].send_data[0] = 127;
  EXPECT_EQ(Status(), 7);
  Cache::Destroy();  // finds no open port
  EXPECT_EQ(library->TakeCalls(), "open 2 0 7; params 2 12 1 -2 3 4 5; listen 2; close 2; ");
  ExpectLogged({"[W] 485ARq Ch err. ch[4]\n", "485ARqLib SetVlmStartComFailed ch error:4\n"});
}

// A cycle that takes too long: its request finds a cache that calls no library any more.
TEST_F(RS485AccessRequestTest, TheEndDoesNotWaitForever) {
  std::future<int> status;
  std::unique_lock<std::mutex> hold(library->gates[2]);
  status = StatusLater();
  ASSERT_TRUE(test::WaitFor(5000, [] { return library->cycles > 0; }));
  std::future<void> end = std::async(std::launch::async, Cache::Destroy);
  ASSERT_EQ(end.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(test::CountText(library->TakeCalls(), "close 2"), 1);
  hold.unlock();
  EXPECT_EQ(status.get(), -1);
  EXPECT_EQ(library->TakeCalls(), "") << "the library is left alone";
}

// Two clients may name one channel in their payloads while their headers name two.
TEST_F(RS485AccessRequestTest, OnePortServesOneRequestAtATime) {
  std::future<int> first, second, other;
  std::unique_lock<std::mutex> hold(library->gates[2]);
  std::unique_lock<std::mutex> hold_other(library->gates[3]);
  first = StatusLater();
  other = StatusLater(3);
  ASSERT_TRUE(test::WaitFor(5000, [] { return library->cycles == 2; }));
  library->TakeCalls();
  second = StatusLater();
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  std::future<void> end = std::async(std::launch::async, Cache::Destroy);
  ASSERT_TRUE(test::WaitFor(5000, [] { return Cache::GetInstance() == nullptr; }));
  EXPECT_EQ(end.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  hold.unlock();
  EXPECT_EQ(first.get(), 0);
  EXPECT_EQ(second.get(), 8) << "it has not touched its port when the daemon ends";
  hold_other.unlock();
  EXPECT_EQ(other.get(), 0);
  EXPECT_EQ(end.wait_for(std::chrono::seconds(1)), std::future_status::ready);
  EXPECT_EQ(library->TakeCalls(),
            "unlisten 2; stream 2 0; unlisten 3; stream 3 0; close 2; close 3; ");
  EXPECT_EQ(Status(), 8);
}

}  // namespace
}  // namespace tmsc
