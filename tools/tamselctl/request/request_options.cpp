#include "request/request_options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>

#include "modbus/pdu.h"
#include "request/frame_limits.h"
#include "shared/number_option.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

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
      AddLineOptions(command,
                     "Speed in bits a second; the devices are reached over RS485, and the frames "
                     "made for them are Modbus RTU",
                     options.baud, options.line);
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
      .add_flag(
          "--crc", options.has_crc,
          "RS485: append the Modbus CRC to --frame and check that of the answer; when the frame "
          "is Modbus RTU, the answer is checked against it")
      ->needs(baud);
  command
      .add_flag("--broadcast", options.is_broadcast,
                "RS485: send to all devices of the bus, with address byte 0, and wait for no "
                "answer; --device only says which slot to use")
      ->needs(baud)
      ->excludes(unit);
}

}  // namespace

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
  AddDaemonOptions(command, options.daemon);
  AddNumber(command, "--busy-wait", options.busy_wait_ms, 0, kLongestMs,
            "Milliseconds to try again for while the channel is busy (default: 0)");
  command.add_option("--format", options.format, "How to print: table or json")
      ->check(CLI::IsMember({"table", "json"}))
      ->capture_default_str();
}

}  // namespace tmsc::ctl
