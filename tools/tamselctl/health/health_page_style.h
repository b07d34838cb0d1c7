#ifndef TAMSELCTL_HEALTH_HEALTH_PAGE_STYLE_H_
#define TAMSELCTL_HEALTH_HEALTH_PAGE_STYLE_H_

namespace tmsc::ctl {

/// The style sheet of the page: dark and light, narrow and wide, print.
extern const char* const kHealthPageStyle;

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HEALTH_PAGE_STYLE_H_
