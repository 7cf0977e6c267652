#include "pipeline/loop_closing.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <utility>
#include <vector>

#include "core/log.h"
#include "pipeline/builtin_match.h"
#include "pipeline/group_math.h"

namespace kestor {

namespace {

constexpr int kMaxCandidates = 5;

using Candidate = std::pair<float, int>;  // score, position

// Every earlier group scored against the key frame, the five lowest kept, lowest first.
std::vector<Candidate> scoredCandidates(const RGBDFusionImpl& instance,
                                        _Group* const* groups, int position,
                                        const _Frame* key) {
    std::vector<Candidate> candidates;
    for (int c = 0; c < position; ++c)
        candidates.emplace_back(instance.calcScoreFunc(keyFrameOf(*groups[c]), key), c);
    const auto lower = [](const Candidate& a, const Candidate& b) { return a.first < b.first; };
    if (position <= kMaxCandidates) {
        std::sort(candidates.begin(), candidates.end(), lower);
    } else {
        std::partial_sort(candidates.begin(), candidates.begin() + kMaxCandidates,
                          candidates.end(), lower);
        candidates.resize(kMaxCandidates);
    }
    return candidates;
}

// Up to five earlier groups drawn with the runtime's generator, seeded anew from the clock at
// each call. A draw may swap back into a place already chosen, which keeps the picks distinct.
std::vector<Candidate> drawnCandidates(int position) {
    std::srand(unsigned(std::time(nullptr)));
    std::vector<int> perm(static_cast<size_t>(position));
    std::iota(perm.begin(), perm.end(), 0);
    const int k = std::min(position, kMaxCandidates);
    for (int p = 0; p < k; ++p) std::swap(perm[size_t(p)], perm[size_t(std::rand() % position)]);
    std::vector<Candidate> candidates;
    for (int p = 0; p < k; ++p) candidates.emplace_back(0.0f, perm[size_t(p)]);
    return candidates;
}

}  // namespace

void closeGroupLoops(RGBDFusionImpl& instance, _Group* const* groups, int position,
                     _Group& group) {
    if (groups == nullptr || position < 2) return;
    const _Frame* key = keyFrameOf(group);
    const std::vector<Candidate> candidates =
        instance.calcScoreFunc ? scoredCandidates(instance, groups, position, key)
                               : drawnCandidates(position);
    for (const Candidate& candidate : candidates) {
        const _Group& other = *groups[candidate.second];
        // The search starts from the application's estimate alone, not from a prediction.
        GroupEdge edge{};
        if (!instance.pairMatchFunc(keyFrameOf(other), key, edge.rt, MATCH_GROUP)) continue;
        if (!builtInMatch(instance, other.levels, group.levels, edge.rt, edge.info)) continue;
        if (instance.para.verbose)
            KESTOR_LOG("Find Group Match: %d-%d, Score: %f\n", candidate.second, group.id,
                       double(candidate.first));
        edge.weight = kSearchedWeight;
        edge.from = group.keyIndex;
        edge.to = other.id;
        group.loopEdges.push_back(edge);
    }
}

}  // namespace kestor
