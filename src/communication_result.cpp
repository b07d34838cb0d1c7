#include "communication_result.h"

#include <new>
#include <utility>

namespace tmsc {

CommunicationResult::CommunicationResult(ResponseReceiveData* response_data)
    : p_response_data_(response_data) {}

CommunicationResult::~CommunicationResult() = default;

ResponseReceiveData* CommunicationResult::ReceiveData() {
  return p_response_data_.get();
}

std::unique_ptr<ResponseReceiveData, FreeRecord> CommunicationResult::AllocateRecord(int type) {
  // Zero-filled, so that no byte of this process's memory leaves it in a field that nobody sets.
  std::unique_ptr<ResponseReceiveData, FreeRecord> record(
      static_cast<ResponseReceiveData*>(std::calloc(1, sizeof(ResponseReceiveData))));
  if (!record) {
    throw std::bad_alloc();
  }
  record->header.type = type;
  return record;
}

std::shared_ptr<CommunicationResult> CommunicationResult::CreateErrorCommunicationResult(
    int type, int status) {
  auto record = AllocateRecord(type);
  record->receive_data.status = status;
  return Wrap(std::move(record));
}

std::shared_ptr<CommunicationResult> CommunicationResult::Wrap(
    std::unique_ptr<ResponseReceiveData, FreeRecord> record) {
  auto result = std::make_shared<CommunicationResult>(nullptr);
  result->p_response_data_ = std::move(record);
  return result;
}

}  // namespace tmsc
