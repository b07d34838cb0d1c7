#ifndef TAMSELCTL_EXIT_CODE_H_
#define TAMSELCTL_EXIT_CODE_H_

namespace tmsc {

/// What the process ends with; the help text explains the same values.
constexpr int kExitOk = 0;
constexpr int kExitOutputFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoDaemon = 3;
constexpr int kExitBusy = 4;
constexpr int kExitDeviceFailed = 5;
constexpr int kExitRequestFailed = 6;

/// For the end of the help text.
constexpr const char* kExitCodeHelp =
    "Exit status:\n"
    "  0  every device answered, or the broadcast was sent\n"
    "  1  the answers could not be written to standard output\n"
    "  2  wrong usage; nothing was sent\n"
    "  3  the daemon cannot be reached, or did not answer in time\n"
    "  4  the channel is busy\n"
    "  5  a device failed, gave no answer, answered with a Modbus exception, or its\n"
    "     answer does not fit the frame; the answers are printed all the same\n"
    "  6  the request failed as a whole, or was refused without an answer";

}  // namespace tmsc

#endif  // TAMSELCTL_EXIT_CODE_H_
