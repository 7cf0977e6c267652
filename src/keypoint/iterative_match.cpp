#include "keypoint/iterative_match.h"

#include <vector>

#include "core/normal_rows.h"
#include "keypoint/descriptor_match.h"
#include "keypoint/vec3.h"
#include "pair/solve_dense.h"

namespace kestor {

int refineGemanMcClure(const float* source, const float* target, int n, RT_<float>& pose,
                       int iterations, float initialScale, float finalDistance) {
    using V = Vec3<float>;
    float scale = initialScale;
    const float limit = finalDistance * finalDistance;
    int k = 0;
    for (; k < iterations; ++k) {
        if (limit > scale) break;
        double JTJ[36] = {0};
        double JTr[6] = {0};
        const V t{pose.translation[0], pose.translation[1], pose.translation[2]};
        for (int c = 0; c < n; ++c) {
            const V p = rotate(pose.rotation, loadVec3<float>(source + c * 3)) + t;
            const V e = loadVec3<float>(target + c * 3) - p;
            const float d2 = dot(e, e);
            const float w = scale / (d2 + scale);
            const float s = w * w;
            // Rows of the residual's derivative, each already scaled by s, as is the residual:
            // the pair's weight in the normal equations is s^2 = w^4.
            const float rows[3][6] = {{0, -s * p.z, s * p.y, -s, 0, 0},
                                      {s * p.z, 0, -s * p.x, 0, -s, 0},
                                      {-s * p.y, s * p.x, 0, 0, 0, -s}};
            const float residual[3] = {s * e.x, s * e.y, s * e.z};
            for (int r = 0; r < 3; ++r) addNormalRow<6>(JTJ, JTr, rows[r], residual[r]);
        }
        mirrorUpper<6>(JTJ);
        double u[6];
        solveDense(JTJ, JTr, u, 6);

        // The step goes on the left, with the opposite sign of the solved vector.
        float D[9];
        eulerToRotation<float>(float(-u[0]), float(-u[1]), float(-u[2]), D);
        float rotation[9];
        multiplyRotations(D, pose.rotation, rotation);
        const V moved = rotate(D, t);
        for (int i = 0; i < 9; ++i) pose.rotation[i] = rotation[i];
        pose.translation[0] = moved.x - float(u[3]);
        pose.translation[1] = moved.y - float(u[4]);
        pose.translation[2] = moved.z - float(u[5]);

        if (k > 0 && k % 8 == 0) scale *= 0.5f;
    }
    return k;
}

void matchKeyPointsIterative(const float* targetPoints, const float* targetDescriptors,
                             int targetCount, const float* sourcePoints,
                             const float* sourceDescriptors, int sourceCount, int dimension,
                             const ImageView<double>& result, int iterations, double initialScale,
                             double finalDistance, bool crossCheck, bool parallel,
                             const MatchesFunc& onMatches) {
    using V = Vec3<float>;
    std::vector<int> matches(size_t(sourceCount), 0);
    matchDescriptors(targetDescriptors, targetCount, sourceDescriptors, matches.data(), nullptr,
                     sourceCount, dimension, crossCheck, parallel);

    // Packed pairs, in ascending source index, for the inner loop.
    std::vector<float> source, target;
    std::vector<int> sourceIndex;
    for (int s = 0; s < sourceCount; ++s) {
        const int t = matches[size_t(s)];
        if (t == -1) continue;
        sourceIndex.push_back(s);
        source.insert(source.end(), sourcePoints + s * 3, sourcePoints + s * 3 + 3);
        target.insert(target.end(), targetPoints + t * 3, targetPoints + t * 3 + 3);
    }
    const int n = int(sourceIndex.size());
    const float finalF = float(finalDistance);

    RT_<float> pose = poseToFloat(result);
    refineGemanMcClure(source.data(), target.data(), n, pose, iterations, float(initialScale),
                       finalF);
    poseFromFloat(pose, result);

    // Keep the pairs the final pose brings within finalDistance.
    const RT_<float> final = poseToFloat(result);
    const float limit = finalF * finalF;
    const V t{final.translation[0], final.translation[1], final.translation[2]};
    int kept = 0;
    for (int c = 0; c < n; ++c) {
        const V e = loadVec3<float>(target.data() + c * 3) -
                    (rotate(final.rotation, loadVec3<float>(source.data() + c * 3)) + t);
        if (dot(e, e) < limit)
            ++kept;
        else
            matches[size_t(sourceIndex[size_t(c)])] = -1;
    }
    reportMatches(matches.data(), sourceCount, kept, onMatches);
}

}  // namespace kestor
