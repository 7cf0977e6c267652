#pragma once
// Two samplings of one smooth textured surface: a regular grid for the target and a jittered
// grid for the source, the source moved by the inverse of a known motion, so that the motion
// maps source to target.
#include <cmath>
#include <random>
#include <vector>

#include "support/synthetic_scene.h"

namespace kestor_test {

struct SampledSurface {
    std::vector<float> points, normals, intensities;
    int count() const { return int(points.size() / 3); }
    void add(const Eigen::Vector3d& p, const Eigen::Vector3d& n, double intensity) {
        for (int k = 0; k < 3; ++k) points.push_back(float(p[k])), normals.push_back(float(n[k]));
        intensities.push_back(float(intensity));
    }
};

// n by n samples of a curved height field with structure in every direction over [-1, 1]^2,
// jittered by up to `jitter` cells, with a smooth intensity texture, moved by `motion`.
inline SampledSurface sampleSurface(int n, double jitter, unsigned seed,
                                    const Pose& motion = Pose()) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(-jitter, jitter);
    SampledSurface s;
    const double step = 2.0 / (n - 1);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            const double x = -1.0 + step * (i + uni(rng)), y = -1.0 + step * (j + uni(rng));
            const double z = 0.25 * std::sin(2 * x) * std::cos(3 * y) + 0.15 * x * x -
                             0.1 * y * y + 0.05 * x * y;
            const Eigen::Vector3d p(x, y, z);
            const double hx = 0.5 * std::cos(2 * x) * std::cos(3 * y) + 0.3 * x + 0.05 * y;
            const double hy = -0.75 * std::sin(2 * x) * std::sin(3 * y) - 0.2 * y + 0.05 * x;
            const Eigen::Vector3d normal = Eigen::Vector3d(-hx, -hy, 1.0).normalized();
            s.add(motion.R * p + motion.t, motion.R * normal,
                  0.5 + 0.25 * std::sin(6 * x + 2 * y) + 0.2 * std::cos(5 * y - 3 * z));
        }
    }
    return s;
}

// Rotation about z after y after x (radians), then a translation.
inline Pose makeMotion(double ax, double ay, double az, double tx, double ty, double tz) {
    Pose m;
    m.R = (Eigen::AngleAxisd(az, Eigen::Vector3d::UnitZ()) *
           Eigen::AngleAxisd(ay, Eigen::Vector3d::UnitY()) *
           Eigen::AngleAxisd(ax, Eigen::Vector3d::UnitX()))
              .toRotationMatrix();
    m.t = Eigen::Vector3d(tx, ty, tz);
    return m;
}

}  // namespace kestor_test
