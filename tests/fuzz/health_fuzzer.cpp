// A health file with any records, their check sums right, through the reader and every print.

#include <nlohmann/json.hpp>
#include <sstream>

#include "fuzz/input_file.h"
#include "health/health_json.h"
#include "health/health_metrics.h"
#include "health/health_page.h"
#include "health/health_text.h"
#include "health/health_view.h"
#include "health_reader.h"
#include "support/health_file.h"

using namespace tmsc;

namespace {

/// Puts the input into the records, piece by piece, so that few bytes reach any field of any
/// record: which record, where in it (two bytes), how many bytes, the bytes. Gives the rest.
const std::uint8_t* PutPiece(test::HealthFile& file, const std::uint8_t* data,
                             const std::uint8_t* end) {
  constexpr int kHead = 4;
  constexpr std::size_t kLongest = 32;
  const std::size_t offset = data[1] | data[2] << 8;
  const auto count = std::min<std::size_t>(data[3] % kLongest, std::size_t(end - data - kHead));
  const auto put = [&](auto& record, std::uint32_t& use) {
    use = std::max(use, 1U);  // else it is not written
    const std::size_t place = sizeof(record.checksum) + offset % (sizeof(record) - 4);
    std::memcpy(reinterpret_cast<std::uint8_t*>(&record) + place, data + kHead,
                std::min(count, sizeof(record) - place));
  };
  if (data[0] == 0) {
    put(file.contents.process, file.contents.process.pid);
  } else if (data[0] <= TAMSEL_HEALTH_CHANNELS) {
    auto& channel = file.contents.channels[data[0] - 1];
    put(channel, channel.requests);
  } else {
    auto& device = file.contents.devices[data[0] % TAMSEL_HEALTH_DEVICES];
    put(device, device.exchanges);
  }
  return data + kHead + count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  test::HealthFile file;
  for (const std::uint8_t* const end = data + size; end - data > 4;) {
    data = PutPiece(file, data, end);
  }
  file.Seal();
  const test::InputFile input(&file.contents, sizeof(file.contents));
  const HealthReading reading = ReadHealth(input.Path());
  test::Require(reading.snapshot.has_value());
  ctl::HealthView view = ctl::MakeHealthView("health", *reading.snapshot, {}, {}, 1800000000000);
  std::ostringstream json, other;
  ctl::PrintHealthJson(json, view);
  test::Require(nlohmann::json::accept(json.str()));
  ctl::PrintHealthMetrics(other, view);
  ctl::PrintHealthPage(other, view);
  ctl::PrintHealthText(other, view);
  for (const char byte : other.str()) {
    test::Require(byte == '\n' || static_cast<unsigned char>(byte) >= 0x20);
  }
  return 0;
}
