// Exports of the key-point family: argument checks, then the workers on the caller's arrays.
#include "core/argument_sizes.h"
#include "core/image_view.h"
#include "kestor.h"
#include "keypoint/absolute_orientation.h"
#include "keypoint/descriptor_match.h"
#include "keypoint/iterative_match.h"
#include "keypoint/ransac_match.h"

using namespace kestor;

namespace {

// Both lists of points (3 floats each) and descriptors (dimension floats each) indexable.
bool keyPointsFit(int targetCount, int sourceCount, int dimension) {
    return dimension >= 1 && countFits(targetCount, 3) && countFits(sourceCount, 3) &&
           countFits(targetCount, dimension) && countFits(sourceCount, dimension);
}

}  // namespace

extern "C" {

int KESTORAbsoluteOrientation(const float* targetPoints, const float* sourcePoints, int count,
                              double* result) {
    if (targetPoints == nullptr || sourcePoints == nullptr || !countFits(count, 3) ||
        result == nullptr)
        return KESTOR_STATUS_BAD_ARGUMENT;
    float rt[12];
    calcAbsoluteOrientation(targetPoints, sourcePoints, count, rt);
    RT_<float> pose;
    for (int i = 0; i < 9; ++i) pose.rotation[i] = rt[i];
    for (int i = 0; i < 3; ++i) pose.translation[i] = rt[9 + i];
    poseFromFloat(pose, poseView(result));
    return KESTOR_STATUS_OK;
}

int KESTORMatchDescriptor(const float* trainDescriptors, int trainCount,
                          const float* queryDescriptors, int* matches, float* distances,
                          int queryCount, int dimension, bool crossCheck, bool useThreads) {
    if (trainDescriptors == nullptr || queryDescriptors == nullptr || matches == nullptr ||
        dimension < 1 || !countFits(trainCount, dimension) || !countFits(queryCount, dimension))
        return KESTOR_STATUS_BAD_ARGUMENT;
    matchDescriptors(trainDescriptors, trainCount, queryDescriptors, matches, distances,
                     queryCount, dimension, crossCheck, useThreads);
    return KESTOR_STATUS_OK;
}

int KESTORMatchKeyPointsRansac(const float* targetPoints, const float* targetNormals,
                               const float* targetDescriptors, int targetCount,
                               const float* sourcePoints, const float* sourceNormals,
                               const float* sourceDescriptors, int sourceCount, int dimension,
                               double* result, int iterations, double edgeRatio,
                               double inlierDistance, bool crossCheck, bool useThreads,
                               KESTORMatchesFunc onMatches, void* context) {
    if (targetPoints == nullptr || targetDescriptors == nullptr || sourcePoints == nullptr ||
        sourceDescriptors == nullptr || result == nullptr ||
        !keyPointsFit(targetCount, sourceCount, dimension))
        return KESTOR_STATUS_BAD_ARGUMENT;
    matchKeyPointsRansac(targetPoints, targetNormals, targetDescriptors, targetCount,
                         sourcePoints, sourceNormals, sourceDescriptors, sourceCount, dimension,
                         poseView(result), iterations, edgeRatio, inlierDistance, crossCheck,
                         useThreads, wrapMatches(onMatches, context));
    return KESTOR_STATUS_OK;
}

int KESTORMatchKeyPointsIterative(const float* targetPoints, const float* targetDescriptors,
                                  int targetCount, const float* sourcePoints,
                                  const float* sourceDescriptors, int sourceCount, int dimension,
                                  double* result, int iterations, double initialScale,
                                  double finalDistance, bool crossCheck, bool useThreads,
                                  KESTORMatchesFunc onMatches, void* context) {
    if (targetPoints == nullptr || targetDescriptors == nullptr || sourcePoints == nullptr ||
        sourceDescriptors == nullptr || result == nullptr ||
        !keyPointsFit(targetCount, sourceCount, dimension))
        return KESTOR_STATUS_BAD_ARGUMENT;
    matchKeyPointsIterative(targetPoints, targetDescriptors, targetCount, sourcePoints,
                            sourceDescriptors, sourceCount, dimension, poseView(result),
                            iterations, initialScale, finalDistance, crossCheck, useThreads,
                            wrapMatches(onMatches, context));
    return KESTOR_STATUS_OK;
}

}  // extern "C"
