#ifndef TAMSEL_STATUS_TEXT_H_
#define TAMSEL_STATUS_TEXT_H_

#include <string>

#include "wire_records.h"

namespace tmsc {

/// The status of a whole request, ReceiveData::status, in plain words.
TAMSEL_API std::string StatusText(int request_status);

/// The status byte of one device of a TCP/IP request in plain words; failures that came together
/// are joined with " + ".
TAMSEL_API std::string TcpDeviceStatusText(byte device_status);

/// The status byte of one device of an RS485 request, the receive status of the serial library that
/// comes with the daemon, in plain words.
TAMSEL_API std::string Rs485DeviceStatusText(byte device_status);

}  // namespace tmsc

#endif  // TAMSEL_STATUS_TEXT_H_
