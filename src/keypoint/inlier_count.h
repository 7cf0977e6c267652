#pragma once
#include <cstdint>
#include <vector>

#include "core/rigid_transform.h"

namespace kestor {

// Point pairs (and optionally normal pairs) laid out one coordinate per array, padded with NaN
// to whole groups of 8, so the inlier test runs 8 pairs per step.
struct CorrespondenceLanes {
    int count = 0;
    bool normals = false;
    std::vector<float> source[3], target[3], sourceNormal[3], targetNormal[3];
};

// Builds the lanes from packed triples; normals are used only when both lists are given.
CorrespondenceLanes buildCorrespondenceLanes(const float* source, const float* target,
                                             const float* sourceNormals,
                                             const float* targetNormals, int count);

// Number of pairs with |R s + t - target|^2 strictly below radius2 and, with normals, a strictly
// positive dot(R sourceNormal, targetNormal). When mask is given, inliers get the byte 255.
int countInliers(const CorrespondenceLanes& lanes, const RT_<float>& rt, float radius2,
                 uint8_t* mask);

}  // namespace kestor
