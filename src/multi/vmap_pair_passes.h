#pragma once
// The passes of one frame pair on image grids, over source elements [begin, end) of the compact
// source against the target's records: association with the sums each mode needs, and the trial
// errors over the target pixels an association kept (targets[e], -1 for none). Each runs eight
// elements at a time and the rest one by one, with the same bits per element either way. Row
// sums are upper triangles, not yet mirrored.
#include <cstdint>

#include "core/intrinsics.h"
#include "multi/colored_sums.h"
#include "multi/compact_frame.h"
#include "multi/projective_association.h"
#include "multi/row_sums.h"
#include "multi/target_records.h"

namespace kestor {

// Point to point: three rows of 12 a match (target then source correction); error sum |e|^2.
// Each returns the count of elements kept.
int pointRowsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                  const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                  int32_t* targets, RowSums<12>& sums, double& error);

// One-sided point to plane: r = (p' - q) . n, row (p' x n, n); error sum r^2.
int planeRowsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                  const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                  int32_t* targets, RowSums<6>& sums, double& error);

// The coloured pass: per residual kind, the unweighted sums of every kept element's row and
// residual, from which the centred and weighted rows are formed once all pairs are known.
int coloredSumsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                    const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                    int32_t* targets, ColoredSums& sums);

// Trial errors at relative pose T over the kept targets.
double pointErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end);
// Sum of r^2, and of (r - mean)^2, with r the one-sided point-to-plane residual at the trial pose.
double planeErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end);
double centredPlaneErrorPass(const CompactFrame& source, const TargetRecords& target,
                             const RT_<float>& T, const int32_t* targets, int begin, int end,
                             double mean);

}  // namespace kestor
