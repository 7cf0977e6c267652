#include <vector>

#include "multi/match_multi.h"
#include "pipeline/group_alignment.h"
#include "pipeline/group_math.h"

namespace kestor {

void alignGroupJointly(const RGBDFusionImpl& instance, _Group& group) {
    const int count = group.frameCount;
    if (count < 2) return;
    std::vector<const float*> vmaps, nmaps, grays, gradXs, gradYs;
    for (int j = 0; j < count; ++j) {
        const FrameLevel level =
            instance.levels > 0 ? group.frames[size_t(j)]->levels[0] : FrameLevel{};
        vmaps.push_back(level.vmap);
        nmaps.push_back(level.nmap);
        grays.push_back(level.gray);
        gradXs.push_back(level.gradX);
        gradYs.push_back(level.gradY);
    }
    const RT_<double> firstInverse = inverseOf(group.frames[0]->pose);
    std::vector<RT_<double>> rts{RT_<double>::identity()};
    for (int j = 1; j < count; ++j) rts.push_back(compose(firstInverse, group.frames[size_t(j)]->pose));

    if (!instance.deviceMemory && instance.width > 0 && instance.height > 0) {
        const KESTORPara& p = instance.para;
        const double maxDistance =
            instance.levelDistances.empty() ? 0.0 : instance.levelDistances[0];
        const MultiOptions options =
            multiOptions(p.groupIterations, maxDistance, p.angleThreshold, p.overlapThreshold,
                         p.colorWeight, 1, true, false);
        const Intrinsics k = instance.intrinsics();
        const bool gray = instance.hasGray != 0;
        // The outcome is not looked at: a failed run leaves its last accepted poses.
        matchMultiVmap(vmaps.data(), nmaps.data(), gray ? grays.data() : nullptr,
                       gray ? gradXs.data() : nullptr, gray ? gradYs.data() : nullptr,
                       instance.width, instance.height, k, rts, options, ProgressFunc());
    }
    group.frameRTs = rts;
}

}  // namespace kestor
