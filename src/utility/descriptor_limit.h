#ifndef TAMSEL_UTILITY_DESCRIPTOR_LIMIT_H_
#define TAMSEL_UTILITY_DESCRIPTOR_LIMIT_H_

namespace tmsc {

/// Raises the process's soft limit of descriptors to the hard one. Call first in main, before there
/// are other threads.
void RaiseDescriptorLimit();

/// The soft limit of descriptors. Any thread.
int DescriptorLimit();

/// How many descriptors device connections leave to all others: clients, log, watchdog, serial
/// ports. At least a quarter of the limit stays for connections.
int ReservedDescriptors();

/// Whether a descriptor stands in the reserved part. The system gives out the lowest free number,
/// so as long as no connection keeps such a descriptor, the others find that many. Any thread.
bool IsReservedDescriptor(int descriptor);

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_DESCRIPTOR_LIMIT_H_
