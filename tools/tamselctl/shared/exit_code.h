#ifndef TAMSELCTL_SHARED_EXIT_CODE_H_
#define TAMSELCTL_SHARED_EXIT_CODE_H_

namespace tmsc::ctl {

/// What the process ends with; the help text explains the same values.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitOutputFailed = kExitFailed;
constexpr int kExitUsage = 2;
constexpr int kExitNoDaemon = 3;
constexpr int kExitBusy = 4;
constexpr int kExitDeviceFailed = 5;
constexpr int kExitRequestFailed = 6;
/// To which the number of the signal is added.
constexpr int kExitInterrupted = 128;

/// For the end of the help text.
constexpr const char* kExitCodeHelp =
    "Exit status:\n"
    "  0    done; of a request: every device answered, or the broadcast was sent\n"
    "  1    the output could not be written, a log or settings file could not be read,\n"
    "       or the settings have a mistake\n"
    "  2    wrong usage; nothing was sent\n"
    "  3    the daemon cannot be reached, did not answer in time, or there is no health\n"
    "       file to be read\n"
    "  4    the channel is busy\n"
    "  5    a device failed, gave no answer, answered with a Modbus exception, or its\n"
    "       answer does not fit the frame; the answers are printed all the same\n"
    "  6    the request failed as a whole, or was refused without an answer\n"
    "  130  interrupted (Ctrl-C); a request that runs goes on in the daemon, and its\n"
    "       channel stays busy until it ends\n"
    "  143  terminated, with the same consequence";

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_EXIT_CODE_H_
