#include "health/health_page.h"

#include <ostream>
namespace tmsc::ctl {
void PrintHealthPage(std::ostream& output, const HealthView&) {
  output << "";
}
}  // namespace tmsc::ctl
