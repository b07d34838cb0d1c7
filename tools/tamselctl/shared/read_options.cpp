#include "shared/read_options.h"

#include <CLI/CLI.hpp>

#include "modbus/pdu.h"
#include "shared/arguments.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

constexpr struct {
  const char* name;
  std::string ReadOptions::*text;
  byte function;
  const char* things;
} kReads[] = {
    {"--read-holding", &ReadOptions::holding, modbus::kReadHoldingRegisters, "holding registers"},
    {"--read-input", &ReadOptions::input, modbus::kReadInputRegisters, "input registers"},
    {"--read-coils", &ReadOptions::coils, modbus::kReadCoils, "coils"},
    {"--read-discrete", &ReadOptions::discrete, modbus::kReadDiscreteInputs, "discrete inputs"},
};

int MostOf(byte function) {
  return modbus::IsBitRead(function) ? modbus::kMaxReadBits : modbus::kMaxReadRegisters;
}

}  // namespace

void AddReadOptions(CLI::App& command, ReadOptions& options) {
  for (const auto& read : kReads) {
    command
        .add_option(read.name, options.*read.text,
                    "Read " + std::string(read.things) + " (function " +
                        std::to_string(read.function) + "), at most " +
                        std::to_string(MostOf(read.function)) + "; START counts from 0")
        ->type_name("START,COUNT");
  }
}

std::optional<Read> ParseRead(const ReadOptions& options) {
  constexpr int kBehindLastPlace = 0x10000;
  for (const auto& read : kReads) {
    const std::string& text = options.*read.text;
    if (text.empty()) {
      continue;
    }
    const auto numbers = ParseNumberList(text);
    if (!numbers || numbers->size() != 2) {
      ThrowUsage(read.name, text + " is not START,COUNT");
    }
    const int start = numbers->at(0);
    const int count = numbers->at(1);
    if (count < 1 || count > MostOf(read.function) || start + count > kBehindLastPlace) {
      ThrowUsage(read.name, "1 to " + std::to_string(MostOf(read.function)) +
                                (modbus::IsBitRead(read.function) ? " bits" : " registers") +
                                ", none above 65535, can be read");
    }
    return Read{read.function, start, count};
  }
  return std::nullopt;
}

}  // namespace tmsc::ctl
