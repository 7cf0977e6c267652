#pragma once
// A pose graph with known truth, in the interface's plain arrays: a trajectory that circles a
// room lap after lap (50 poses a lap), trusted odometry edges with noise, and loop edges between
// poses of different laps, some of them wrong (measured against a pose a few steps off). Header
// only and free of Eigen, so the Open3D comparison can share it.
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace kestor_test {

// Plain 3x4 row-major rigid transforms (the interface pose) with the little algebra needed here.
struct Pose12 {
    double m[12];
    static Pose12 identity() { return Pose12{{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}}; }
    static Pose12 fromEuler(double a, double b, double c, double x, double y, double z) {
        // Rz(c) Ry(b) Rx(a)
        const double sa = std::sin(a), ca = std::cos(a), sb = std::sin(b), cb = std::cos(b),
                     sc = std::sin(c), cc = std::cos(c);
        return Pose12{{cb * cc, sa * sb * cc - ca * sc, ca * sb * cc + sa * sc, x,  //
                       cb * sc, sa * sb * sc + ca * cc, ca * sb * sc - sa * cc, y,  //
                       -sb, sa * cb, ca * cb, z}};
    }
    Pose12 operator*(const Pose12& b) const {
        Pose12 r;
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 4; ++j) {
                double v = j == 3 ? m[i * 4 + 3] : 0.0;
                for (int k = 0; k < 3; ++k) v += m[i * 4 + k] * b.m[k * 4 + j];
                r.m[i * 4 + j] = v;
            }
        }
        return r;
    }
    Pose12 inverse() const {  // rigid: transpose
        Pose12 r;
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) r.m[i * 4 + j] = m[j * 4 + i];
            r.m[i * 4 + 3] = -(m[0 * 4 + i] * m[3] + m[1 * 4 + i] * m[7] + m[2 * 4 + i] * m[11]);
        }
        return r;
    }
};

inline Pose12 poseAt(const std::vector<double>& poses, int k) {
    Pose12 p;
    for (int e = 0; e < 12; ++e) p.m[e] = poses[size_t(k) * 12 + size_t(e)];
    return p;
}

// Translation distance and rotation angle (radians) between two poses.
inline double translationGap(const Pose12& a, const Pose12& b) {
    const double dx = a.m[3] - b.m[3], dy = a.m[7] - b.m[7], dz = a.m[11] - b.m[11];
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}
inline double rotationGap(const Pose12& a, const Pose12& b) {
    const Pose12 d = a * b.inverse();
    const double c = (d.m[0] + d.m[5] + d.m[10] - 1) / 2;
    return std::acos(std::fmax(-1.0, std::fmin(1.0, c)));
}

struct PoseGraphAccuracy {
    double rmsTranslation = 0;  // length units
    double meanRotation = 0;    // radians
};

// Error of an estimate against the truth after both are re-based on pose 0.
inline PoseGraphAccuracy poseGraphAccuracy(const std::vector<double>& estimate,
                                           const std::vector<double>& truth) {
    const int n = int(truth.size() / 12);
    const Pose12 G = poseAt(truth, 0) * poseAt(estimate, 0).inverse();
    PoseGraphAccuracy a;
    for (int k = 0; k < n; ++k) {
        const Pose12 e = G * poseAt(estimate, k), t = poseAt(truth, k);
        const double d = translationGap(e, t);
        a.rmsTranslation += d * d;
        a.meanRotation += rotationGap(e, t);
    }
    a.rmsTranslation = std::sqrt(a.rmsTranslation / n);
    a.meanRotation /= n;
    return a;
}

struct SyntheticPoseGraph {
    int poseCount = 0;
    int edgeCount = 0;
    std::vector<double> truth;         // 12 a pose
    std::vector<double> initial;       // odometry chained from truth[0], 12 a pose
    std::vector<int> pairs;            // i, j per edge: T_i = T_j * Z
    std::vector<double> transforms;    // Z, 12 an edge
    std::vector<double> information;   // 36 an edge
    std::vector<unsigned char> flags;  // 255 odometry, 127 loop
    std::vector<char> isLoop, isWrong;
};

struct SyntheticGraphOptions {
    int poseCount = 100;
    double loopFraction = 0.1;   // loop edges per pose
    double wrongFraction = 0.25; // of the loop edges
    double rotationNoise = 0.001;     // radians, per axis, on every measurement
    double translationNoise = 0.003;  // length units, per axis
    unsigned seed = 1;
};

inline SyntheticPoseGraph makeSyntheticPoseGraph(const SyntheticGraphOptions& o) {
    constexpr int kLap = 50;
    constexpr double kPi = 3.14159265358979323846;
    std::mt19937 rng(o.seed);
    std::normal_distribution<double> rotNoise(0.0, o.rotationNoise), transNoise(0.0, o.translationNoise);
    const auto noisy = [&](const Pose12& z) {
        const double a = rotNoise(rng), b = rotNoise(rng), c = rotNoise(rng);
        const double x = transNoise(rng), y = transNoise(rng), w = transNoise(rng);
        return z * Pose12::fromEuler(a, b, c, x, y, w);
    };

    SyntheticPoseGraph g;
    const int n = o.poseCount;
    g.poseCount = n;
    std::vector<Pose12> truth(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) {
        const double theta = 2 * kPi * k / kLap;
        truth[k] = Pose12::fromEuler(0.05 * std::sin(k * 0.3), 0.05 * std::cos(k * 0.17),
                                     theta + kPi / 2, 3 * std::cos(theta), 3 * std::sin(theta),
                                     0.3 * std::sin(k * 0.05));
    }

    // Information of a measurement with the noise above, a little pessimistic.
    double info[36] = {};
    const double rotVar = 4 * o.rotationNoise * o.rotationNoise;
    const double transVar = 4 * o.translationNoise * o.translationNoise;
    for (int d = 0; d < 3; ++d) info[d * 7] = 1 / rotVar;
    for (int d = 3; d < 6; ++d) info[d * 7] = 1 / transVar;

    const auto addEdge = [&](int i, int j, const Pose12& z, unsigned char flag, bool loop,
                             bool wrong) {
        g.pairs.push_back(i);
        g.pairs.push_back(j);
        g.transforms.insert(g.transforms.end(), z.m, z.m + 12);
        g.information.insert(g.information.end(), info, info + 36);
        g.flags.push_back(flag);
        g.isLoop.push_back(loop);
        g.isWrong.push_back(wrong);
    };

    std::vector<Pose12> chain(static_cast<size_t>(n));
    chain[0] = truth[0];
    for (int k = 0; k + 1 < n; ++k) {
        const Pose12 z = noisy(truth[k].inverse() * truth[k + 1]);
        addEdge(k + 1, k, z, 255, false, false);
        chain[k + 1] = chain[k] * z;
    }

    const int loops = int(std::lround(o.loopFraction * n));
    const int wrongEvery = o.wrongFraction > 0 ? int(std::lround(1 / o.wrongFraction)) : 0;
    std::set<std::pair<int, int>> used;
    std::uniform_int_distribution<int> anyPose(kLap, std::max(kLap, n - 1));
    std::uniform_int_distribution<int> shift(-2, 2), wrongShift(3, 10);
    for (int made = 0; made < loops && n > kLap + 2;) {
        const int i = anyPose(rng);
        std::uniform_int_distribution<int> laps(1, i / kLap);
        const int j = std::min(n - 1, std::max(0, i - kLap * laps(rng) + shift(rng)));
        if (std::abs(i - j) < 3 || !used.insert({i, j}).second) continue;
        const bool wrong = wrongEvery > 0 && made % wrongEvery == wrongEvery - 1;
        const int off = wrongShift(rng);
        const int seen = !wrong ? i : i + off < n ? i + off : i - off;
        addEdge(i, j, noisy(truth[j].inverse() * truth[seen]), 127, true, wrong);
        ++made;
    }
    g.edgeCount = int(g.flags.size());
    for (int k = 0; k < n; ++k) {
        g.truth.insert(g.truth.end(), truth[k].m, truth[k].m + 12);
        g.initial.insert(g.initial.end(), chain[k].m, chain[k].m + 12);
    }
    return g;
}

// The benchmarks' graph of `poses` poses (seed 11), made once per process and kept.
inline const SyntheticPoseGraph& cachedSyntheticPoseGraph(int poses) {
    static std::map<int, SyntheticPoseGraph> graphs;
    auto found = graphs.find(poses);
    if (found == graphs.end()) {
        SyntheticGraphOptions o;
        o.poseCount = poses;
        o.seed = 11;
        found = graphs.emplace(poses, makeSyntheticPoseGraph(o)).first;
    }
    return found->second;
}

}  // namespace kestor_test
