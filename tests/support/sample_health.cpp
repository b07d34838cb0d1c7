// Writes a health file to look at: sample_health FILE DEVICES [failing]
#include "support/health_file.h"

int main(int argc, char** argv) {
  const int devices = argc > 2 ? std::atoi(argv[2]) : 0;
  const bool is_failing = argc > 3;
  tmsc::test::HealthFile file;
  file.Process();
  for (int number = 0; number < devices; ++number) {
    const int channel = 1 + number / 31, address = 1 + number % 31, transport = 1 + channel % 2;
    auto& record = file.Channel(channel);
    record.statuses[1] = record.requests = record.cycles = 34560;
    record.busy_refusals = record.statuses[9] = record.longest_ms = 1200;
    record.cycle_total_us = 34560ULL * (record.cycle_last_us = record.cycle_most_us = 812345);
    for (int hour = is_failing || number % 5 < 3 ? 47 : 20; hour >= 0; --hour) {
      for (int exchange = 0; exchange < 12; ++exchange) {
        const bool is_good = !is_failing &&
                             (number * 7 + hour * (number % 3) + exchange) % 29 > 3 &&
                             (number % 11 != 9 || hour > 5) && number % 13 != 12;
        auto& device = file.Add(channel, transport, address,
                                is_good ? 1 : 3 + (number + exchange / 6) % 10 * 2, hour);
        std::string("192.168.100." + std::to_string(100 + address)).copy(device.ip_address, 15);
        device.port = transport == 1 ? 4 : 50200;
        device.response_count = is_failing || transport == 1 ? 0 : 12;
        device.response_last_us = device.response_least_us = 900U * unsigned(address);
        device.response_total_us = 12 * (device.response_most_us = 4000U * unsigned(address));
      }
    }
  }
  file.Write(argv[1]);
}
