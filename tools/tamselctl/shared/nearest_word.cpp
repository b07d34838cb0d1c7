#include "shared/nearest_word.h"

#include <algorithm>
#include <numeric>

namespace tmsc::ctl {
namespace {

// Characters to insert, remove or replace until one word is the other.
std::size_t EditDistance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> distances(to.size() + 1);
  std::iota(distances.begin(), distances.end(), std::size_t{0});
  for (const char letter : from) {
    std::size_t diagonal = distances[0]++;
    for (std::size_t index = 0; index < to.size(); ++index) {
      const std::size_t replaced = diagonal + (letter == to[index] ? 0 : 1);
      diagonal = distances[index + 1];
      distances[index + 1] = std::min({replaced, diagonal + 1, distances[index] + 1});
    }
  }
  return distances.back();
}

}  // namespace

std::string NearestWord(const std::string& word, const std::vector<std::string>& words,
                        std::size_t most_errors) {
  std::string nearest;
  std::size_t least = std::min(most_errors + 1, word.size());
  for (const std::string& candidate : words) {
    const bool is_begin = candidate.compare(0, word.size(), word) == 0;
    const std::size_t distance = is_begin ? 1 : EditDistance(word, candidate);
    if (distance < least) {
      least = distance;
      nearest = candidate;
    }
  }
  return nearest;
}

}  // namespace tmsc::ctl
