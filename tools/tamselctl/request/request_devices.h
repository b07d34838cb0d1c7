#ifndef TAMSELCTL_REQUEST_REQUEST_DEVICES_H_
#define TAMSELCTL_REQUEST_REQUEST_DEVICES_H_

#include <string>
#include <vector>

#include "communication_common.h"
#include "request/request_options.h"
#include "request/request_report.h"
#include "request_builder.h"

namespace tmsc::ctl {

/// A device of the request with the frame for it.
struct Device {
  int address = 0;
  std::string ip_address;  // over TCP/IP
  int port = 0;            // over TCP/IP
  std::vector<byte> frame;
};

/// The devices that the options name, each with its frame. Wrong usage is thrown as by ThrowUsage,
/// here and below.
std::vector<Device> MakeDevices(const Options& options);

/// The request to the devices, on the transport that its name says.
TcpIpRequest BuildTcpIpRequest(const std::vector<Device>& devices, const Options& options);
Rs485Request BuildRs485Request(const std::vector<Device>& devices, const Options& options);

/// How a device came out of its request.
DeviceReport ReportDevice(const Device& device, const Options& options,
                          const ResponseReceiveData& response);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_DEVICES_H_
