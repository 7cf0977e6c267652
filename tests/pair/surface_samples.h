#pragma once
// Two samplings of one smooth textured surface: a regular grid for the target and a jittered
// grid for the source, the source moved by the inverse of a known motion, so that the motion
// maps source to target.
#include <Eigen/Geometry>
#include <cmath>
#include <random>
#include <vector>

namespace kestor_test {

struct SampledSurface {
    std::vector<float> points, normals, intensities;
    int count() const { return int(points.size() / 3); }
};

// A curved height field with structure in every direction, and its intensity texture.
inline double surfaceHeight(double x, double y) {
    return 0.25 * std::sin(2.0 * x) * std::cos(3.0 * y) + 0.15 * x * x - 0.1 * y * y + 0.05 * x * y;
}
inline Eigen::Vector3d surfaceNormal(double x, double y) {
    const double hx = 0.5 * std::cos(2.0 * x) * std::cos(3.0 * y) + 0.3 * x + 0.05 * y;
    const double hy = -0.75 * std::sin(2.0 * x) * std::sin(3.0 * y) - 0.2 * y + 0.05 * x;
    return Eigen::Vector3d(-hx, -hy, 1.0).normalized();
}
inline double surfaceIntensity(const Eigen::Vector3d& p) {
    return 0.5 + 0.25 * std::sin(6.0 * p.x() + 2.0 * p.y()) + 0.2 * std::cos(5.0 * p.y() - 3.0 * p.z());
}

// n by n samples over [-1, 1]^2, jittered by up to `jitter` cells, moved by `motion`.
inline SampledSurface sampleSurface(int n, double jitter, unsigned seed,
                                    const Eigen::Isometry3d& motion = Eigen::Isometry3d::Identity()) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(-jitter, jitter);
    SampledSurface s;
    const double step = 2.0 / (n - 1);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            const double x = -1.0 + step * (i + uni(rng)), y = -1.0 + step * (j + uni(rng));
            const Eigen::Vector3d p(x, y, surfaceHeight(x, y));
            const Eigen::Vector3d q = motion * p;
            const Eigen::Vector3d m = motion.linear() * surfaceNormal(x, y);
            for (int k = 0; k < 3; ++k) {
                s.points.push_back(float(q[k]));
                s.normals.push_back(float(m[k]));
            }
            s.intensities.push_back(float(surfaceIntensity(p)));
        }
    }
    return s;
}

inline Eigen::Isometry3d makeMotion(double ax, double ay, double az, double tx, double ty, double tz) {
    Eigen::Isometry3d m = Eigen::Isometry3d::Identity();
    m.linear() = (Eigen::AngleAxisd(az, Eigen::Vector3d::UnitZ()) *
                  Eigen::AngleAxisd(ay, Eigen::Vector3d::UnitY()) *
                  Eigen::AngleAxisd(ax, Eigen::Vector3d::UnitX()))
                     .toRotationMatrix();
    m.translation() = Eigen::Vector3d(tx, ty, tz);
    return m;
}

// 3x4 row-major pose of a motion, and back.
inline std::vector<double> poseOf(const Eigen::Isometry3d& m) {
    std::vector<double> p(12);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) p[size_t(r * 4 + c)] = m.linear()(r, c);
        p[size_t(r * 4 + 3)] = m.translation()[r];
    }
    return p;
}
inline Eigen::Isometry3d motionOf(const std::vector<double>& p) {
    Eigen::Isometry3d m = Eigen::Isometry3d::Identity();
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) m.linear()(r, c) = p[size_t(r * 4 + c)];
        m.translation()[r] = p[size_t(r * 4 + 3)];
    }
    return m;
}

// Rotation angle (radians) and translation length of a * b^-1.
inline double angleBetween(const Eigen::Isometry3d& a, const Eigen::Isometry3d& b) {
    const Eigen::Matrix3d d = a.linear() * b.linear().transpose();
    return std::acos(std::min(1.0, std::max(-1.0, (d.trace() - 1.0) / 2.0)));
}
inline double shiftBetween(const Eigen::Isometry3d& a, const Eigen::Isometry3d& b) {
    return (a.translation() - a.linear() * b.linear().transpose() * b.translation()).norm();
}

}  // namespace kestor_test
