#pragma once
#include <functional>
#include <vector>

#include "core/fusion_instance.h"

namespace kestor {

// A group to try, by its place in the group list, with the score that ranked it.
struct ScoredCandidate {
    float score;
    int position;
};

// The groups at places 0 .. count-1 to try for `current`, at most five. With the application's
// score: each group's key frame scored against `current` and the lowest five kept, lowest first.
// Without it: five places drawn by swapping through a list of all places with rand(), seeded
// from the wall clock in seconds at every call, each with score 0.
std::vector<ScoredCandidate> pickCandidates(const RGBDFusionImpl& instance, int count,
                                            const std::function<const _Frame*(int)>& keyFrameAt,
                                            const _Frame* current);

}  // namespace kestor
