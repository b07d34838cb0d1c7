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

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  test::HealthFile file;
  std::memcpy(reinterpret_cast<char*>(&file.contents) + sizeof(file.contents.header), data,
              std::min(size, sizeof(file.contents) - sizeof(file.contents.header)));
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
