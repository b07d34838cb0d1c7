#ifndef TAMSELCTL_SHARED_NEAREST_WORD_H_
#define TAMSELCTL_SHARED_NEAREST_WORD_H_

#include <cstddef>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// The one of `words` that the fewest typing errors, letters inserted, removed or replaced, lead to
/// from `word`, or that begins with it; empty when each is more than `most_errors` or as many as
/// `word` has letters away.
std::string NearestWord(const std::string& word, const std::vector<std::string>& words,
                        std::size_t most_errors);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_NEAREST_WORD_H_
