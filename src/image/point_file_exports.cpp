// Exports of the point file writers.
#include "core/argument_sizes.h"
#include "core/rigid_transform.h"
#include "image/point_files.h"
#include "kestor.h"

using namespace kestor;

extern "C" {

int KESTORWritePoints(const char* path, const float* points, const float* normals,
                      const uint8_t* colors, int count) {
    if (points == nullptr || !countFits(count, 3)) return KESTOR_STATUS_BAD_ARGUMENT;
    return writePoints(path, points, normals, colors, count) ? KESTOR_STATUS_OK
                                                             : KESTOR_STATUS_FAILED;
}

int KESTORWriteColorDepthToPoints(const char* path, const float* depth, const uint8_t* color,
                                  const uint8_t* mask, int width, int height, const double* K,
                                  const double* rt) {
    if (depth == nullptr || K == nullptr || rt == nullptr || !imageFits(width, height))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const bool written = writeColorDepthToPoints(
        path, packedView(depth, width, height),
        packedView(reinterpret_cast<const Byte3*>(color), width, height),
        packedView(mask, width, height), intrinsicsFromMatrix(K),
        // poseToFloat only reads the view.
        poseToFloat(poseView(const_cast<double*>(rt))));
    return written ? KESTOR_STATUS_OK : KESTOR_STATUS_FAILED;
}

}  // extern "C"
