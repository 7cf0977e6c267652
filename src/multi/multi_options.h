#pragma once

namespace kestor {

// The numbers every joint-alignment mode shares.
struct MultiOptions {
    int iterations = 10;
    double maxDistance = 0.1;  // largest distance of a matched pair of points
    double maxAngle = 0.5;     // largest angle between matched normals, radians
    double minScore = 0.0;     // a pair takes part only with a score strictly above this
    double colorWeight = 0.0;  // balance of the photometric term, clamped to 0..1
    int refreshInterval = 0;   // 0: failed pairs are erased; n: all retried every n-th iteration
    bool log = false;
    bool parallel = true;      // the OpenMP form of the per-pair loops
};

inline MultiOptions multiOptions(int iterations, double maxDistance, double maxAngle,
                                 double minScore, double colorWeight, int refreshInterval,
                                 bool parallel, bool log) {
    MultiOptions o;
    o.iterations = iterations;
    o.maxDistance = maxDistance;
    o.maxAngle = maxAngle;
    o.minScore = minScore;
    o.colorWeight = colorWeight;
    o.refreshInterval = refreshInterval;
    o.parallel = parallel;
    o.log = log;
    return o;
}

}  // namespace kestor
