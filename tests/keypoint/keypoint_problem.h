#pragma once
// Key-point sets with a known rigid motion and a chosen share of wrong descriptor matches, for
// the RANSAC and iterative matcher tests.
#include <Eigen/Core>
#include <random>
#include <utility>
#include <vector>

#include "support/synthetic_scene.h"

namespace kestor_test {

struct KeyPointProblem {
    int count = 0;
    int dimension = 0;
    Pose motion;  // target = R * source + t
    std::vector<float> target, source, targetNormals, sourceNormals;
    std::vector<float> targetDescriptors, sourceDescriptors;
    // The (source, target) pairs a perfect matcher keeps: the sources whose descriptor leads to
    // their true partner. The others point at a target at least 0.1 away.
    std::vector<std::pair<int, int>> truePairs;
};

inline Pose randomMotion(std::mt19937& rng, double maxAngle = 3.0, double maxShift = 1.0) {
    std::uniform_real_distribution<double> uni(-1, 1);
    const Eigen::Vector3d axis(uni(rng), uni(rng), uni(rng));
    const double angle = maxAngle * std::abs(uni(rng));
    return Pose::fromAxisAngle(axis, angle,
                               Eigen::Vector3d(uni(rng), uni(rng), uni(rng)) * maxShift);
}

// Points uniform in a 2 m cube; source point k is target point k carried back by the motion.
// Descriptors are random; a wrong source copies the descriptor of a far target.
inline KeyPointProblem makeKeyPointProblem(int count, double wrongShare, unsigned seed,
                                           int dimension = 8) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(-1, 1);
    KeyPointProblem p;
    p.count = count;
    p.dimension = dimension;
    p.motion = randomMotion(rng);
    const Pose back = p.motion.inverse();
    std::vector<Eigen::Vector3d> targets;
    for (int k = 0; k < count; ++k) {
        const Eigen::Vector3d t(uni(rng), uni(rng), uni(rng));
        const Eigen::Vector3d n = Eigen::Vector3d(uni(rng), uni(rng), uni(rng)).normalized();
        const Eigen::Vector3d s = back.R * t + back.t;
        const Eigen::Vector3d sn = back.R * n;
        targets.push_back(t);
        for (int i = 0; i < 3; ++i) {
            p.target.push_back(float(t[i]));
            p.source.push_back(float(s[i]));
            p.targetNormals.push_back(float(n[i]));
            p.sourceNormals.push_back(float(sn[i]));
        }
        for (int e = 0; e < dimension; ++e) p.targetDescriptors.push_back(float(uni(rng)));
    }
    std::uniform_int_distribution<int> pick(0, count - 1);
    std::bernoulli_distribution wrong(wrongShare);
    for (int k = 0; k < count; ++k) {
        int partner = k;
        if (wrong(rng)) {
            do partner = pick(rng);
            while ((targets[size_t(partner)] - targets[size_t(k)]).norm() < 0.1);
        }
        if (partner == k) p.truePairs.emplace_back(k, k);
        for (int e = 0; e < dimension; ++e)
            p.sourceDescriptors.push_back(
                p.targetDescriptors[size_t(partner) * size_t(dimension) + size_t(e)]);
    }
    return p;
}

// Collects what a matcher reports through its callback.
struct ReportedPairs {
    int calls = 0;
    std::vector<std::pair<int, int>> pairs;
    static void collect(const std::pair<int, int>* pairs, int count, void* context) {
        auto* self = static_cast<ReportedPairs*>(context);
        ++self->calls;
        self->pairs.assign(pairs, pairs + count);
    }
};

}  // namespace kestor_test
