#ifndef TAMSEL_ACCESS_WORKER_REQUEST_TCPIP_ACCESS_REQUEST_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_TCPIP_ACCESS_REQUEST_H_

#include <future>
#include <list>
#include <memory>

#include "access_worker_request/access_request.h"
#include "access_worker_request/tcpip_access_unit.h"
#include "communication_common.h"

namespace tmsc {

/// One TCP/IP request: exchanges with all of its devices at the same time, on one thread a device,
/// and gathers the answers. The whole request always succeeds; failures are reported per device.
class TCPIPAccessRequest : public AccessRequest {
 public:
  /// Header, payload and promise stay the caller's own and outlive Execute. Without a header, null,
  /// no health is kept of the devices: it would not be known on which channel. The header says
  /// nothing else.
  TCPIPAccessRequest(DataHeader* header, DeviceAccessTCPIP* device_access_tcpip,
                     std::promise<std::shared_ptr<CommunicationResult>>* promise);
  ~TCPIPAccessRequest() override;

  /// Performs the exchange and fulfils the promise with its result.
  void Execute() override;

 private:
  using UnitList = std::list<std::shared_ptr<TCPIPAccessUnit>>;

  std::shared_ptr<CommunicationResult> Perform();
  static void RunUnits(const UnitList& access_unit_list);

  DataHeader* p_header_;
  DeviceAccessTCPIP* p_device_access_tcpip_;
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_TCPIP_ACCESS_REQUEST_H_
