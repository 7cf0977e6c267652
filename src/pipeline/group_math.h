#pragma once
// The few facts about a group that the group, loop and
// optimisation stages share.
#include "core/fusion_instance.h"

namespace kestor {

// A full group ends with the overlap frame, which is also member 0 of the next group.
inline bool isFullGroup(const RGBDFusionImpl& instance, const _Group& group) {
    return group.frameCount == instance.groupSize + 1;
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
