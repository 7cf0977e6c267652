#pragma once
#include <functional>
#include <utility>

#include "core/progress.h"
#include "core/rigid_transform.h"

namespace kestor {

// A pair (i, j) of frames: i the target, j the source. Its pose maps j into i.
using FramePair = std::pair<int, int>;

using PairBlock = double[6][6];
using PairVector = double[6];

// Fills the pair's Hessian blocks and gradients at the given frame poses and returns the pair's
// error, or NaN when the pair does not qualify.
using PairLinearize =
    std::function<double(int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ,
                         PairBlock& hessianII, PairBlock& hessianIJ, PairBlock& hessianJJ,
                         PairVector& gradientI, PairVector& gradientJ)>;

// The pair's error at trial poses, with the associations of its last linearisation.
using PairEvaluate =
    std::function<double(int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ)>;

// Told before every linearisation of all pairs, with the pairs and their active bytes.
using PairsChanged =
    std::function<void(const FramePair* pairs, const unsigned char* active, int count)>;

// The slot of pair (i, j), j < i, in per-pair storage that outlives one iteration.
inline int pairSlot(int i, int j) { return i * (i - 1) / 2 + j; }
inline int pairSlotCount(int frameCount) { return frameCount * (frameCount - 1) / 2; }

// Joint Levenberg-Marquardt over the poses of all frames, with every pair of frames as a term.
// poses[k] maps frame k into the common frame; poses[0] stays fixed. The correction of frame k
// goes on the right of its pose when onRight is set, on the left otherwise. Pairs that fail a
// linearisation stay out until the next multiple of refreshInterval (0: for the whole run).
// `parallel` runs the per-pair loops through parallelFor; linearize and evaluate are then
// called concurrently for different pairs. Returns true when the run ended normally and was not
// cancelled; poses hold the last accepted step either way.
bool alignFrames(const PairLinearize& linearize, const PairEvaluate& evaluate, RT_<double>* poses,
                 int frameCount, int iterations, int refreshInterval, bool log, bool onRight,
                 const ProgressFunc& progress, const PairsChanged& pairsChanged, bool parallel);

}  // namespace kestor
