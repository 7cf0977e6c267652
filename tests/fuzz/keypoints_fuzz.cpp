// The key-point family on small point and descriptor lists: duplicated points and descriptors,
// collinear and coincident points, NaN and huge coordinates, broken ratios and distances.
#include <vector>

#include "fuzz_input.h"
#include "kestor.h"

using kestor_fuzz::FuzzInput;

namespace {

void countMatches(const KESTORIndexPair* pairs, int count, void* context) {
    // The pairs must be readable for the whole count.
    int sum = 0;
    for (int i = 0; i < count; ++i) sum += pairs[i].first + pairs[i].second;
    *static_cast<int*>(context) += sum;
}

// count points: fresh ones, copies of earlier ones, points on one line, or one point repeated.
std::vector<float> keyPoints(FuzzInput& in, int count) {
    std::vector<float> p(size_t(count) * 3);
    const int shape = in.size(0, 3);
    for (int i = 0; i < count; ++i) {
        float* q = &p[size_t(i) * 3];
        if (shape == 1 && i > 0) {  // collinear
            const float s = in.mostlyValue(-2, 2);
            for (int c = 0; c < 3; ++c) q[c] = p[size_t(c)] * s;
        } else if (shape == 2 && i > 0) {  // one point
            for (int c = 0; c < 3; ++c) q[c] = p[size_t(c)];
        } else if (shape == 3 && i > 0 && in.flag()) {  // a duplicate of an earlier point
            const int j = in.size(0, i - 1);
            for (int c = 0; c < 3; ++c) q[c] = p[size_t(j) * 3 + size_t(c)];
        } else {
            for (int c = 0; c < 3; ++c) q[c] = in.mostlyValue(-2, 2);
        }
    }
    return p;
}

std::vector<float> descriptors(FuzzInput& in, int count, int dimension) {
    std::vector<float> d(size_t(count) * size_t(dimension));
    const bool duplicates = in.flag();
    for (size_t i = 0; i < d.size(); ++i)
        d[i] = duplicates && i >= size_t(dimension) ? d[i % size_t(dimension)] : in.mostlyValue(0, 1);
    return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const int op = in.size(0, 3);
    const int targetCount = in.size(1, 40), sourceCount = in.size(1, 40);
    const int dimension = in.size(1, 8);
    const std::vector<float> targetPoints = keyPoints(in, targetCount);
    const std::vector<float> sourcePoints = keyPoints(in, sourceCount);
    const std::vector<float> targetNormals = in.floats(size_t(targetCount) * 3, -1, 1);
    const std::vector<float> sourceNormals = in.floats(size_t(sourceCount) * 3, -1, 1);
    const std::vector<float> targetDescriptors = descriptors(in, targetCount, dimension);
    const std::vector<float> sourceDescriptors = descriptors(in, sourceCount, dimension);
    std::vector<double> result = in.pose();
    const bool crossCheck = in.flag(), useThreads = in.flag();
    int sink = 0;
    KESTORMatchesFunc onMatches = in.flag() ? countMatches : nullptr;

    switch (op) {
    case 0: {
        const int count = targetCount < sourceCount ? targetCount : sourceCount;
        KESTORAbsoluteOrientation(targetPoints.data(), sourcePoints.data(), count, result.data());
        break;
    }
    case 1: {
        std::vector<int> matches(static_cast<size_t>(sourceCount));
        std::vector<float> distances(static_cast<size_t>(sourceCount));
        KESTORMatchDescriptor(targetDescriptors.data(), targetCount, sourceDescriptors.data(),
                              matches.data(), in.flag() ? distances.data() : nullptr, sourceCount,
                              dimension, crossCheck, useThreads);
        break;
    }
    case 2:
        KESTORMatchKeyPointsRansac(targetPoints.data(), in.flag() ? targetNormals.data() : nullptr,
                                   targetDescriptors.data(), targetCount, sourcePoints.data(),
                                   in.flag() ? sourceNormals.data() : nullptr,
                                   sourceDescriptors.data(), sourceCount, dimension,
                                   result.data(), in.size(-1, 200), in.number(0.0, 1.0),
                                   in.number(0.0, 0.5), crossCheck, useThreads, onMatches, &sink);
        break;
    case 3:
        KESTORMatchKeyPointsIterative(targetPoints.data(), targetDescriptors.data(), targetCount,
                                      sourcePoints.data(), sourceDescriptors.data(), sourceCount,
                                      dimension, result.data(), in.size(-1, 20),
                                      in.number(0.0, 4.0), in.number(0.0, 0.5), crossCheck,
                                      useThreads, onMatches, &sink);
        break;
    }
    return 0;
}
