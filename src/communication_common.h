/// What the client and the daemon have in common: the records that they exchange over the
/// Unix-domain socket, the constants that size them and the status codes they carry.
///
/// The layout is a contract with existing clients. It is declared once, in the header that clients
/// in C include, and has its names in this namespace from wire_records.h. docs/protocol.md shows it
/// byte by byte.
#ifndef TAMSEL_COMMUNICATION_COMMON_H_
#define TAMSEL_COMMUNICATION_COMMON_H_

#include <string>

#include "wire_records.h"

namespace tmsc {

/// Application version, logged once at start. Never destroyed: worker threads may still use it
/// while the process ends.
inline const std::string& kAppVersion = *new std::string("20220725_rkq");

}  // namespace tmsc

#endif  // TAMSEL_COMMUNICATION_COMMON_H_
