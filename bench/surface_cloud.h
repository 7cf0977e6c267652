#pragma once
// Synthetic registration data shared by the kestor and the Open3D benchmarks, so that both time
// the same clouds: an n x n grid of a curved textured surface over [-1, 1]^2 (the target), and a
// jittered grid of the same surface carried by the inverse of a known motion (the source). All
// in double, stored as float; a checksum lets the two programs show they saw the same numbers.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace bench_data {

struct Cloud {
    std::vector<float> points, normals, intensities;
    int count() const { return int(points.size() / 3); }
};

// Row-major 3x4 rigid motion.
struct Motion {
    double m[12];
    void apply(const double* p, double* out) const {
        for (int r = 0; r < 3; ++r) out[r] = m[4 * r] * p[0] + m[4 * r + 1] * p[1] + m[4 * r + 2] * p[2] + m[4 * r + 3];
    }
    void rotate(const double* p, double* out) const {
        for (int r = 0; r < 3; ++r) out[r] = m[4 * r] * p[0] + m[4 * r + 1] * p[1] + m[4 * r + 2] * p[2];
    }
    Motion inverse() const {
        Motion inv;
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) inv.m[4 * r + c] = m[4 * c + r];
            inv.m[4 * r + 3] = -(m[r] * m[3] + m[4 + r] * m[7] + m[8 + r] * m[11]);
        }
        return inv;
    }
    Motion after(const Motion& b) const {  // this after b
        Motion o;
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 4; ++c) {
                double s = c == 3 ? m[4 * r + 3] : 0.0;
                for (int k = 0; k < 3; ++k) s += m[4 * r + k] * b.m[4 * k + c];
                o.m[4 * r + c] = s;
            }
        }
        return o;
    }
};

// Rz(az) Ry(ay) Rx(ax) and a translation.
inline Motion makeMotion(double ax, double ay, double az, double tx, double ty, double tz) {
    const double sa = std::sin(ax), ca = std::cos(ax), sb = std::sin(ay), cb = std::cos(ay),
                 sc = std::sin(az), cc = std::cos(az);
    return Motion{{cb * cc, sa * sb * cc - ca * sc, ca * sb * cc + sa * sc, tx,  //
                   cb * sc, sa * sb * sc + ca * cc, ca * sb * sc - sa * cc, ty,  //
                   -sb, sa * cb, ca * cb, tz}};
}

// How far apart two motions are: rotation angle in degrees and translation in millimetres
// (units of 1 m) of a * b^-1.
inline void difference(const Motion& a, const Motion& b, double& degrees, double& millimetres) {
    const Motion d = a.after(b.inverse());
    const double trace = d.m[0] + d.m[5] + d.m[10];
    degrees = std::acos(std::fmin(1.0, std::fmax(-1.0, (trace - 1.0) / 2.0))) * 180.0 / M_PI;
    millimetres = 1e3 * std::sqrt(d.m[3] * d.m[3] + d.m[7] * d.m[7] + d.m[11] * d.m[11]);
}

inline void surface(double x, double y, double* p, double* n) {
    p[0] = x;
    p[1] = y;
    p[2] = 0.25 * std::sin(2.0 * x) * std::cos(3.0 * y) + 0.15 * x * x - 0.1 * y * y + 0.05 * x * y;
    const double hx = 0.5 * std::cos(2.0 * x) * std::cos(3.0 * y) + 0.3 * x + 0.05 * y;
    const double hy = -0.75 * std::sin(2.0 * x) * std::sin(3.0 * y) - 0.2 * y + 0.05 * x;
    const double len = std::sqrt(hx * hx + hy * hy + 1.0);
    n[0] = -hx / len;
    n[1] = -hy / len;
    n[2] = 1.0 / len;
}

inline double intensity(const double* p) {
    return 0.5 + 0.25 * std::sin(6.0 * p[0] + 2.0 * p[1]) + 0.2 * std::cos(5.0 * p[1] - 3.0 * p[2]);
}

inline Cloud sample(int n, double jitter, unsigned seed, const Motion& motion) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(-jitter, jitter);
    Cloud c;
    const double step = 2.0 / (n - 1);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            double p[3], nrm[3], q[3], m[3];
            const double ji = uni(rng), jj = uni(rng);
            surface(-1.0 + step * (i + ji), -1.0 + step * (j + jj), p, nrm);
            motion.apply(p, q);
            motion.rotate(nrm, m);
            for (int k = 0; k < 3; ++k) {
                c.points.push_back(float(q[k]));
                c.normals.push_back(float(m[k]));
            }
            c.intensities.push_back(float(intensity(p)));
        }
    }
    return c;
}

// The registration problem of the benchmarks: about 100k points each, a motion of some degrees
// and centimetres, and a start about half a degree and 7 mm from it.
struct Problem {
    Motion truth, start;
    Cloud target, source;
    double maxDistance = 0.02;
};

inline Problem registrationProblem(int n = 317) {
    Problem p;
    p.truth = makeMotion(0.05, -0.04, 0.08, 0.03, -0.02, 0.04);
    p.start = makeMotion(0.005, 0.005, -0.005, 0.005, 0.0, -0.005).after(p.truth);
    p.target = sample(n, 0.0, 1, makeMotion(0, 0, 0, 0, 0, 0));
    p.source = sample(n, 0.3, 2, p.truth.inverse());
    return p;
}

inline uint64_t checksum(const Cloud& c) {
    uint64_t h = 1469598103934665603ull;
    for (const auto* v : {&c.points, &c.normals, &c.intensities}) {
        for (float f : *v) {
            uint32_t bits;
            std::memcpy(&bits, &f, 4);
            h = (h ^ bits) * 1099511628211ull;
        }
    }
    return h;
}

}  // namespace bench_data
