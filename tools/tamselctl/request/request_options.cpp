#include "request/request_options.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "request/frame_limits.h"
#include "shared/number_option.h"
#include "shared/ranges_option.h"
#include "shared/times.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

void AddFrameOptions(CLI::App& command, Options& options) {
  CLI::Option_group* frame = command.add_option_group("frame", "What to send; exactly one kind");
  frame
      ->add_option("--frame", options.frames,
                   "Bytes to send as they are, to all devices or, as ADDRESS:HEX, to one; "
                   "repeatable. When they are Modbus/TCP, the answer is checked against them")
      ->type_name("HEX")
      ->allow_extra_args(false);
  AddReadOptions(*frame, options.reads);
  const struct {
    const char* name;
    std::string& target;
    std::string description;
    const char* type_name;
  } kinds[] = {
      {"--write-registers", options.write_registers,
       "Write registers (function 16), at most " + std::to_string(kMaxTcpWriteRegisters) +
           ", on RS485 " + std::to_string(kMaxRtuWriteRegisters) + "; values are of --type",
       "START,VALUE[,VALUE...]"},
      {"--write-coil", options.write_coil, "Switch one coil (function 5)", "COIL,0|1"},
      {"--write-coils", options.write_coils, "Switch coils (function 15)", "START,0|1[,0|1...]"},
  };
  for (const auto& kind : kinds) {
    frame->add_option(kind.name, kind.target, kind.description)->type_name(kind.type_name);
  }
  frame->require_option(0, 1);
}

void AddTypeOptions(CLI::App& command, Options& options) {
  command
      .add_option_function<std::string>(
          "--type",
          [&options](const std::string& text) {
            options.type = ParseValueType(text);
            if (!options.type) {
              ThrowUsage("--type", text + " is not one of " + kValueTypeNames);
            }
          },
          "What the registers hold: u16, i16, u32, i32, f32, string or hex (default: u16). COUNT "
          "counts registers, of which u32, i32 and f32 take two")
      ->type_name("TYPE");
  command
      .add_option_function<std::string>(
          "--word-order",
          [&options](const std::string& text) {
            const auto order = ParseWordOrder(text);
            if (!order) {
              ThrowUsage("--word-order", text + " is not one of big, little");
            }
            options.word_order = *order;
          },
          "Whether the first (big) or the last (little) register of a value is the most "
          "significant one (default: big)")
      ->type_name("big|little");
}

void AddSiteOptions(CLI::App& command, Options& options) {
  CLI::Option* site =
      command
          .add_option("--site", options.site,
                      "A file that names devices and registers; ask those named behind it")
          ->type_name("FILE");
  command
      .add_option("name", options.names,
                  "Devices of the site file, such as inverter-17, or all of them: all")
      ->type_name("NAME")
      ->needs(site);
  command
      .add_option("--register", options.registers,
                  "Only this register of each device; repeatable (default: all)")
      ->type_name("NAME")
      ->allow_extra_args(false)
      ->needs(site);
}

void AddOutputOptions(CLI::App& command, Options& options) {
  command
      .add_option_function<std::string>(
          "--format",
          [&options](const std::string& text) {
            if (text != "table" && text != "json") {
              ThrowUsage("--format", text + " is not one of table, json");
            }
            options.is_json = text == "json";
          },
          "How to print: table or json (default: table)")
      ->type_name("table|json");
  command.add_flag("--json", options.is_json, "The same as --format json");
  CLI::Option* watch =
      command
          .add_option_function<std::string>(
              "--watch",
              [&options](const std::string& text) {
                options.watch_ms = ParseDuration(text);
                if (options.watch_ms.value_or(0) < 1) {
                  ThrowUsage("--watch", text + " is no time such as 5, 500ms or 2min");
                }
              },
              "Ask again and again, each such time, until Ctrl-C; at the end print how often each "
              "device answered and how fast")
          ->type_name("SECONDS");
  AddNumber(command, "--count", options.count, 1, std::numeric_limits<int>::max(),
            "End after so many requests")
      ->needs(watch);
}

}  // namespace

void AddRequestOptions(CLI::App& command, Options& options) {
  constexpr int kLongestMs = std::numeric_limits<int>::max();
  AddSiteOptions(command, options);
  command
      .add_option("--device", options.devices,
                  "A device of the channel or several, such as 1-31, reached over TCP/IP or, with "
                  "--baud and addresses alone, over RS485; repeatable (default port: 502)")
      ->type_name("ADDRESSES[=IP[:PORT]]")
      ->allow_extra_args(false);
  AddFrameOptions(command, options);
  AddTypeOptions(command, options);
  CLI::Option* unit =
      AddRanges(command, "--unit", options.units, 0, 255, "a number or range of 0 to 255",
                "Modbus unit in the frames, or one for each device, such as 101-110 (default: the "
                "device's address)")
          ->type_name("NUMBERS");
  CLI::Option* baud = AddBusOptions(command, options.bus);
  AddNumber(command, "--deadline", options.deadline_ms, 1, kLongestMs,
            "Milliseconds for the whole exchange with the daemon (default: 10000 and, over TCP/IP, "
            "6 time-outs, over RS485 the time-out, the wait and 1000 of each device)");
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
  AddDaemonOptions(command, options.daemon);
  AddNumber(command, "--busy-wait", options.busy_wait_ms, 0, kLongestMs,
            "Milliseconds to try again for while the channel is busy (default: 0)");
  AddOutputOptions(command, options);
}

void CheckSiteOptions(const CLI::App& command) {
  for (const char* name :
       {"--channel", "--device", "--frame", "--read-holding", "--read-input", "--read-coils",
        "--read-discrete", "--write-registers", "--write-coil", "--write-coils", "--type",
        "--word-order", "--unit", "--timeout", "--baud", "--broadcast"}) {
    if (command.get_option(name)->count() > 0) {
      ThrowUsage(name, "the --site file says that");
    }
  }
}

}  // namespace tmsc::ctl
