#include "pipeline/loop_closing.h"

#include <vector>

#include "core/log.h"
#include "pipeline/builtin_match.h"
#include "pipeline/candidate_draw.h"
#include "pipeline/group_math.h"

namespace kestor {

void closeGroupLoops(RGBDFusionImpl& instance, _Group* const* groups, int position,
                     _Group& group) {
    if (groups == nullptr || position < 2) return;
    const _Frame* key = keyFrameOf(group);
    // Every earlier group may be tried, the direct neighbour included.
    const std::vector<ScoredCandidate> candidates = pickCandidates(
        instance, position, [groups](int c) { return keyFrameOf(*groups[c]); }, key);
    for (const ScoredCandidate& candidate : candidates) {
        const _Group& other = *groups[candidate.position];
        // The search starts from the application's estimate alone, not from a prediction.
        GroupEdge edge{};
        if (!instance.pairMatchFunc(keyFrameOf(other), key, edge.rt, MATCH_GROUP)) continue;
        if (!builtInMatch(instance, other.levels, group.levels, edge.rt, edge.info)) continue;
        if (instance.para.verbose)
            KESTOR_LOG("Find Group Match: %d-%d, Score: %f\n", candidate.position, group.id,
                       double(candidate.score));
        edge.weight = kSearchedWeight;
        edge.from = group.keyIndex;
        edge.to = other.id;
        group.loopEdges.push_back(edge);
    }
}

}  // namespace kestor
