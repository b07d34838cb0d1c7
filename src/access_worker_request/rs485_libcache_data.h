#ifndef TAMSEL_ACCESS_WORKER_REQUEST_RS485_LIBCACHE_DATA_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_RS485_LIBCACHE_DATA_H_

namespace tmsc {

/// With what parameters the port of a channel was opened, and whether it still is.
class Rs485LibcacheData {
 public:
  /// `channel` 1 to 3; `baudrate` is the serial library's code.
  Rs485LibcacheData(int channel, bool sniffer, int baudrate, bool is_open)
      : channel_(channel), sniffer_(sniffer), baudrate_(baudrate), is_open_(is_open) {}
  Rs485LibcacheData(const Rs485LibcacheData&) = default;
  Rs485LibcacheData& operator=(const Rs485LibcacheData&) = default;
  virtual ~Rs485LibcacheData() = default;

  int GetChannel() const { return channel_; }
  bool GetSniffer() const { return sniffer_; }
  int GetBaudrate() const { return baudrate_; }
  bool GetIsOpen() const { return is_open_; }
  void SetIsOpen(bool is_open) { is_open_ = is_open; }

 private:
  int channel_;
  bool sniffer_;
  int baudrate_;
  bool is_open_;
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_RS485_LIBCACHE_DATA_H_
