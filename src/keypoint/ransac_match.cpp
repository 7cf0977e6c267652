#include <vector>

#include "keypoint/descriptor_match.h"
#include "keypoint/ransac_match.h"

namespace kestor {

int matchKeyPointsRansacCore(const float* targetPoints, const float* targetNormals,
                             const float* targetDescriptors, int targetCount,
                             const float* sourcePoints, const float* sourceNormals,
                             const float* sourceDescriptors, int sourceCount, int dimension,
                             const ImageView<double>& result, const ImageView<int>& matches,
                             int iterations, double edgeRatio, double inlierDistance,
                             bool crossCheck, bool parallel) {
    int* match = matches.data;
    matchDescriptors(targetDescriptors, targetCount, sourceDescriptors, match, nullptr,
                     sourceCount, dimension, crossCheck, parallel);

    // The correspondence list, in ascending source index.
    const bool normals = sourceNormals != nullptr && targetNormals != nullptr;
    std::vector<float> source, target, sourceN, targetN;
    std::vector<int> sourceIndex;
    for (int s = 0; s < sourceCount; ++s) {
        const int t = match[s];
        if (t == -1) continue;
        sourceIndex.push_back(s);
        source.insert(source.end(), sourcePoints + s * 3, sourcePoints + s * 3 + 3);
        target.insert(target.end(), targetPoints + t * 3, targetPoints + t * 3 + 3);
        if (normals) {
            sourceN.insert(sourceN.end(), sourceNormals + s * 3, sourceNormals + s * 3 + 3);
            targetN.insert(targetN.end(), targetNormals + t * 3, targetNormals + t * 3 + 3);
        }
    }
    const int n = int(sourceIndex.size());
    std::vector<uint8_t> mask(size_t(n), 0);
    const int inliers = searchRigidMotion(
        source.data(), target.data(), normals ? sourceN.data() : nullptr,
        normals ? targetN.data() : nullptr, n, result, packedView(mask.data(), n, 1), iterations,
        edgeRatio, inlierDistance, parallel);
    for (int c = 0; c < n; ++c)
        if (mask[size_t(c)] == 0) match[sourceIndex[size_t(c)]] = -1;
    return inliers;
}

void matchKeyPointsRansac(const float* targetPoints, const float* targetNormals,
                          const float* targetDescriptors, int targetCount,
                          const float* sourcePoints, const float* sourceNormals,
                          const float* sourceDescriptors, int sourceCount, int dimension,
                          const ImageView<double>& result, int iterations, double edgeRatio,
                          double inlierDistance, bool crossCheck, bool parallel,
                          const MatchesFunc& onMatches) {
    std::vector<int> matches(size_t(sourceCount), 0);
    const int inliers = matchKeyPointsRansacCore(
        targetPoints, targetNormals, targetDescriptors, targetCount, sourcePoints, sourceNormals,
        sourceDescriptors, sourceCount, dimension, result,
        packedView(matches.data(), sourceCount, 1), iterations, edgeRatio, inlierDistance,
        crossCheck, parallel);
    reportMatches(matches.data(), sourceCount, inliers, onMatches);
}

}  // namespace kestor
