#pragma once
#include <functional>

#include "core/image_view.h"
#include "core/progress.h"
#include "core/rigid_transform.h"
#include "pair/point_set_registration.h"

namespace kestor {

// Linearises at a pose into `out` (correspondences included) and returns the sum of squares.
using PointSetLinearize = std::function<double(const RT_<float>& pose, PointLinearization& out)>;
// Sum of squares of a candidate pose over the correspondences of the last linearisation.
using PointSetTrialError =
    std::function<double(const RT_<float>& pose, const int32_t* correspondences)>;

// The loop the three matchers share: linearise, solve the 12-parameter system for a target-side
// correction B and a source-side correction A, try B T A over the same correspondences, keep it
// unless the error rises.
bool runPointSetSolver(const ImageView<double>& pose, int sourceCount, int iterations,
                       double minScore, bool log, const ProgressFunc& progress,
                       const PointSetLinearize& linearize, const PointSetTrialError& trialError);

// The candidate B T A for a solution x of the 12-parameter system: B = (Rz(x2) Ry(x1) Rx(x0),
// (x3, x4, x5)) on the target side, A = (Rz(-x8) Ry(-x7) Rx(-x6), -(x9, x10, x11)) on the source
// side, in double.
RT_<double> applyBothSidedStep(const RT_<double>& T, const double* x);

}  // namespace kestor
