#include "request_options.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "frame_limits.h"
#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"

namespace tmsc {
namespace {

const std::vector<SerialCode> kSpeeds = {
    {"1200", VLM_RS485_BAUD_1200},     {"2400", VLM_RS485_BAUD_2400},
    {"4800", VLM_RS485_BAUD_4800},     {"9600", VLM_RS485_BAUD_9600},
    {"19200", VLM_RS485_BAUD_19200},   {"38400", VLM_RS485_BAUD_38400},
    {"57600", VLM_RS485_BAUD_57600},   {"115200", VLM_RS485_BAUD_115200},
    {"230400", VLM_RS485_BAUD_230400}, {"460800", VLM_RS485_BAUD_460800},
    {"921600", VLM_RS485_BAUD_921600},
};

const std::vector<SerialCode> kLines = {
    {"8N1", VLM_RS485_8N1}, {"8E1", VLM_RS485_8E1}, {"8O1", VLM_RS485_8O1}, {"8N2", VLM_RS485_8N2},
    {"8E2", VLM_RS485_8E2}, {"8O2", VLM_RS485_8O2}, {"7N1", VLM_RS485_7N1}, {"7E1", VLM_RS485_7E1},
    {"7O1", VLM_RS485_7O1}, {"7N2", VLM_RS485_7N2}, {"7E2", VLM_RS485_7E2}, {"7O2", VLM_RS485_7O2},
};

// CLI11 would take a leading zero for octal; here a number is decimal, or hexadecimal after 0x.
template <typename Target>
CLI::Option* AddNumber(CLI::App& command, const std::string& name, Target& target, int least,
                       int most, const std::string& description) {
  return command
      .add_option_function<std::string>(
          name,
          [name, &target, least, most](const std::string& text) {
            const auto number = ParseNumber(text, least, most);
            if (!number) {
              ThrowUsage(name, text + " is not a number of " + std::to_string(least) + " to " +
                                   std::to_string(most));
            }
            target = *number;
          },
          description)
      ->type_name("NUMBER");
}

CLI::Option* AddSerialCode(CLI::App& command, const std::string& name,
                           const std::vector<SerialCode>& codes, std::optional<SerialCode>& target,
                           const std::string& description) {
  return command.add_option_function<std::string>(
      name,
      [name, &codes, &target](const std::string& text) {
        std::string names;
        for (const SerialCode& code : codes) {
          if (text == code.name) {
            target = code;
            return;
          }
          names += (names.empty() ? "" : ", ") + std::string(code.name);
        }
        ThrowUsage(name, text + " is not one of " + names);
      },
      description);
}

void AddFrameOptions(CLI::App& command, Options& options) {
  CLI::Option_group* frame = command.add_option_group("frame", "What to send; exactly one kind");
  frame->require_option(1);
  frame
      ->add_option("--frame", options.frames,
                   "Bytes to send as they are, to all devices or, as ADDRESS:HEX, to one; "
                   "repeatable. When they are Modbus/TCP, the answer is checked against them")
      ->type_name("HEX");
  frame
      ->add_option("--read-holding", options.read_holding,
                   "Read holding registers (function 3), at most " +
                       std::to_string(modbus::kMaxReadRegisters))
      ->type_name("START,COUNT");
  frame
      ->add_option(
          "--read-input", options.read_input,
          "Read input registers (function 4), at most " + std::to_string(modbus::kMaxReadRegisters))
      ->type_name("START,COUNT");
  frame
      ->add_option("--write-registers", options.write_registers,
                   "Write registers (function 16), at most " +
                       std::to_string(kMaxTcpWriteRegisters) + ", on RS485 " +
                       std::to_string(kMaxRtuWriteRegisters))
      ->type_name("START,VALUE[,VALUE...]");
}

void AddRs485Options(CLI::App& command, CLI::Option* unit, Options& options) {
  CLI::Option* baud =
      AddSerialCode(command, "--baud", kSpeeds, options.baud,
                    "Speed in bits a second; the devices are reached over RS485, and the frames "
                    "made for them are Modbus RTU")
          ->type_name("SPEED");
  AddSerialCode(command, "--line", kLines, options.line,
                "RS485: data bits, parity and stop bits (default: 8N1)")
      ->type_name("FORMAT")
      ->needs(baud);
  CLI::Option* silence =
      AddNumber(command, "--silence", options.silence_ms, 0, 255,
                "RS485: milliseconds of silence that end an answer, never less than 3.5 "
                "characters (default: 0)")
          ->needs(baud);
  command
      .add_option_function<std::string>(
          "--delimiter",
          [&options](const std::string& text) {
            options.delimiter = ParseDelimiter(text);
            if (!options.delimiter) {
              ThrowUsage("--delimiter", text + " is not BYTE[,AFTER] with 1 to 255 and 0 to 255");
            }
          },
          "RS485: the byte that ends an answer in place of silence, and how many more follow it")
      ->type_name("BYTE[,AFTER]")
      ->needs(baud)
      ->excludes(silence);
  AddNumber(command, "--wait", options.wait_ms, 0, 255,
            "RS485: milliseconds of silence before each device is addressed (default: 0)")
      ->needs(baud);
  command
      .add_flag("--crc", options.has_crc,
                "RS485: append the Modbus CRC to --frame and check that of the answer")
      ->needs(baud);
  command
      .add_flag("--broadcast", options.is_broadcast,
                "RS485: send to all devices of the bus, with address byte 0, and wait for no "
                "answer; --device only says which slot to use")
      ->needs(baud)
      ->excludes(unit);
}

}  // namespace

void ThrowUsage(const std::string& option, const std::string& message) {
  throw CLI::ValidationError(option, message);
}

void AddRequestOptions(CLI::App& command, Options& options) {
  constexpr int kLongestMs = std::numeric_limits<int>::max();
  constexpr int kLongestTimeoutMs = std::numeric_limits<std::int16_t>::max();
  AddNumber(command, "--channel", options.channel, 1, kMaxChannel, "Channel, 1 to 3")->required();
  command
      .add_option("--device", options.devices,
                  "A device of the channel, reached over TCP/IP or, with --baud and its address "
                  "alone, over RS485; repeatable")
      ->type_name("ADDRESS[=IP:PORT]")
      ->required();
  AddFrameOptions(command, options);
  CLI::Option* unit = AddNumber(command, "--unit", options.unit, 0, 255,
                                "Modbus unit in the frames (default: the device's address)");
  AddNumber(command, "--timeout", options.timeout_ms, 1, kLongestTimeoutMs,
            "Milliseconds, over TCP/IP for the connect and for each send and receive of a device, "
            "over RS485 from the end of its frame to the end of its answer (default: 1000)");
  AddNumber(command, "--deadline", options.deadline_ms, 1, kLongestMs,
            "Milliseconds for the whole exchange with the daemon (default: 10000 and, over TCP/IP, "
            "6 time-outs, over RS485 the time-out, the wait and 1000 of each device)");
  AddRs485Options(command, unit, options);
  command.add_option("--socket", options.socket_path, "Socket of the daemon")
      ->type_name("PATH")
      ->capture_default_str();
  AddNumber(command, "--busy-wait", options.busy_wait_ms, 0, kLongestMs,
            "Milliseconds to try again for while the channel is busy (default: 0)");
  command.add_option("--format", options.format, "How to print: table or json")
      ->check(CLI::IsMember({"table", "json"}))
      ->capture_default_str();
}

}  // namespace tmsc
