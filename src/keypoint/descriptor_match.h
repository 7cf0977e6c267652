#pragma once

namespace kestor {

// For each query the nearest train descriptor by squared Euclidean distance in float, the lowest
// index winning a tie. With crossCheck a match fails (-1, distance NaN) as soon as another query
// lies strictly closer to the chosen train descriptor. distances may be null. Queries are split
// over the OpenMP threads when `parallel` is set; each writes only its own outputs.
void matchDescriptors(const float* trainDescriptors, int trainCount,
                      const float* queryDescriptors, int* matches, float* distances,
                      int queryCount, int dimension, bool crossCheck, bool parallel);

}  // namespace kestor
