// Exports of the pair entries: argument checks, views over the caller's packed arrays, the
// progress binding, and the worker's bool turned into a status.
#include "core/argument_sizes.h"
#include "core/progress.h"
#include "kestor.h"
#include "pair/pair_entries.h"

using namespace kestor;

namespace {

ImageView<double> optionalInfo(double* info) { return info ? infoView(info) : ImageView<double>{}; }

int statusOf(bool ok) { return ok ? KESTOR_STATUS_OK : KESTOR_STATUS_FAILED; }

PairRunOptions optionsOf(int iterations, double maxDistance, double maxAngle, double minScore,
                         double colorWeight, bool parallel, bool verbose,
                         KESTORProgressFunc progress, void* user) {
    return PairRunOptions{iterations, maxDistance, maxAngle, minScore, colorWeight,
                          parallel,   verbose,     wrapProgress(progress, user)};
}

// Every level of a given array of maps must be there; an absent array is fine.
bool levelsPresent(const float* const* maps, int levels) {
    if (maps == nullptr) return true;
    for (int l = 0; l < levels; ++l)
        if (maps[l] == nullptr) return false;
    return true;
}

std::vector<ImageView<const Float3>> levelMaps3(const float* const* maps, int w, int h, int levels) {
    std::vector<ImageView<const Float3>> out;
    if (maps == nullptr) return out;
    for (int l = 0; l < levels; ++l)
        out.push_back(packedView(reinterpret_cast<const Float3*>(maps[l]), w >> l, h >> l));
    return out;
}

std::vector<ImageView<const float>> levelMaps1(const float* const* maps, int w, int h, int levels) {
    std::vector<ImageView<const float>> out;
    if (maps == nullptr) return out;
    for (int l = 0; l < levels; ++l) out.push_back(packedView(maps[l], w >> l, h >> l));
    return out;
}

}  // namespace

extern "C" {

int KESTORMatchPair(const float* vertices1, const float* normals1, const float* gray1,
                    const float* vertices2, const float* normals2, const float* gray2,
                    const int* sizes, const double* K, double* rt, double* info, int iterations,
                    double maxDistance, double maxAngle, double minScore, double colorWeight,
                    bool parallel, bool verbose, KESTORProgressFunc progress, void* user) {
    // With a camera the sizes are an image's, without they are the two point counts.
    if (vertices1 == nullptr || vertices2 == nullptr || sizes == nullptr || rt == nullptr ||
        !(K != nullptr ? imageFits(sizes[0], sizes[1])
                       : countFits(sizes[0], 3) && countFits(sizes[1], 3)))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const PairRunOptions o = optionsOf(iterations, maxDistance, maxAngle, minScore, colorWeight,
                                       parallel, verbose, progress, user);
    if (K == nullptr)
        return statusOf(matchPairPoints(vertices1, normals1, gray1, sizes[0], vertices2, normals2,
                                        gray2, sizes[1], poseView(rt), optionalInfo(info), o));
    return statusOf(matchPairImages(intrinsicsFromMatrix(K), sizes[0], sizes[1], vertices1,
                                    normals1, gray1, vertices2, normals2, gray2, poseView(rt),
                                    optionalInfo(info), o));
}

int KESTORMatchPairDepth(const float* depth1, const uint8_t* color1, const uint8_t* mask1,
                         const float* depth2, const uint8_t* color2, const uint8_t* mask2,
                         int width, int height, const double* K, double* rt, double* info,
                         int iterations, double maxDistance, double maxAngle, double minScore,
                         double colorWeight, bool parallel, bool verbose,
                         KESTORProgressFunc progress, void* user) {
    if (depth1 == nullptr || depth2 == nullptr || K == nullptr || rt == nullptr ||
        !imageFits(width, height))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const PairRunOptions o = optionsOf(iterations, maxDistance, maxAngle, minScore, colorWeight,
                                       parallel, verbose, progress, user);
    const Intrinsics k = intrinsicsFromMatrix(K);
    if (color1 != nullptr && color2 != nullptr)
        return statusOf(matchPairDepthColor(k, width, height, depth1, color1, mask1, depth2,
                                            color2, mask2, poseView(rt), optionalInfo(info), o));
    return statusOf(
        matchPairDepthOnly(k, width, height, depth1, depth2, poseView(rt), optionalInfo(info), o));
}

int KESTORMatchPairVmapNmap(const float* vmap1, const float* nmap1, const float* gray1,
                            const float* gradX1, const float* gradY1, const float* vmap2,
                            const float* nmap2, const float* gray2, int width, int height,
                            const double* K, double* rt, double* info, int iterations,
                            double maxDistance, double maxAngle, double minScore,
                            double colorWeight, bool parallel, bool verbose,
                            KESTORProgressFunc progress, void* user) {
    if (vmap1 == nullptr || vmap2 == nullptr || K == nullptr || rt == nullptr ||
        !imageFits(width, height))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const PairRunOptions o = optionsOf(iterations, maxDistance, maxAngle, minScore, colorWeight,
                                       parallel, verbose, progress, user);
    return statusOf(matchPairVmap(intrinsicsFromMatrix(K), width, height, vmap1, nmap1, gray1,
                                  gradX1, gradY1, vmap2, nmap2, gray2, poseView(rt),
                                  optionalInfo(info), o));
}

// Beyond the required arguments, every level of each given array must be present, the coarsest
// level must have pixels, and the final score (run when `info` is given) needs the source normals.
int KESTORMatchPairVmapNmapPyramid(const float* const* vmaps1, const float* const* nmaps1,
                                   const float* const* grays1, const float* const* gradXs1,
                                   const float* const* gradYs1, const float* const* vmaps2,
                                   const float* const* nmaps2, const float* const* grays2,
                                   int width, int height, const double* K, double* rt,
                                   double* info, const int* iterationsPerLevel,
                                   const double* maxDistancePerLevel, int levels, double maxAngle,
                                   double minScore, double colorWeight, bool parallel,
                                   bool verbose, KESTORProgressFunc progress, void* user) {
    if (vmaps1 == nullptr || vmaps2 == nullptr || iterationsPerLevel == nullptr ||
        maxDistancePerLevel == nullptr || K == nullptr || rt == nullptr ||
        !pyramidFits(width, height, levels) ||
        !levelsPresent(vmaps1, levels) || !levelsPresent(vmaps2, levels) ||
        !levelsPresent(nmaps1, levels) || !levelsPresent(nmaps2, levels) ||
        !levelsPresent(grays1, levels) || !levelsPresent(gradXs1, levels) ||
        !levelsPresent(gradYs1, levels) || !levelsPresent(grays2, levels) ||
        (info != nullptr && nmaps2 == nullptr))
        return KESTOR_STATUS_BAD_ARGUMENT;
    PairPyramid maps;
    maps.vmaps1 = levelMaps3(vmaps1, width, height, levels);
    maps.nmaps1 = levelMaps3(nmaps1, width, height, levels);
    maps.vmaps2 = levelMaps3(vmaps2, width, height, levels);
    maps.nmaps2 = levelMaps3(nmaps2, width, height, levels);
    maps.grays1 = levelMaps1(grays1, width, height, levels);
    maps.gradXs1 = levelMaps1(gradXs1, width, height, levels);
    maps.gradYs1 = levelMaps1(gradYs1, width, height, levels);
    maps.grays2 = levelMaps1(grays2, width, height, levels);
    return statusOf(matchPairPyramid(intrinsicsFromMatrix(K), maps, poseView(rt),
                                     optionalInfo(info), iterationsPerLevel, maxDistancePerLevel,
                                     levels, maxAngle, minScore, colorWeight, parallel, verbose,
                                     wrapProgress(progress, user)));
}

}  // extern "C"
