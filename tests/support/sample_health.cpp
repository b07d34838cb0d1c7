// Writes a health file to look at: sample_health FILE DEVICES [failing]
#include "support/health_file.h"

int main(int argc, char** argv) {
  tmsc::test::HealthFile file;
  for (int number = 0; argc > 2 && number < std::atoi(argv[2]); ++number) {
    const int channel = 1 + number / 31, address = 1 + number % 31, transport = 1 + channel % 2;
    auto& record = file.contents.channels[channel - 1];
    record.channel = unsigned(channel);
    record.requests = record.cycles = record.cycle_last_us = record.statuses[9] = 345600;
    record.cycle_total_us = 345600ULL * (record.cycle_most_us = 812345);
    for (int hour = number % 5 < 3 ? 47 : 20; hour >= 0; --hour) {
      for (int exchange = 0; exchange < 12; ++exchange) {
        const bool is_good = argc == 3 && (number % 11 != 9 || hour > 5) && number % 13 != 12 &&
                             (number * 7 + hour * (number % 3) + exchange) % 29 > 3;
        const int cause = is_good ? 1 : 3 + (number + exchange / 6) % 10 * 2;
        auto& device = file.Add(channel, transport, address, cause, hour);
        std::string("192.168.100.100").copy(device.ip_address, 15);
        device.port = transport == 1 ? 4 : 50200;
        device.response_count += is_good && transport == 2 ? 1 : 0;
        device.response_most_us = 4000U * unsigned(address);
        device.response_total_us = device.response_count * device.response_most_us / 2;
        device.response_last_us = device.response_least_us = 900U * unsigned(address);
      }
    }
  }
  file.Write(argv[1]);
}
