// Exports of the image kernels: argument checks, then views over the caller's packed arrays.
#include "core/rigid_transform.h"
#include "image/color_points.h"
#include "image/filter_kernels.h"
#include "image/gray_gradient.h"
#include "image/point_lookup.h"
#include "image/pyramid.h"
#include "image/vertex_normal_maps.h"
#include "kestor.h"

using namespace kestor;

namespace {

// The smoothing of the pyramid levels.
constexpr double kPyramidSigma = 0.5;

ImageView<const Byte3> colorView(const uint8_t* color, int width, int height) {
    return packedView(reinterpret_cast<const Byte3*>(color), width, height);
}

}  // namespace

extern "C" {

int KESTORDepthToVmapNmap(const double* K, const float* depth, const uint8_t* mask, float* vmap,
                          float* nmap, int width, int height) {
    if (K == nullptr || depth == nullptr || vmap == nullptr || width < 1 || height < 1)
        return KESTOR_STATUS_BAD_ARGUMENT;
    const Intrinsics k = intrinsicsFromMatrix(K);
    const auto vertices = packedView(reinterpret_cast<Float3*>(vmap), width, height);
    if (nmap != nullptr)
        depthToVmapNmap(k, packedView(depth, width, height), packedView(mask, width, height),
                        vertices, packedView(reinterpret_cast<Float3*>(nmap), width, height));
    else
        depthToVmap(k, packedView(depth, width, height), packedView(mask, width, height), vertices);
    return KESTOR_STATUS_OK;
}

int KESTORCalcPyramidVmapNmap(const double* K, const float* depth, const uint8_t* color,
                              const uint8_t* mask, float** vmaps, float** nmaps, float** grays,
                              float** gradXs, float** gradYs, int width, int height, int levels,
                              bool useMagnitude) {
    if (K == nullptr || depth == nullptr || vmaps == nullptr || nmaps == nullptr || width < 1 ||
        height < 1 || levels < 1)
        return KESTOR_STATUS_BAD_ARGUMENT;
    calcPyramid(intrinsicsFromMatrix(K), depth, color, mask, vmaps, nmaps, grays, gradXs, gradYs,
                width, height, levels, useMagnitude, kPyramidSigma);
    return KESTOR_STATUS_OK;
}

int KESTORCalcGrayAndGradient(const uint8_t* color, float* gray, float* gradX, float* gradY,
                              int width, int height, double sigma, bool useMagnitude,
                              bool parallel) {
    if (color == nullptr || gray == nullptr || gradX == nullptr || gradY == nullptr ||
        width < 1 || height < 1)
        return KESTOR_STATUS_BAD_ARGUMENT;
    calcGrayAndGradient(colorView(color, width, height), packedView(gray, width, height),
                        packedView(gradX, width, height), packedView(gradY, width, height), sigma,
                        useMagnitude, parallel);
    return KESTOR_STATUS_OK;
}

int KESTORDepthToMask(const float* depth, uint8_t* mask, int width, int height) {
    if (depth == nullptr || mask == nullptr || width < 1 || height < 1)
        return KESTOR_STATUS_BAD_ARGUMENT;
    depthToMask(packedView(depth, width, height), packedView(mask, width, height));
    return KESTOR_STATUS_OK;
}

int KESTORCvtUVToPointFromDepth(const double* K, const float* depth, int width, int height,
                                const float* uv, float* points, float* normals, int count,
                                bool parallel) {
    if (K == nullptr || depth == nullptr || uv == nullptr || points == nullptr ||
        normals == nullptr || width < 1 || height < 1 || count < 1)
        return KESTOR_STATUS_BAD_ARGUMENT;
    pixelsToPoints(intrinsicsFromMatrix(K), packedView(depth, width, height), uv, points, normals,
                   count, parallel);
    return KESTOR_STATUS_OK;
}

int KESTORColorDepthToPoints(const float* depth, const uint8_t* color, const uint8_t* mask,
                             int width, int height, const double* K, const double* rt,
                             KESTORPointsFunc callback, void* user) {
    if (depth == nullptr || callback == nullptr || width < 1 || height < 1)
        return KESTOR_STATUS_BAD_ARGUMENT;
    const PointsCallback deliver = [callback, user](const float* points, const float* normals,
                                                    const uint8_t* colors, int count) {
        callback(points, normals, colors, count, user);
    };
    colorDepthToPoints(intrinsicsFromMatrix(K), packedView(depth, width, height),
                       colorView(color, width, height), packedView(mask, width, height),
                       // poseToFloat only reads the view.
                       poseToFloat(poseView(const_cast<double*>(rt))), deliver);
    return KESTOR_STATUS_OK;
}

}  // extern "C"
