#ifndef TAMSEL_COMMUNICATION_RESULT_H_
#define TAMSEL_COMMUNICATION_RESULT_H_

#include <cstdlib>
#include <memory>

#include "communication_common.h"

namespace tmsc {

struct FreeRecord {
  void operator()(ResponseReceiveData* record) const { std::free(record); }
};

/// A response record on its way from the thread that performed an exchange to the one that writes
/// it to the client. Nobody changes the record after it was handed over.
class CommunicationResult {
 public:
  /// Takes a record of 13739 bytes allocated with malloc; frees it.
  explicit CommunicationResult(ResponseReceiveData* response_data);
  virtual ~CommunicationResult();

  /// The record; stays the result's own.
  ResponseReceiveData* ReceiveData();

  /// A zero-filled record with the request's type, allocated with malloc. Throws std::bad_alloc.
  static std::unique_ptr<ResponseReceiveData, FreeRecord> AllocateRecord(int type);

  /// A result that owns the record. Throws std::bad_alloc; the record is then freed.
  static std::shared_ptr<CommunicationResult> Wrap(
      std::unique_ptr<ResponseReceiveData, FreeRecord> record);

  /// A response that reports `status` for the whole request of that type.
  static std::shared_ptr<CommunicationResult> CreateErrorCommunicationResult(int type, int status);

 private:
  std::unique_ptr<ResponseReceiveData, FreeRecord> p_response_data_;
};

}  // namespace tmsc

#endif  // TAMSEL_COMMUNICATION_RESULT_H_
