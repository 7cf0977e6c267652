#pragma once
#include <cstdint>
#include <vector>

#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/rigid_transform.h"
#include "pair/solver_slots.h"

namespace kestor {

// The source of a pair solver reduced to its valid pixels, in row order, built once per run.
// The arrays only grow, so that a workspace reused from level to level and from run to run is
// not cleared again every time; entries from `count` on are left over and mean nothing.
struct CompactSource {
    std::vector<Float3> points;
    std::vector<Float3> normals;  // point form: not filled
    std::vector<float> gray;      // coloured form only
    int count = 0;
    int size() const { return count; }
};

// Point form: every pixel with z > 0.
CompactSource compactPoints(const ImageView<const Float3>& vmap);
// Plane and coloured forms: z > 0 and a normal that is not (0, 0, 0); with a gray view, its value
// at each kept pixel as well.
CompactSource compactWithNormals(const ImageView<const Float3>& vmap,
                                 const ImageView<const Float3>& nmap,
                                 const ImageView<const float>& gray);
// The same two into an existing source, reusing its memory.
void compactPoints(const ImageView<const Float3>& vmap, CompactSource& out);
void compactWithNormals(const ImageView<const Float3>& vmap, const ImageView<const Float3>& nmap,
                        const ImageView<const float>& gray, CompactSource& out);

// The target frame as the passes read it. Unused maps stay empty.
struct TargetMaps {
    ImageView<const Float3> vmap, nmap;
    ImageView<const float> gray, gradX, gradY;
};

// Gates of one run: the squared distance limit and cos(maxAngle), both in double.
struct AssociationLimits {
    double maxDistanceSquared;
    double cosMaxAngle;
};

// What each source index found in the last pass; an entry counts only when its flag is set.
// The arrays hold at least N entries (a reused workspace may hold more); the resize calls clear
// the first N flags.
// The flags are bytes, so that threads whose blocks meet never share a flag.
struct PairArrays {
    std::vector<uint8_t> matchFlags;
    std::vector<Float3> pairPoints, pairNormals;
    std::vector<float> residualG, pairGray, pairGradX, pairGradY, residualC;
    void resizePoint(int n);
    void resizePlane(int n);
    void resizeColored(int n);
};

// Pass bodies over source indices [begin, end). The point and plane passes add their pairs to the
// slot's normal equations; the coloured pass stores residuals and adds to the slot's stats.
void associatePoint(const Intrinsics& k, const TargetMaps& target, const CompactSource& source,
                    const RT_<float>& pose, const AssociationLimits& limits, PairArrays& pairs,
                    int begin, int end, NormalEquations& equations);
void associatePlane(const Intrinsics& k, const TargetMaps& target, const CompactSource& source,
                    const RT_<float>& pose, const AssociationLimits& limits, PairArrays& pairs,
                    int begin, int end, NormalEquations& equations);
void associateColored(const Intrinsics& k, const TargetMaps& target, const Float3* movedPoints,
                      const Float3* movedNormals, const float* sourceGray,
                      const AssociationLimits& limits, PairArrays& pairs, int begin, int end,
                      ResidualStats& stats);

}  // namespace kestor
