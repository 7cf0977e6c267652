#include "keypoint/match_report.h"

#include <vector>

#include "core/log.h"

namespace kestor {

void reportMatches(const int* matches, int sourceCount, int expected,
                   const MatchesFunc& onMatches) {
    if (!onMatches) return;
    std::vector<std::pair<int, int>> pairs;
    pairs.reserve(size_t(expected > 0 ? expected : 0));
    for (int s = 0; s < sourceCount; ++s)
        if (matches[s] != -1) pairs.emplace_back(s, matches[s]);
    if (int(pairs.size()) != expected) KESTOR_LOG("Match condition error.\n");
    onMatches(pairs.data(), int(pairs.size()));
}

}  // namespace kestor
