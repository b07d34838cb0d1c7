#include "access_worker_request/rs485_access_request.h"

#include <Poco/AutoPtr.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "support/log_fixture.h"
#include "utility/string_util.h"
#include "vlm_rs485.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Stands in for the serial library in this program: writes down each call and fails as told.
struct ScriptedLibrary {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> calls;  // guarded by mutex, like all that follows
  std::string failing;             // name of the call that fails
  int failures_left = 0;           // so many times
  std::string blocking;            // name of the call that does not return until Release
  bool is_answer_missing = false;  // getReceiveStream gives null
  receive_data answers[RS485_MAX_MC_NUM] = {};
  receive_data_full stream = {};
  void (*listener)() = nullptr;

  /// Notes the call; false when it is to fail.
  bool Call(const std::string& name, const std::string& arguments) {
    std::unique_lock<std::mutex> lock(mutex);
    calls.push_back(name + arguments);
    changed.notify_all();
    changed.wait(lock, [&] { return blocking != name; });
    return name != failing || failures_left-- <= 0;
  }
  void Release() {
    const std::lock_guard<std::mutex> lock(mutex);
    blocking.clear();
    changed.notify_all();
  }
  bool AwaitCall(const std::string& name) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(5), [&] {
      return !calls.empty() && calls.back().compare(0, name.size(), name) == 0;
    });
  }
  void Reset() {
    calls.clear();
    failures_left = 0;
    is_answer_missing = false;
    stream = {};
  }
  std::vector<std::string> TakeCalls() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(calls, {});
  }
};

ScriptedLibrary library;

std::string Text(std::initializer_list<long long> numbers) {
  std::string text;
  for (const long long number : numbers) {
    text += " " + std::to_string(number);
  }
  return text;
}

}  // namespace

int vlm_rs485_open(int channel, bool sniffer, unsigned char baud_rate) {
  return library.Call("open", Text({channel, sniffer, baud_rate})) ? 0 : 1;
}
int vlm_rs485_close(int channel) {
  return library.Call("close", Text({channel})) ? 0 : 1;
}
int vlm_rs485_setPortParams(int channel, unsigned char address, unsigned char databits,
                            short timeout, unsigned char delimitertype,
                            unsigned char byte_after_delimiter, unsigned char com_wait_time) {
  library.Call("params", Text({channel, address, databits, timeout, delimitertype,
                               byte_after_delimiter, com_wait_time}));
  return 0;
}
int vlm_rs485_addEventListener(int channel, void (*listener)()) {
  library.listener = listener;
  return library.Call("listen", Text({channel})) ? 0 : 1;
}
int vlm_rs485_removeEventListener(int channel) {
  return library.Call("unlisten", Text({channel})) ? 0 : 1;
}
unsigned char vlm_rs485_putOutputStream(int channel, unsigned char address, xfer_data* data) {
  const std::string frame = tmsc::StringUtil::BytesToHexString(data->xfr_da, data->xfr_da_len);
  return library.Call("put", Text({channel, address}) + " " + frame) ? 2 : 0;
}
unsigned char vlm_rs485_setComFlags(int channel, unsigned int flags) {
  return library.Call("flags", Text({channel, flags})) ? 2 : 0;
}
unsigned char vlm_rs485_startCom(int channel) {
  const bool is_good = library.Call("start", Text({channel}));
  if (is_good) {
    library.listener();
  }
  return is_good ? 2 : 0;
}
receive_data_full* vlm_rs485_getReceiveStream(int channel, int reserved) {
  library.Call("stream", Text({channel, reserved}));
  return library.is_answer_missing ? nullptr : &library.stream;
}

namespace tmsc {
namespace {

using Calls = std::vector<std::string>;
using Cache = Rs485AccessRequestLibcache;

class RS485AccessRequestTest : public test::LogFixture {
 protected:
  RS485AccessRequestTest() {
    StartLog({{"ApiRetryCount", "2"},
              {"ApiRetryInterval", "10"},
              {"Rs485StartWait", "20"},
              {"LogLevel", "0"},
              {"TamselComStartComFailedCloseCount", "2"}});
    Cache::Create();
    payload_.channel = 2;
    payload_.baud_rate = 7;
    AddDevice(0, 12, {0x11, 0x22, 0x33});
  }
  ~RS485AccessRequestTest() override {
    Cache::Destroy();
    library.Reset();
  }

  void AddDevice(int entry, int address, const std::vector<byte>& frame) {
    payload_.port_params[entry] = {static_cast<byte>(address), 1, -2, 3, 4, 5};
    SendData& send = payload_.send_data[entry];
    send.address = static_cast<byte>(address);
    send.send_data[0] = static_cast<byte>(frame.size());
    std::copy(frame.begin(), frame.end(), send.send_data + 2);
  }
  void Answer(int address, std::vector<byte>& bytes, byte status = 0) {
    receive_data& answer = library.answers[address - 1];
    answer = {static_cast<std::uint16_t>(bytes.size()), status, bytes.data()};
    library.stream.rcv_dt[address - 1] = &answer;
  }
  std::shared_ptr<CommunicationResult> Execute() {
    std::promise<std::shared_ptr<CommunicationResult>> promise;
    DataHeader header{};
    Poco::AutoPtr<RS485AccessRequest> request(new RS485AccessRequest(&header, &payload_, &promise));
    request->Execute();
    return promise.get_future().get();
  }
  int Status() { return Execute()->ReceiveData()->receive_data.status; }
  DeviceAccessRS485 payload_{};
};

const Calls kSetUp = {"params 2 12 1 -2 3 4 5", "listen 2", "put 2 12 112233"};

TEST_F(RS485AccessRequestTest, TheLibraryIsCalledInOrderAndThePortStaysOpen) {
  std::vector<byte> answer(438, 0xa5);
  Answer(12, answer, 9);
  const auto result = Execute();
  const ResponseReceiveData& response = *result->ReceiveData();
  EXPECT_EQ(response.header.type, kRequestDataTypeRS485);
  EXPECT_EQ(response.receive_data.status, 0);
  const DeviceReceiveData& slot = response.receive_data.receive_data[11];
  EXPECT_EQ(int{slot.length}, 438);
  EXPECT_EQ(slot.status, 9);
  EXPECT_EQ(slot.data[437], 0xa5);
  Calls expected = {"open 2 0 7"};
  expected.insert(expected.end(), kSetUp.begin(), kSetUp.end());
  const Calls cycle = {"flags 2 2048", "start 2", "unlisten 2", "stream 2 0"};
  expected.insert(expected.end(), cycle.begin(), cycle.end());
  EXPECT_EQ(library.TakeCalls(), expected);

  EXPECT_EQ(Status(), 0);
  expected.erase(expected.begin());
  EXPECT_EQ(library.TakeCalls(), expected) << "neither close nor open with the same baud rate";
  payload_.baud_rate = 6;
  EXPECT_EQ(Status(), 0);
  expected.insert(expected.begin(), {"close 2", "open 2 0 6"});
  EXPECT_EQ(library.TakeCalls(), expected);
  const std::string log = StopLog();
  for (const char* text :
       {"D] 485ARq vlm_485_op[0] <C2>, false, [7]\n", "D] 485ARq vlm_485_cls C<2> for Reopen\n",
        "V] 485ARq vlm_485_putOStm start <C2:12> [17]\n", "V] 485ARq vlm_485_putOStm [1] <C2:12>\n",
        "D] 485ARq vlm_485_putOStm [112233]\n", "D] 485ARq vlm_485_setCFlg [1] <C2> [2048]\n",
        "D] 485ARq vlm_485_stCom [1]\n", "V] 485ARq vlm_485_rmListn <C2>\n",
        "D] 485ARq Rs485ListenerProc\n", "D] 485ARq Rcv dat <C2:12> len:[438] status:[9]\n",
        "D] 485ARq vlm_485_setPtParam <C2:12>[1][-2][3][4][5]\n"}) {
    EXPECT_NE(log.find(text), std::string::npos) << text;
  }
}

TEST_F(RS485AccessRequestTest, EachStepIsTriedAgainAndEndsWithItsStatus) {
  struct Case {
    const char* failing;
    int failures;
    int status;
    int attempts;
    bool is_closed;
  };
  // Two retries: three attempts, with a pause after each that failed.
  for (const Case& c :
       {Case{"open", 2, 0, 3, false}, Case{"open", 99, 8, 3, true}, Case{"put", 2, 0, 3, false},
        Case{"put", 99, 7, 3, true}, Case{"flags", 2, 0, 3, false}, Case{"flags", 99, 6, 3, true},
        Case{"start", 2, 0, 3, false}, Case{"start", 99, 5, 3, false},
        Case{"start", 99, 5, 3, true}, Case{"start", 99, 5, 3, false},
        Case{"start", 0, 0, 1, false}, Case{"start", 99, 5, 3, false},
        Case{"start", 99, 5, 3, true}}) {
    if (std::string(c.failing) == "open") {
      Cache::GetInstance()->ReleaseChannel();
      library.TakeCalls();
    }
    library.failing = c.failing;
    library.failures_left = c.failures;
    const auto start = Clock::now();
    EXPECT_EQ(Status(), c.status) << c.failing;
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20 + 10 * std::min(c.failures, 3)));
    int attempts = 0;
    int closes = 0;
    for (const std::string& call : library.TakeCalls()) {
      attempts += call.compare(0, std::strlen(c.failing), c.failing) == 0 ? 1 : 0;
      closes += call == "close 2" ? 1 : 0;
    }
    EXPECT_EQ(attempts, c.attempts) << c.failing;
    EXPECT_EQ(closes, c.is_closed ? 1 : 0) << c.failing << " " << c.status;
    EXPECT_EQ(Cache::GetInstance()->CheckVlmOpen(2, false, 7),
              c.is_closed ? Cache::kStatusClosed : Cache::kStatusOpened);
  }
}

TEST_F(RS485AccessRequestTest, AnswersAreJudgedOneByOne) {
  AddDevice(1, 3, {0x00, 0x01});  // broadcast
  AddDevice(2, 4, {0x04});        // too long an answer
  AddDevice(3, 5, {0x05});        // the library has nothing
  AddDevice(4, 32, {0x20});       // no such address
  AddDevice(5, 6, {0x06});
  AddDevice(6, 6, {0x00, 0x01});  // again, now as a broadcast
  std::vector<byte> bytes(439, 1);
  std::vector<byte> few = {7, 8};
  Answer(12, few);
  Answer(3, few, 2);
  Answer(4, bytes, 1);
  Answer(6, few);
  const auto result = Execute();
  const auto& slots = result->ReceiveData()->receive_data.receive_data;
  EXPECT_EQ(result->ReceiveData()->receive_data.status, 0);
  EXPECT_EQ(int{slots[11].length}, 2);
  EXPECT_EQ(int{slots[2].length}, 0);
  EXPECT_EQ(slots[2].status, 2);
  EXPECT_EQ(slots[2].data[0], 0);
  EXPECT_EQ(int{slots[3].length}, 0);
  EXPECT_EQ(int{slots[4].length}, 0);
  EXPECT_EQ(int{slots[5].length}, 0);
  const Calls calls = library.TakeCalls();
  EXPECT_NE(std::find(calls.begin(), calls.end(), "flags 2 2108"), calls.end());
  for (const std::string& call : calls) {
    EXPECT_EQ(call.find(" 32 "), std::string::npos) << call;
  }
  library.is_answer_missing = true;
  EXPECT_EQ(Status(), -1);
  const std::string log = StopLog();
  for (const char* text : {"W] 485ARq Rcv dat size too large. <C2:04> len:[439] status:[1]",
                           "Rcv dat [-]: Rcv dat size is 0 for bc comm.",
                           "vlm_485_putOStm - snd dat to bc addr <C2:03>",
                           "W] 485ARq Dev addr err. <C2:32>", "vlm_485_getRcvStm return NULL"}) {
    EXPECT_NE(log.find(text), std::string::npos) << text;
  }
}

TEST_F(RS485AccessRequestTest, WhatCannotBeRightTouchesNoPort) {
  for (const int channel : {0, 4, -1}) {
    payload_.channel = channel;
    EXPECT_EQ(Status(), 9);
    EXPECT_EQ(Cache::GetInstance()->CheckVlmOpen(channel, false, 7), Cache::kStatusError);
    Cache::GetInstance()->SetVlmStartComFailed(channel);
  }
  EXPECT_EQ(library.TakeCalls(), Calls{});
  payload_.channel = 2;
  payload_.send_data[0].send_data[0] = 127;
  EXPECT_EQ(Status(), 7);
  EXPECT_EQ(library.TakeCalls(),
            (Calls{"open 2 0 7", "params 2 12 1 -2 3 4 5", "listen 2", "close 2"}));
  const std::string log = StopLog();
  EXPECT_TRUE(test::Contains(log, "[W] 485ARq Ch err. ch[4]\n"));
  EXPECT_TRUE(test::Contains(log, "485ARqLib SetVlmStartComFailed ch error:4\n"));
}

// The end of the daemon while a request is inside each of the library's calls: a call that returns
// in time lets the request finish; one that does not finds a cache that calls no library any more.
// Either way every port that was open is closed exactly once.
TEST_F(RS485AccessRequestTest, TheEndMeetsEveryStep) {
  for (const std::string step : {"put", "flags", "start"}) {
    for (const bool is_in_time : {true, false}) {
      if (!is_in_time && step != "start") {
        continue;  // only the cycle may take longer than the end waits
      }
      Cache::Create();
      library.blocking = step;
      std::future<int> status = std::async(std::launch::async, [this] { return Status(); });
      ASSERT_TRUE(library.AwaitCall(step));
      std::future<void> end = std::async(std::launch::async, [] { Cache::Destroy(); });
      if (is_in_time) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        library.Release();
      }
      ASSERT_EQ(end.wait_for(std::chrono::milliseconds(2500)), std::future_status::ready) << step;
      const Calls until_end = library.TakeCalls();
      EXPECT_EQ(std::count(until_end.begin(), until_end.end(), "close 2"), 1) << step;
      library.Release();
      ASSERT_EQ(status.wait_for(std::chrono::seconds(5)), std::future_status::ready);
      EXPECT_EQ(status.get(), is_in_time ? 0 : -1) << step;
      EXPECT_EQ(library.TakeCalls(), Calls{}) << "the library is left alone";
    }
  }
}

// Two clients may name one channel in their payloads while their headers name two.
TEST_F(RS485AccessRequestTest, OnePortServesOneRequestAtATime) {
  library.blocking = "start";
  std::future<int> first = std::async(std::launch::async, [this] { return Status(); });
  ASSERT_TRUE(library.AwaitCall("start"));
  library.TakeCalls();
  std::future<int> second = std::async(std::launch::async, [this] { return Status(); });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  EXPECT_EQ(library.TakeCalls(), Calls{});
  std::future<void> end = std::async(std::launch::async, [] { Cache::Destroy(); });
  EXPECT_EQ(end.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  library.Release();
  EXPECT_EQ(first.get(), 0);
  EXPECT_EQ(second.get(), 8) << "it has not touched its port when the daemon ends";
  end.get();
  EXPECT_EQ(Status(), 8);
}

TEST_F(RS485AccessRequestTest, ARequestInItsStartWaitTouchesNoPortAfterTheEnd) {
  std::future<int> status = std::async(std::launch::async, [this] { return Status(); });
  Cache::Destroy();
  EXPECT_EQ(status.get(), 8);
  EXPECT_EQ(library.TakeCalls(), Calls{});
}

}  // namespace
}  // namespace tmsc
