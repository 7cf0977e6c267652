#pragma once
// The passes of one frame pair on image grids, over source elements [begin, end) of the compact
// source against the target's records: association with the sums each mode needs, and the trial
// errors over the target pixels an association kept (targets[e], -1 for none). Each runs eight
// elements at a time and the rest one by one, with the same bits per element either way. Row
// sums are upper triangles, not yet mirrored.
#include <cstdint>

#include "core/intrinsics.h"
#include "multi/colored_rows.h"
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

// The coloured first pass: the residuals' counts, sums and sums of squares, nothing stored but
// the targets.
int coloredStatsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                     const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                     int32_t* targets, ResidualStats& stats);

// The coloured second pass over the elements the first kept, at the same pose: both kinds'
// rows centred and weighted by `scales`.
void coloredRowsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                     const RT_<float>& T, const ColoredScales& scales, const int32_t* targets,
                     int begin, int end, RowSums<6>& sums, double& error);

// Trial errors at relative pose T over the kept targets.
double pointErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end);
double planeErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end);
double coloredErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                        const ColoredScales& scales, const int32_t* targets, int begin, int end);

}  // namespace kestor
