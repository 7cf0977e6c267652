// Exports of the joint alignment of many frames: argument checks, the poses across the boundary
// and back, and the progress callback wrapped. After the checks they return 0 whatever the run
// did; a failed or cancelled run shows in the poses it left.
#include <vector>

#include "core/argument_sizes.h"
#include "kestor.h"
#include "multi/align_groups.h"
#include "multi/match_multi.h"

using namespace kestor;

namespace {

// The caller's poses read in, align(poses) run on them, and the poses written back; 0 whatever
// the run found.
template <typename Align>
int alignPoses(double* rts, int count, Align&& align) {
    std::vector<RT_<double>> poses(static_cast<size_t>(count));
    for (int f = 0; f < count; ++f) poses[size_t(f)] = poseToDouble(poseView(rts + 12 * f));
    align(poses);
    for (size_t f = 0; f < poses.size(); ++f) poseFromDouble(poses[f], poseView(rts + 12 * f));
    return KESTOR_STATUS_OK;
}

// At least two frames, and their poses (12 doubles each) countable with an int.
bool framesFit(int frameCount) { return frameCount >= 2 && countFits(frameCount, 12); }

// Point sets may be empty, but not negative or too large to index.
bool pointCountsFit(const int* sizes, int frameCount) {
    for (int f = 0; f < frameCount; ++f)
        if (sizes[f] < 0 || int64_t(sizes[f]) * 3 > kLargestValueCount) return false;
    return true;
}

}  // namespace

extern "C" {

int KESTORMatchMulti(const float* const* points, const float* const* normals,
                     const float* const* intensities, const int* sizes, const double* K,
                     double* rts, int frameCount, int iterations, double maxDistance,
                     double maxAngle, double minScore, double colorWeight, int refreshInterval,
                     bool parallel, bool log, KESTORProgressFunc progress, void* user) {
    if (points == nullptr || sizes == nullptr || rts == nullptr || !framesFit(frameCount) ||
        !(K != nullptr ? imageFits(sizes[0], sizes[1]) : pointCountsFit(sizes, frameCount)))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const MultiOptions options = multiOptions(iterations, maxDistance, maxAngle, minScore,
                                              colorWeight, refreshInterval, parallel, log);
    return alignPoses(rts, frameCount, [&](std::vector<RT_<double>>& poses) {
        // With a camera the arrays are maps of sizes[0] x sizes[1]; without, point sets.
        if (K != nullptr)
            matchMultiImages(points, normals, intensities, sizes[0], sizes[1],
                             intrinsicsFromMatrix(K), poses, options, wrapProgress(progress, user));
        else
            matchMultiPoints(points, normals, intensities, sizes, poses, options,
                             wrapProgress(progress, user));
    });
}

int KESTORMatchMultiVmapNmap(const float* const* vmaps, const float* const* nmaps,
                             const float* const* grays, const float* const* gradXs,
                             const float* const* gradYs, int width, int height, const double* K,
                             double* rts, int frameCount, int iterations, double maxDistance,
                             double maxAngle, double minScore, double colorWeight,
                             int refreshInterval, bool parallel, bool log,
                             KESTORProgressFunc progress, void* user) {
    if (vmaps == nullptr || K == nullptr || rts == nullptr || !imageFits(width, height) ||
        !framesFit(frameCount))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const MultiOptions options = multiOptions(iterations, maxDistance, maxAngle, minScore,
                                              colorWeight, refreshInterval, parallel, log);
    return alignPoses(rts, frameCount, [&](std::vector<RT_<double>>& poses) {
        matchMultiVmap(vmaps, nmaps, grays, gradXs, gradYs, width, height,
                       intrinsicsFromMatrix(K), poses, options, wrapProgress(progress, user));
    });
}

int KESTORMatchMultiDepth(const float* const* depths, const unsigned char* const* colors,
                          const unsigned char* const* masks, int width, int height,
                          const double* K, double* rts, int frameCount, int iterations,
                          double maxDistance, double maxAngle, double minScore,
                          double colorWeight, int refreshInterval, bool parallel, bool log,
                          KESTORProgressFunc progress, void* user) {
    if (depths == nullptr || K == nullptr || rts == nullptr || !imageFits(width, height) ||
        !framesFit(frameCount))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const MultiOptions options = multiOptions(iterations, maxDistance, maxAngle, minScore,
                                              colorWeight, refreshInterval, parallel, log);
    return alignPoses(rts, frameCount, [&](std::vector<RT_<double>>& poses) {
        matchMultiDepth(depths, colors, masks, width, height, intrinsicsFromMatrix(K), poses,
                        options, wrapProgress(progress, user));
    });
}

int KESTORMatchMultiDepthInGroup(const float* const* depths, const unsigned char* const* colors,
                                 const unsigned char* const* masks, int width, int height,
                                 const double* K, double* rts, const int* groupIds,
                                 int frameCount, int iterations, double maxDistance,
                                 double maxAngle, double minScore, double colorWeight,
                                 bool parallel, bool log, KESTORProgressFunc progress,
                                 void* user) {
    if (depths == nullptr || rts == nullptr || groupIds == nullptr || !imageFits(width, height) ||
        !framesFit(frameCount))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const MultiOptions options =
        multiOptions(iterations, maxDistance, maxAngle, minScore, colorWeight, 0, parallel, log);
    return alignPoses(rts, frameCount, [&](std::vector<RT_<double>>& poses) {
        matchGroupsDepth(depths, colors, masks, width, height, intrinsicsFromMatrix(K), poses,
                         groupIds, options, wrapProgress(progress, user));
    });
}

int KESTORMatchMultiVmapNmapInGroup(const float* const* vmaps, const float* const* nmaps,
                                    const float* const* grays, const float* const* gradXs,
                                    const float* const* gradYs, int width, int height,
                                    const double* K, double* rts, const int* groupIds,
                                    int frameCount, int iterations, double maxDistance,
                                    double maxAngle, double minScore, double colorWeight,
                                    bool parallel, bool log, KESTORProgressFunc progress,
                                    void* user) {
    if (vmaps == nullptr || rts == nullptr || groupIds == nullptr || !imageFits(width, height) ||
        !framesFit(frameCount))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const MultiOptions options =
        multiOptions(iterations, maxDistance, maxAngle, minScore, colorWeight, 0, parallel, log);
    return alignPoses(rts, frameCount, [&](std::vector<RT_<double>>& poses) {
        matchGroupsVmap(vmaps, nmaps, grays, gradXs, gradYs, width, height,
                        intrinsicsFromMatrix(K), poses, groupIds, options,
                        wrapProgress(progress, user));
    });
}

}  // extern "C"
