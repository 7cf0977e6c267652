// Exports of the match measures: argument checks, then views over the caller's packed arrays.
#include "core/argument_sizes.h"
#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/rigid_transform.h"
#include "kestor.h"
#include "pair/match_measures.h"
#include "pair/point_index.h"

using namespace kestor;

namespace {

ImageView<const Float3> mapView(const float* map, int width, int height) {
    return packedView(reinterpret_cast<const Float3*>(map), width, height);
}

RT_<float> poseFrom(const double* rt) {
    return poseToFloat(poseView(const_cast<double*>(rt)));
}

}  // namespace

extern "C" {

int KESTORCalcPointMatchInfo(const float* points1, const float* normals1, int count1,
                             const float* points2, const float* normals2, int count2,
                             const double* rt, double* info, double maxDistance, double maxAngle,
                             double minScore) {
    if (points1 == nullptr || points2 == nullptr || rt == nullptr || info == nullptr ||
        !countFits(count1, 3) || !countFits(count2, 3))
        return KESTOR_STATUS_BAD_ARGUMENT;
    double score;
    {
        const PointIndex index(points1, count1, 10);
        score = calcPointMatchScore(index, normals1, points2, normals2, count2, poseFrom(rt),
                                    infoView(info), maxDistance, maxAngle);
    }
    // A score equal to the limit reaches it.
    return minScore > score ? KESTOR_STATUS_FAILED : KESTOR_STATUS_OK;
}

int KESTORCalcVmapMatchInfo(const float* vmap1, const float* nmap1, const float* vmap2,
                            const float* nmap2, int width, int height, const double* k,
                            const double* rt, double* info, double maxDistance, double maxAngle,
                            double minScore) {
    if (vmap1 == nullptr || vmap2 == nullptr || k == nullptr || rt == nullptr || info == nullptr ||
        !imageFits(width, height))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const double score = calcVmapMatchScore(
        mapView(vmap1, width, height), mapView(nmap1, width, height), mapView(vmap2, width, height),
        mapView(nmap2, width, height), intrinsicsFromMatrix(k), poseFrom(rt), infoView(info),
        maxDistance, maxAngle);
    // With no valid source pixel the score is NaN, which does not fall below the limit.
    return minScore > score ? KESTOR_STATUS_FAILED : KESTOR_STATUS_OK;
}

int KESTORCalcVmapSelfMatchInfo(const float* vmap, int width, int height, const double* rt,
                                double* info) {
    if (vmap == nullptr || rt == nullptr || info == nullptr || !imageFits(width, height))
        return KESTOR_STATUS_BAD_ARGUMENT;
    calcVmapSelfInfo(mapView(vmap, width, height), poseFrom(rt), infoView(info));
    return KESTOR_STATUS_OK;
}

}  // extern "C"
