#ifndef TAMSEL_EXCHANGE_H_
#define TAMSEL_EXCHANGE_H_

#include <cstddef>

#include "wire_records.h"

namespace tmsc {

/// How an exchange ended, without a byte of memory asked for.
struct ExchangeEnd {
  int result;            // TAMSEL_OK, TAMSEL_NOT_REACHABLE and so on
  const char* what;      // what failed, in words; empty when nothing did
  int error;             // errno of the call that failed; 0: no call did
  std::size_t received;  // bytes of the response
};

/// What tamsel_exchange does, for a request that goes over the socket as it is.
ExchangeEnd ExchangeRecords(const char* socket_path, const void* request, std::size_t size,
                            int deadline_ms, int busy_ms, ResponseReceiveData& response);

}  // namespace tmsc

#endif  // TAMSEL_EXCHANGE_H_
