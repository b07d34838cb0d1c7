#ifndef TAMSEL_SERIAL_LINE_CODES_H_
#define TAMSEL_SERIAL_LINE_CODES_H_

#include "vlm_rs485.h"
#include "wire_records.h"

namespace tmsc {

/// A code of the serial library under the name that people know it by.
struct SerialCode {
  const char* name;
  byte code;
};

/// Speeds in bits a second, in order of their codes, which begin at 0 and leave none out.
inline constexpr SerialCode kSerialSpeeds[] = {
    {"1200", VLM_RS485_BAUD_1200},     {"2400", VLM_RS485_BAUD_2400},
    {"4800", VLM_RS485_BAUD_4800},     {"9600", VLM_RS485_BAUD_9600},
    {"19200", VLM_RS485_BAUD_19200},   {"38400", VLM_RS485_BAUD_38400},
    {"57600", VLM_RS485_BAUD_57600},   {"115200", VLM_RS485_BAUD_115200},
    {"230400", VLM_RS485_BAUD_230400}, {"460800", VLM_RS485_BAUD_460800},
    {"921600", VLM_RS485_BAUD_921600},
};

/// Data bits, parity and stop bits, in the same order.
inline constexpr SerialCode kSerialLines[] = {
    {"8N1", VLM_RS485_8N1}, {"8E1", VLM_RS485_8E1}, {"8O1", VLM_RS485_8O1}, {"8N2", VLM_RS485_8N2},
    {"8E2", VLM_RS485_8E2}, {"8O2", VLM_RS485_8O2}, {"7N1", VLM_RS485_7N1}, {"7E1", VLM_RS485_7E1},
    {"7O1", VLM_RS485_7O1}, {"7N2", VLM_RS485_7N2}, {"7E2", VLM_RS485_7E2}, {"7O2", VLM_RS485_7O2},
};

}  // namespace tmsc

#endif  // TAMSEL_SERIAL_LINE_CODES_H_
