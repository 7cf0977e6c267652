#pragma once
// The few facts about a group that the group, loop and
// optimisation stages share.
#include <vector>

#include "core/fusion_instance.h"

namespace kestor {

// A full group ends with the overlap frame, which is also member 0 of the next group.
inline bool isFullGroup(const RGBDFusionImpl& instance, const _Group& group) {
    return group.frameCount == instance.groupSize + 1;
}

// Each pose seen from the one at keyIndex; the key's own entry is the exact identity rather
// than a product that rounds near it.
inline std::vector<RT_<double>> relativeToKey(const std::vector<RT_<double>>& poses, int keyIndex) {
    const RT_<double> keyInverse = inverseOf(poses[size_t(keyIndex)]);
    std::vector<RT_<double>> out;
    for (size_t j = 0; j < poses.size(); ++j)
        out.push_back(int(j) == keyIndex ? RT_<double>::identity() : compose(keyInverse, poses[j]));
    return out;
}

inline _Frame* keyFrameOf(const _Group& group) { return group.frames[size_t(group.keyIndex)]; }

// Pose of b's key frame in the coordinates of a's key frame, through the overlap frame that the
// full group a shares with its successor b.
inline RT_<double> linkTransform(const RGBDFusionImpl& instance, const _Group& a, const _Group& b) {
    const RT_<double> keyToOverlap = compose(inverseOf(a.frameRTs[size_t(a.keyIndex)]),
                                             a.frameRTs[size_t(instance.groupSize)]);
    return compose(keyToOverlap, compose(inverseOf(b.frameRTs[0]), b.frameRTs[size_t(b.keyIndex)]));
}

}  // namespace kestor
