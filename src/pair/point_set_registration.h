#pragma once
// Alignment of a source point set to a target point set held in a PointIndex, with nearest-
// neighbour correspondences. T = (R, t) maps source coordinates into target coordinates. Each
// step gives both sets a six-parameter correction (three angles, then three translations) and
// solves one twelve-parameter system for the two.
#include <cstdint>
#include <vector>

#include "core/image_view.h"
#include "core/progress.h"
#include "core/rigid_transform.h"
#include "pair/point_index.h"

namespace kestor {

// The normal equations of one linearisation. Jt and Js are the derivatives of a residual by the
// target-side and the source-side correction.
struct PointLinearization {
    double hessianTT[36];  // sum of Jt Jt^T
    double hessianTS[36];  // sum of Jt Js^T: upper triangle summed, lower one its mirror
    double hessianSS[36];  // sum of Js Js^T
    double gradientT[6];   // sum of r Jt
    double gradientS[6];   // sum of r Js
    double score = 0.0;    // matched source points / all source points
    // Target position matched to each source point, -1 for none. Sized by the caller.
    std::vector<int32_t> correspondences;
};

// One source point's two residuals with their target-side and source-side rows, formed by the
// correspondence pass (on several threads when allowed) and summed in point order afterwards, so
// that the sums do not depend on the thread count. A matcher keeps one array for its whole run.
struct ResidualRows {
    float r[2];
    float jt[2][6];
    float js[2][6];
};

// Per-source-point robust weights of the coloured matcher's last linearisation, which its trial
// error reuses.
struct ColoredWeights {
    std::vector<float> geometric;
    std::vector<float> photometric;
};

// The matchers. Each reads the pose view (3 rows of 4 doubles) at every step and writes every
// accepted step to it; true means it finished normally and the view holds the last accepted
// pose. False: the score fell below minScore, the error became NaN, or progress cancelled.
// Distances are in the points' unit, maxAngle in radians, minScore a fraction.
bool matchPointToPoint(const PointIndex& index, const float* sourcePoints, int sourceCount,
                       const ImageView<double>& pose, int iterations, double maxDistance,
                       double minScore, bool log, const ProgressFunc& progress);

// `parallel` lets the correspondence search of the plane and coloured matchers run on the OpenMP
// team; the sums stay in point order, so both forms give the same bits.
bool matchPointToPlane(const PointIndex& index, const float* targetNormals,
                       const float* sourcePoints, const float* sourceNormals, int sourceCount,
                       const ImageView<double>& pose, int iterations, double maxDistance,
                       double maxAngle, double minScore, bool log, const ProgressFunc& progress,
                       bool parallel = false);

// colorWeight in [0, 1] balances the geometric term (0) against the photometric one (1).
bool matchColoredPoints(const PointIndex& index, const float* targetNormals,
                        const float* targetIntensities, const float* targetGradients,
                        const float* sourcePoints, const float* sourceNormals,
                        const float* sourceIntensities, int sourceCount,
                        const ImageView<double>& pose, int iterations, double maxDistance,
                        double maxAngle, double minScore, double colorWeight, bool log,
                        const ProgressFunc& progress, bool parallel = false);

// Intensity gradient of each indexed point in its tangent plane, from its neighbours within
// `radius` (the pair family passes 2 * maxDistance). `parallel` picks the loop runner.
void calcPointGradient(const PointIndex& index, const float* targetNormals,
                       const float* targetIntensities, float* gradients, int count, double radius,
                       bool parallel);

// Linearisations at `pose`: fill the normal equations and correspondences, return the sum of
// squared residuals. Target points are the index's array. `rows` is scratch of at least
// sourceCount entries (null: one is made for the call); `parallel` as for the matchers.
double linearizePointToPoint(const PointIndex& index, const float* sourcePoints, int sourceCount,
                             const RT_<float>& pose, double maxDistance, PointLinearization& out);

double linearizePointToPlane(const PointIndex& index, const float* targetNormals,
                             const float* sourcePoints, const float* sourceNormals,
                             int sourceCount, const RT_<float>& pose, double maxDistance,
                             double maxAngle, PointLinearization& out, bool parallel = false,
                             std::vector<ResidualRows>* rows = nullptr);

double linearizeColoredPoints(const PointIndex& index, const float* targetNormals,
                              const float* targetIntensities, const float* targetGradients,
                              const float* sourcePoints, const float* sourceNormals,
                              const float* sourceIntensities, int sourceCount,
                              const RT_<float>& pose, double maxDistance, double maxAngle,
                              double colorWeight, PointLinearization& out, ColoredWeights& weights,
                              bool parallel = false, std::vector<ResidualRows>* rows = nullptr);

// Trial errors of a candidate pose over fixed correspondences; entries outside
// [0, targetCount) are skipped.
double pointToPointError(const float* targetPoints, int targetCount, const float* sourcePoints,
                         int sourceCount, const RT_<float>& pose, const int32_t* correspondences);

double pointToPlaneError(const float* targetPoints, const float* targetNormals, int targetCount,
                         const float* sourcePoints, const float* sourceNormals, int sourceCount,
                         const RT_<float>& pose, const int32_t* correspondences);

double coloredPointsError(const float* targetPoints, const float* targetNormals,
                          const float* targetIntensities, const float* targetGradients,
                          int targetCount, const float* sourcePoints,
                          const float* sourceIntensities, int sourceCount, const RT_<float>& pose,
                          const int32_t* correspondences, const ColoredWeights& weights);

}  // namespace kestor
