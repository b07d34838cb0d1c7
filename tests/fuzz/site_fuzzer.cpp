// A site file, through its reader.

#include "fuzz/input_file.h"
#include "shared/site.h"

using namespace tmsc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ctl::SiteReading reading = ctl::ReadSite(test::InputFile(data, size).Path());
  test::Require(reading.site.has_value() == (reading.error.empty() && reading.mistakes.empty()));
  for (const ctl::SiteMistake& mistake : reading.mistakes) {
    test::Require(!mistake.text.empty() && mistake.line >= 0 && mistake.column >= 0);
  }
  return 0;
}
