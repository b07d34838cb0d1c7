#ifndef RS485_BUS_CHANNEL_H_
#define RS485_BUS_CHANNEL_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "answer_reader.h"
#include "line_codes.h"
#include "serial_line.h"
#include "vlm_rs485.h"

namespace rs485 {

/// One channel: its port, the parameters and frames of its devices, and the answers of its last
/// cycle. Any thread may call any operation; they wait for each other, except that Close and Open
/// end a cycle in progress. The operations are those of vlm_rs485.h.
class BusChannel {
 public:
  explicit BusChannel(int channel);

  int Open(unsigned char baud_code);
  void Close();
  int SetParameters(unsigned char address, unsigned char format_code, short timeout_ms,
                    unsigned char delimiter, unsigned char after_delimiter, unsigned char wait_ms);
  void SetListener(void (*listener)());
  bool PutFrame(unsigned char address, const xfer_data& data);
  bool SetFlags(unsigned int flags);
  bool RunCycle();
  receive_data_full* Answers();

 private:
  using Duration = std::chrono::nanoseconds;

  struct Device {
    const CharacterFormat* format = FindCharacterFormat(VLM_RS485_8N1);
    std::chrono::milliseconds timeout{1000};
    unsigned char delimiter = 0;  // 0: the answer ends with silence
    unsigned char after_delimiter = 0;
    std::chrono::milliseconds wait{0};
    std::vector<unsigned char> frame;  // empty: nothing to send
    std::vector<unsigned char> received;
    receive_data answer{};
  };

  class Interruption;

  bool OpenLine();
  void ChooseCapture(const std::string& path);
  void Serve(Device& device);
  unsigned char Exchange(Device& device);
  LineEvent KeepSilence(const Device& device, Duration& timeout);
  LineEvent Send(const Device& device, Duration timeout);
  unsigned char Receive(Device& device, Duration timeout);
  Duration Silence(const Device& device) const;
  LineEvent Listen(const Device& device, AnswerReader& reader, Clock::time_point until);
  Duration AnswerSilence(const Device& device, const AnswerReader& reader) const;
  LineEvent TakeInput(AnswerReader& reader, bool& is_whole);
  bool TakeAllInput(AnswerReader& reader);

  const int channel_;
  std::atomic<int> interruptions_{0};  // calls that want the cycle in progress to end

  std::mutex mutex_;  // guards all that follows; line_.Interrupt is called without it
  bool is_open_ = false;
  const BaudRate* rate_ = nullptr;
  FrameSilence silence_ = FrameSilence::kGuide;
  std::unique_ptr<BusCapture> capture_;  // null: none is asked for
  SerialLine line_;                      // closed while is_open_: the serial device is gone
  bool is_echoing_ = false;              // what is sent comes back
  Clock::time_point last_activity_;      // when the line was last known to carry a character
  Device devices_[RS485_MAX_MC_NUM];
  unsigned int flags_ = 0;
  void (*listener_)() = nullptr;
  receive_data_full answers_{};
  bool has_answers_ = false;
};

}  // namespace rs485

#endif  // RS485_BUS_CHANNEL_H_
