#include "health_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>

#include "utility/descriptor.h"

namespace tmsc {
namespace {

struct CauseWords {
  int cause;
  const char* name;
  const char* text;
  const char* detail;  // %: last_detail; #: the error that it is, in words; null: it says nothing
};

constexpr CauseWords kCauses[] = {
    {TAMSEL_CAUSE_NONE, "none", "never asked", nullptr},
    {TAMSEL_CAUSE_ANSWERED, "answered", "answered", nullptr},
    {TAMSEL_CAUSE_SENT, "sent", "sent", nullptr},
    {TAMSEL_CAUSE_NO_ANSWER, "no_answer", "no answer in time", " (status %)"},
    {TAMSEL_CAUSE_CONNECT_REFUSED, "connect_refused", "connect refused", nullptr},
    {TAMSEL_CAUSE_CONNECT_TIMED_OUT, "connect_timed_out", "connect timed out", nullptr},
    {TAMSEL_CAUSE_UNREACHABLE, "unreachable", "unreachable", nullptr},
    {TAMSEL_CAUSE_NO_DESCRIPTOR, "no_descriptor", "daemon has no descriptor left", nullptr},
    {TAMSEL_CAUSE_CONNECT_FAILED, "connect_failed", "connect failed", " (error %)"},
    {TAMSEL_CAUSE_CONNECTION_IN_USE, "connection_in_use", "connection in use by another exchange",
     nullptr},
    {TAMSEL_CAUSE_NOT_TAKEN, "not_taken", "request not taken by the device", nullptr},
    {TAMSEL_CAUSE_RESET, "reset", "connection reset by the device", nullptr},
    {TAMSEL_CAUSE_CLOSED, "closed", "connection closed by the device", nullptr},
    {TAMSEL_CAUSE_CUT_SHORT, "cut_short", "frame cut short", " after % bytes"},
    {TAMSEL_CAUSE_TOO_LONG, "too_long", "frame too long", " (% bytes)"},
    {TAMSEL_CAUSE_NOT_ITS_ANSWER, "not_its_answer", "answer of somebody else", " (status %)"},
    {TAMSEL_CAUSE_LINE_ERROR, "line_error", "line error", " (status %)"},
    {TAMSEL_CAUSE_PORT_GONE, "port_gone", "serial port gone", " (status %)"},
    {TAMSEL_CAUSE_PORT_NOT_OPENED, "port_not_opened", "serial port cannot be opened", ": #"},
    {TAMSEL_CAUSE_NOT_STARTED, "not_started", "serial library did not run the cycle",
     " (request status %)"},
    {TAMSEL_CAUSE_OTHER_STATUS, "other_status", "status of the serial library", " %"},
    {TAMSEL_CAUSE_BAD_FRAME_LENGTH, "bad_frame_length", "entry refused: frame length", " %"},
    {TAMSEL_CAUSE_BAD_IP_ADDRESS, "bad_ip_address", "entry refused: IP address", nullptr},
    {TAMSEL_CAUSE_BAD_PORT, "bad_port", "entry refused: TCP port", " %"},
    {TAMSEL_CAUSE_DAEMON_FAILURE, "daemon_failure", "failure within the daemon", nullptr},
    {TAMSEL_CAUSE_GATEWAY_NO_ANSWER, "gateway_no_answer", "gateway: device does not answer",
     " (exception %)"},
    {TAMSEL_CAUSE_WRONG_CHECK_SUM, "wrong_check_sum", "answer with a wrong check sum", nullptr},
};
static_assert(std::size(kCauses) == TAMSEL_CAUSES_KNOWN);

const CauseWords* FindWords(int cause) {
  return cause >= 0 && cause < TAMSEL_CAUSES_KNOWN ? &kCauses[cause] : nullptr;
}

enum class RecordState { kWhole, kEmpty, kDamaged };

template <typename Record>
bool IsEmpty(const Record& record) {
  static const Record kEmptyRecord{};
  return std::memcmp(&record, &kEmptyRecord, sizeof(record)) == 0;
}

/// Reads records of an open file. One that stays neither whole nor empty is damaged; one that is
/// just being written is waited for, by all calls together 200 ms at most.
class RecordReader {
 public:
  explicit RecordReader(int file) : file_(file) {}

  template <typename Record>
  RecordState Read(std::size_t offset, Record& record) {
    constexpr int kAttemptsAtOnce = 10;
    for (int attempt = 1; attempt <= kAttemptsAtOnce || pauses_left_ > 0; ++attempt) {
      if (attempt > kAttemptsAtOnce) {
        ::usleep(1000);  // the writer may wait for this processor
        --pauses_left_;
      }
      const ssize_t count = ::pread(file_, &record, sizeof(record), static_cast<off_t>(offset));
      if (count != static_cast<ssize_t>(sizeof(record))) {
        break;  // the file is cut short
      }
      if (IsEmpty(record)) {
        return RecordState::kEmpty;
      }
      if (tamsel_health_is_whole(&record, sizeof(record)) != 0) {
        return RecordState::kWhole;
      }
    }
    record = {};
    return RecordState::kDamaged;
  }

  /// Appends those of `count` records from `offset` on that are whole.
  template <typename Record>
  void ReadAll(std::size_t offset, int count, std::vector<Record>& records, int& damaged) {
    for (int index = 0; index < count; ++index) {
      Record record{};
      const RecordState state =
          Read(offset + static_cast<std::size_t>(index) * sizeof(record), record);
      damaged += state == RecordState::kDamaged ? 1 : 0;
      if (state == RecordState::kWhole) {
        records.push_back(record);
      }
    }
  }

 private:
  const int file_;
  int pauses_left_ = 200;
};

std::string SystemError(int error) {
  return std::generic_category().message(error);
}

bool IsRegular(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode);
}

/// What `header` then holds of a header that is cut short is zero behind its end.
int CheckHeader(int file, tamsel_health_header& header) {
  header = {};
  const ssize_t count = IsRegular(file) ? ::pread(file, &header, sizeof(header), 0) : -1;
  if (count < static_cast<ssize_t>(sizeof(header.magic)) ||
      std::memcmp(header.magic, TAMSEL_HEALTH_MAGIC, sizeof(header.magic)) != 0) {
    return TAMSEL_HEALTH_OTHER_FILE;
  }
  if (count < static_cast<ssize_t>(sizeof(header))) {
    return TAMSEL_HEALTH_DAMAGED;
  }
  return header.byte_order == TAMSEL_HEALTH_BYTE_ORDER && header.version == TAMSEL_HEALTH_VERSION &&
                 header.file_size == sizeof(tamsel_health_file)
             ? TAMSEL_OK
             : TAMSEL_HEALTH_OTHER_LAYOUT;
}

std::string OtherLayoutText(const tamsel_health_header& header) {
  if (header.byte_order != TAMSEL_HEALTH_BYTE_ORDER) {
    return "comes from a machine with another byte order";
  }
  const bool is_version_known = header.version == TAMSEL_HEALTH_VERSION;
  return "has layout version " + std::to_string(header.version) +
         (is_version_known ? " of " + std::to_string(header.file_size) + " bytes" : std::string()) +
         ", this program knows " +
         (is_version_known ? "that of " + std::to_string(sizeof(tamsel_health_file)) + " bytes"
                           : std::to_string(TAMSEL_HEALTH_VERSION));
}

/// What keeps the open file from being read as a health file; empty: nothing.
std::string FindObstacle(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
    return "is no regular file";
  }
  tamsel_health_header header{};
  const int result = CheckHeader(file, header);
  if (result == TAMSEL_HEALTH_OTHER_FILE) {
    return "is no health file";
  }
  if (result == TAMSEL_HEALTH_OTHER_LAYOUT) {
    return OtherLayoutText(header);
  }
  constexpr auto kSize = sizeof(tamsel_health_file);
  return result == TAMSEL_HEALTH_DAMAGED || status.st_size < static_cast<off_t>(kSize)
             ? "is damaged: of its " + std::to_string(kSize) + " bytes only " +
                   std::to_string(status.st_size) + " are there"
             : std::string();
}

Descriptor OpenToRead(const char* path) {
  return Descriptor(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

}  // namespace

HealthReading ReadHealth(const std::string& path) {
  const Descriptor file = OpenToRead(path.c_str());
  if (!file.IsOpen()) {
    return {std::nullopt, path + " cannot be read: " + SystemError(errno)};
  }
  if (const std::string obstacle = FindObstacle(file.Get()); !obstacle.empty()) {
    return {std::nullopt, path + " " + obstacle};
  }
  HealthSnapshot snapshot;
  RecordReader reader(file.Get());
  int& damaged = snapshot.damaged_records;
  if (reader.Read(offsetof(tamsel_health_file, process), snapshot.process) ==
      RecordState::kDamaged) {
    ++damaged;
  }
  reader.ReadAll(offsetof(tamsel_health_file, channels), TAMSEL_HEALTH_CHANNELS, snapshot.channels,
                 damaged);
  reader.ReadAll(offsetof(tamsel_health_file, devices), TAMSEL_HEALTH_DEVICES, snapshot.devices,
                 damaged);
  return {std::move(snapshot), {}};
}

std::string HealthCauseText(int cause) {
  const CauseWords* words = FindWords(cause);
  return words != nullptr ? words->text : "cause " + std::to_string(cause);
}

std::string HealthCauseName(int cause) {
  const CauseWords* words = FindWords(cause);
  return words != nullptr ? words->name : "cause_" + std::to_string(cause);
}

std::string HealthCauseText(int cause, int detail) {
  const CauseWords* words = FindWords(cause);
  std::string text = HealthCauseText(cause);
  if (words != nullptr && words->detail != nullptr && detail != 0) {
    // A length below that of any answer is the status that the serial library gave.
    std::string addition =
        cause == TAMSEL_CAUSE_TOO_LONG && detail <= UINT8_MAX ? " (status %)" : words->detail;
    const std::size_t place = addition.find_first_of("%#");
    addition.replace(place, 1,
                     addition[place] == '%' ? std::to_string(detail) : SystemError(detail));
    text += addition;
  }
  return text;
}

}  // namespace tmsc

int tamsel_health_read_device(const char* path, int channel, int transport, int address,
                              tamsel_health_device* device) {
  *device = {};
  if (channel < 1 || channel > TAMSEL_HEALTH_CHANNELS || transport < 1 ||
      transport > TAMSEL_HEALTH_TRANSPORTS || address < 1 || address > TAMSEL_HEALTH_ADDRESSES) {
    return TAMSEL_BAD_VALUE;
  }
  const tmsc::Descriptor file = tmsc::OpenToRead(path);
  if (!file.IsOpen()) {
    return TAMSEL_HEALTH_NOT_READ;
  }
  tamsel_health_header header{};
  if (const int error = tmsc::CheckHeader(file.Get(), header)) {
    return error;
  }
  const std::size_t index = tamsel_health_device_index(channel, transport, address);
  switch (tmsc::RecordReader(file.Get())
              .Read(offsetof(tamsel_health_file, devices) + index * sizeof(*device), *device)) {
    case tmsc::RecordState::kWhole:
      return TAMSEL_OK;
    case tmsc::RecordState::kEmpty:
      return TAMSEL_HEALTH_NEVER;
    case tmsc::RecordState::kDamaged:
      break;
  }
  return TAMSEL_HEALTH_DAMAGED;
}

const char* tamsel_health_cause_text(int cause) {
  const tmsc::CauseWords* words = tmsc::FindWords(cause);
  return words != nullptr ? words->text : nullptr;
}
