#include "pair/match_pair_pyramid.h"

#include "pair/match_vmap.h"

namespace kestor {

bool runPyramidLevels(const Intrinsics& k, const PairPyramid& maps, const ImageView<double>& pose,
                      const int* iterationsPerLevel, const double* maxDistancePerLevel,
                      int levels, double maxAngle, double minScore, double colorWeight, bool log,
                      const ProgressFunc& progress, bool parallel) {
    const bool normals = !maps.nmaps1.empty() && !maps.nmaps2.empty();
    const bool colored = normals && !maps.grays1.empty() && !maps.gradXs1.empty() &&
                         !maps.gradYs1.empty() && !maps.grays2.empty();
    for (int l = levels - 1; l >= 0; --l) {
        const Intrinsics kl = scaledIntrinsics(k, l);
        const size_t i = size_t(l);
        // Each level reports 0 to 100 anew through its own copy of the callable.
        const ProgressFunc levelProgress = progress;
        bool ok;
        if (colored) {
            ok = matchVmapColored(kl, maps.vmaps1[i], maps.nmaps1[i], maps.grays1[i],
                                  maps.gradXs1[i], maps.gradYs1[i], maps.vmaps2[i], maps.nmaps2[i],
                                  maps.grays2[i], pose, iterationsPerLevel[l],
                                  maxDistancePerLevel[l], maxAngle, minScore, colorWeight, log,
                                  levelProgress, parallel);
        } else if (normals) {
            ok = matchVmapPlane(kl, maps.vmaps1[i], maps.nmaps1[i], maps.vmaps2[i], maps.nmaps2[i],
                                pose, iterationsPerLevel[l], maxDistancePerLevel[l], maxAngle,
                                minScore, log, levelProgress, parallel);
        } else {
            ok = matchVmapPoint(kl, maps.vmaps1[i], maps.vmaps2[i], pose, iterationsPerLevel[l],
                                maxDistancePerLevel[l], minScore, log, levelProgress, parallel);
        }
        if (!ok) return false;
    }
    return true;
}

}  // namespace kestor
