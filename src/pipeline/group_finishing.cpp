#include "pipeline/group_finishing.h"

#include <algorithm>

#include "core/frame_memory.h"
#include "pair/match_measures.h"
#include "pipeline/group_alignment.h"
#include "pipeline/group_math.h"

namespace kestor {

namespace {

// Member poses relative to the key frame, as tracking left them.
void frameRTsFromTracking(_Group& group) {
    std::vector<RT_<double>> poses;
    for (int j = 0; j < group.frameCount; ++j) poses.push_back(group.frames[size_t(j)]->pose);
    group.frameRTs = relativeToKey(poses, group.keyIndex);
}

// How well the last member's own map pins the step from the key frame to it.
void computeLinkInfo(const RGBDFusionImpl& instance, _Group& group) {
    const RT_<double> link = compose(inverseOf(group.frameRTs[size_t(group.keyIndex)]),
                                     group.frameRTs[size_t(instance.groupSize)]);
    const _Frame* last = group.frames[size_t(instance.groupSize)];
    if (instance.deviceMemory || instance.levels < 1 || last->levels[0].vmap == nullptr ||
        instance.width < 1 || instance.height < 1)
        return;
    const auto vmap = packedView(reinterpret_cast<const Float3*>(last->levels[0].vmap),
                                 instance.width, instance.height);
    calcVmapSelfInfo(vmap, castRT<float>(link), infoView(&group.linkInfo[0][0]));
}

}  // namespace

void finishGroup(RGBDFusionImpl& instance, _Group& group) {
    if (group.frameCount < 1) return;
    const KESTORPara& p = instance.para;
    if (p.groupMode == 1)
        alignGroupByPoseGraph(instance, group);
    else if (p.groupMode == 2)
        alignGroupJointly(instance, group);
    if (group.frameRTs.empty()) frameRTsFromTracking(group);
    if ((p.groupMode == 2 || p.globalMode == 1) && isFullGroup(instance, group))
        computeLinkInfo(instance, group);
    _Frame* key = keyFrameOf(group);
    for (int l = 0; l < instance.levels; ++l) std::swap(key->levels[l], group.levels[l]);
    const int members = std::min(instance.groupSize, group.frameCount);
    for (int j = 0; j < members; ++j) {
        std::lock_guard<std::mutex> guard(instance.lock);
        reduceFrame(instance, group.frames[size_t(j)]);
    }
}

}  // namespace kestor
