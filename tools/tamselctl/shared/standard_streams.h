#ifndef TAMSELCTL_SHARED_STANDARD_STREAMS_H_
#define TAMSELCTL_SHARED_STANDARD_STREAMS_H_

namespace tmsc::ctl {

/// Occupies those of the descriptors 0 to 2 that are closed, so that no socket comes to stand there
/// and gets what was meant for the terminal. To write there fails as before.
void OccupyStandardStreams();

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_STANDARD_STREAMS_H_
