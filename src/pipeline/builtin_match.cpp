#include "pipeline/builtin_match.h"

#include "pair/pair_entries.h"

namespace kestor {

namespace {

bool levelsHaveGray(const FrameLevel* levels, int count) {
    for (int l = 0; l < count; ++l)
        if (levels[l].gray == nullptr) return false;
    return true;
}

bool levelsHaveMaps(const FrameLevel* levels, int count) {
    for (int l = 0; l < count; ++l)
        if (levels[l].vmap == nullptr || levels[l].nmap == nullptr) return false;
    return true;
}

ImageView<const Float3> map3(const float* data, int w, int h) {
    return packedView(reinterpret_cast<const Float3*>(data), w, h);
}

}  // namespace

bool builtInMatch(const RGBDFusionImpl& instance, const FrameLevel* first,
                  const FrameLevel* second, RT_<double>& rt, double info[6][6]) {
    const int levels = instance.levels;
    if (instance.deviceMemory) return false;
    if (first == nullptr || second == nullptr || instance.levelIterations.empty() ||
        instance.levelDistances.empty() || instance.width < 1 || instance.height < 1 ||
        levels < 1)
        return false;
    if (!levelsHaveMaps(first, levels) || !levelsHaveMaps(second, levels)) return false;
    const bool colored = instance.hasGray && instance.hasColor && levelsHaveGray(first, levels) &&
                         levelsHaveGray(second, levels);
    PairPyramid maps;
    for (int l = 0; l < levels; ++l) {
        const int w = levelExtent(instance.width, l), h = levelExtent(instance.height, l);
        // A level without pixels cannot be matched.
        if (w < 1 || h < 1) return false;
        maps.vmaps1.push_back(map3(first[l].vmap, w, h));
        maps.nmaps1.push_back(map3(first[l].nmap, w, h));
        maps.vmaps2.push_back(map3(second[l].vmap, w, h));
        maps.nmaps2.push_back(map3(second[l].nmap, w, h));
        if (colored) {
            maps.grays1.push_back(packedView<const float>(first[l].gray, w, h));
            maps.gradXs1.push_back(packedView<const float>(first[l].gradX, w, h));
            maps.gradYs1.push_back(packedView<const float>(first[l].gradY, w, h));
            maps.grays2.push_back(packedView<const float>(second[l].gray, w, h));
        }
    }
    double pose[12];
    poseFromDouble(rt, poseView(pose));
    const Intrinsics k = instance.intrinsics();
    const KESTORPara& p = instance.para;
    const bool ok = matchPairPyramid(k, maps, poseView(pose), infoView(&info[0][0]),
                                     instance.levelIterations.data(),
                                     instance.levelDistances.data(), levels, p.angleThreshold,
                                     p.overlapThreshold, p.colorWeight, false, false, ProgressFunc());
    if (ok) rt = poseToDouble(poseView(pose));
    return ok;
}

}  // namespace kestor
