#include "pair/pair_entries.h"

#include <vector>

#include "core/parallel_for.h"
#include "core/rigid_transform.h"
#include "image/filter_kernels.h"
#include "image/gray_gradient.h"
#include "image/vertex_normal_maps.h"
#include "pair/match_measures.h"
#include "pair/match_vmap.h"
#include "pair/point_index.h"
#include "pair/point_set_registration.h"

namespace kestor {

namespace {

ImageView<const Float3> map3(const float* data, int width, int height) {
    return packedView(reinterpret_cast<const Float3*>(data), width, height);
}
ImageView<const float> map1(const float* data, int width, int height) {
    return packedView(data, width, height);
}

// Closes every path over maps: only after a successful run and with an information view, the
// score at the final pose must exceed minScore. The pose stays at the solver's result either way.
bool finalScoreTest(bool solved, const ImageView<const Float3>& vmap1,
                    const ImageView<const Float3>& nmap1, const ImageView<const Float3>& vmap2,
                    const ImageView<const Float3>& nmap2, const Intrinsics& k,
                    const ImageView<double>& pose, const ImageView<double>& info,
                    double maxDistance, double maxAngle, double minScore) {
    if (!solved || info.data == nullptr) return solved;
    const double score = calcVmapMatchScore(vmap1, nmap1, vmap2, nmap2, k, poseToFloat(pose), info,
                                            maxDistance, maxAngle);
    return score > minScore;
}

bool runColored(const Intrinsics& k, const ImageView<const Float3>& v1,
                const ImageView<const Float3>& n1, const ImageView<const float>& g1,
                const ImageView<const float>& gx1, const ImageView<const float>& gy1,
                const ImageView<const Float3>& v2, const ImageView<const Float3>& n2,
                const ImageView<const float>& g2, const ImageView<double>& pose,
                const PairRunOptions& o) {
    return matchVmapColored(k, v1, n1, g1, gx1, gy1, v2, n2, g2, pose, o.iterations,
                            o.maxDistance, o.maxAngle, o.minScore, o.colorWeight, o.log,
                            o.progress, o.parallel);
}

}  // namespace

bool matchPairImages(const Intrinsics& k, int width, int height, const float* vertices1,
                     const float* normals1, const float* gray1, const float* vertices2,
                     const float* normals2, const float* gray2, const ImageView<double>& pose,
                     const ImageView<double>& info, const PairRunOptions& o) {
    const auto v1 = map3(vertices1, width, height), v2 = map3(vertices2, width, height);
    const auto n1 = map3(normals1, width, height), n2 = map3(normals2, width, height);
    bool solved;
    if (normals1 != nullptr && normals2 != nullptr && gray1 != nullptr && gray2 != nullptr) {
        // Only the target gets gradients, of its gray smoothed with sigma 1.6.
        std::vector<float> gx(size_t(width) * size_t(height)), gy(gx.size());
        gaussianGradient(map1(gray1, width, height), packedView(gx.data(), width, height),
                         packedView(gy.data(), width, height), 1.6, o.parallel);
        solved = runColored(k, v1, n1, map1(gray1, width, height), map1(gx.data(), width, height),
                            map1(gy.data(), width, height), v2, n2, map1(gray2, width, height),
                            pose, o);
    } else if (normals1 != nullptr && normals2 != nullptr) {
        solved = matchVmapPlane(k, v1, n1, v2, n2, pose, o.iterations, o.maxDistance, o.maxAngle,
                                o.minScore, o.log, o.progress, o.parallel);
    } else {
        solved = matchVmapPoint(k, v1, v2, pose, o.iterations, o.maxDistance, o.minScore, o.log,
                                o.progress, o.parallel);
    }
    return finalScoreTest(solved, v1, n1, v2, n2, k, pose, info, o.maxDistance, o.maxAngle,
                          o.minScore);
}

bool matchPairPoints(const float* points1, const float* normals1, const float* gray1, int count1,
                     const float* points2, const float* normals2, const float* gray2, int count2,
                     const ImageView<double>& pose, const ImageView<double>& info,
                     const PairRunOptions& o) {
    const PointIndex index(points1, count1, 10);
    bool solved;
    if (normals1 == nullptr || normals2 == nullptr) {
        solved = matchPointToPoint(index, points2, count2, pose, o.iterations, o.maxDistance,
                                   o.minScore, o.log, o.progress);
    } else if (gray1 != nullptr && gray2 != nullptr) {
        std::vector<float> gradients(size_t(count1) * 3);
        calcPointGradient(index, normals1, gray1, gradients.data(), count1, 2 * o.maxDistance,
                          o.parallel);
        solved = matchColoredPoints(index, normals1, gray1, gradients.data(), points2, normals2,
                                    gray2, count2, pose, o.iterations, o.maxDistance, o.maxAngle,
                                    o.minScore, o.colorWeight, o.log, o.progress);
    } else {
        solved = matchPointToPlane(index, normals1, points2, normals2, count2, pose, o.iterations,
                                   o.maxDistance, o.maxAngle, o.minScore, o.log, o.progress);
    }
    if (!solved || info.data == nullptr) return solved;
    return calcPointMatchScore(index, normals1, points2, normals2, count2, poseToFloat(pose), info,
                               o.maxDistance, o.maxAngle) > o.minScore;
}

namespace {

// Vertex and normal maps of a depth image, into scratch arrays.
struct DepthMaps {
    std::vector<Float3> vmap, nmap;
    DepthMaps(const Intrinsics& k, const float* depth, const uint8_t* mask, int width, int height)
        : vmap(size_t(width) * size_t(height)), nmap(vmap.size()) {
        const auto v = packedView(vmap.data(), width, height);
        depthToVmapNmap(k, packedView(depth, width, height), packedView(mask, width, height), v,
                        packedView(nmap.data(), width, height));
    }
};

}  // namespace

bool matchPairDepthColor(const Intrinsics& k, int width, int height, const float* depth1,
                         const uint8_t* color1, const uint8_t* mask1, const float* depth2,
                         const uint8_t* color2, const uint8_t* mask2, const ImageView<double>& pose,
                         const ImageView<double>& info, const PairRunOptions& o) {
    const DepthMaps m1(k, depth1, mask1, width, height), m2(k, depth2, mask2, width, height);
    const size_t pixels = size_t(width) * size_t(height);
    // The source keeps the smoothed image; the target's gray becomes its gradient magnitude.
    std::vector<float> gray2(pixels), gray1(pixels), gx(pixels), gy(pixels);
    const auto g2 = packedView(gray2.data(), width, height);
    colorToGray(packedView(reinterpret_cast<const Byte3*>(color2), width, height), g2);
    gaussianSmooth(constView(g2), 1.6, g2);
    calcGrayAndGradient(packedView(reinterpret_cast<const Byte3*>(color1), width, height),
                        packedView(gray1.data(), width, height), packedView(gx.data(), width, height),
                        packedView(gy.data(), width, height), 1.6, true, o.parallel);
    const auto v1 = packedView<const Float3>(m1.vmap.data(), width, height);
    const auto n1 = packedView<const Float3>(m1.nmap.data(), width, height);
    const auto v2 = packedView<const Float3>(m2.vmap.data(), width, height);
    const auto n2 = packedView<const Float3>(m2.nmap.data(), width, height);
    const bool solved = runColored(k, v1, n1, map1(gray1.data(), width, height),
                                   map1(gx.data(), width, height), map1(gy.data(), width, height),
                                   v2, n2, map1(gray2.data(), width, height), pose, o);
    return finalScoreTest(solved, v1, n1, v2, n2, k, pose, info, o.maxDistance, o.maxAngle,
                          o.minScore);
}

bool matchPairDepthOnly(const Intrinsics& k, int width, int height, const float* depth1,
                        const float* depth2, const ImageView<double>& pose,
                        const ImageView<double>& info, const PairRunOptions& o) {
    const DepthMaps m1(k, depth1, nullptr, width, height), m2(k, depth2, nullptr, width, height);
    const auto v1 = packedView<const Float3>(m1.vmap.data(), width, height);
    const auto n1 = packedView<const Float3>(m1.nmap.data(), width, height);
    const auto v2 = packedView<const Float3>(m2.vmap.data(), width, height);
    const auto n2 = packedView<const Float3>(m2.nmap.data(), width, height);
    const bool solved = matchVmapPlane(k, v1, n1, v2, n2, pose, o.iterations, o.maxDistance,
                                       o.maxAngle, o.minScore, o.log, o.progress, o.parallel);
    return finalScoreTest(solved, v1, n1, v2, n2, k, pose, info, o.maxDistance, o.maxAngle,
                          o.minScore);
}

bool matchPairVmap(const Intrinsics& k, int width, int height, const float* vmap1,
                   const float* nmap1, const float* gray1, const float* gradX1,
                   const float* gradY1, const float* vmap2, const float* nmap2,
                   const float* gray2, const ImageView<double>& pose,
                   const ImageView<double>& info, const PairRunOptions& o) {
    const auto v1 = map3(vmap1, width, height), v2 = map3(vmap2, width, height);
    const auto n1 = map3(nmap1, width, height), n2 = map3(nmap2, width, height);
    bool solved;
    if (nmap1 == nullptr || nmap2 == nullptr) {
        solved = matchVmapPoint(k, v1, v2, pose, o.iterations, o.maxDistance, o.minScore, o.log,
                                o.progress, o.parallel);
    } else if (gray1 != nullptr && gray2 != nullptr && gradX1 != nullptr && gradY1 != nullptr) {
        solved = runColored(k, v1, n1, map1(gray1, width, height), map1(gradX1, width, height),
                            map1(gradY1, width, height), v2, n2, map1(gray2, width, height), pose,
                            o);
    } else {
        solved = matchVmapPlane(k, v1, n1, v2, n2, pose, o.iterations, o.maxDistance, o.maxAngle,
                                o.minScore, o.log, o.progress, o.parallel);
    }
    return finalScoreTest(solved, v1, n1, v2, n2, k, pose, info, o.maxDistance, o.maxAngle,
                          o.minScore);
}

bool matchPairPyramid(const Intrinsics& k, const PairPyramid& maps, const ImageView<double>& pose,
                      const ImageView<double>& info, const int* iterationsPerLevel,
                      const double* maxDistancePerLevel, int levels, double maxAngle,
                      double minScore, double colorWeight, bool parallel, bool log,
                      const ProgressFunc& progress) {
    const bool solved = runPyramidLevels(k, maps, pose, iterationsPerLevel, maxDistancePerLevel,
                                         levels, maxAngle, minScore, colorWeight, log, progress,
                                         parallel);
    const ImageView<const Float3> none{};
    return finalScoreTest(solved, maps.vmaps1[0], maps.nmaps1.empty() ? none : maps.nmaps1[0],
                          maps.vmaps2[0], maps.nmaps2.empty() ? none : maps.nmaps2[0], k, pose,
                          info, maxDistancePerLevel[0], maxAngle, minScore);
}

}  // namespace kestor
