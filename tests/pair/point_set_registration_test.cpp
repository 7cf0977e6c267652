#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>

#include "pair/point_set_math.h"
#include "pair/point_set_registration.h"
#include "pair/point_set_solver.h"
#include "surface_samples.h"


using namespace kestor;
using namespace kestor_test;

namespace {

enum class Matcher { Point, Plane, Colored };

// Target: a regular grid of the surface; source: a jittered coarser grid moved by truth^-1.
struct RegistrationCase {
    Eigen::Isometry3d truth;
    SampledSurface target, source;
    std::vector<float> gradients;
    PointIndex* index = nullptr;
    double maxDistance;

    RegistrationCase(const Eigen::Isometry3d& motion, SampledSurface t, SampledSurface s,
                     double maxDistance_ = 0.2)
        : truth(motion), target(std::move(t)), source(std::move(s)), maxDistance(maxDistance_) {
        index = new PointIndex(target.points.data(), target.count(), 10);
        gradients.resize(target.points.size());
        calcPointGradient(*index, target.normals.data(), target.intensities.data(),
                          gradients.data(), target.count(), 2 * maxDistance, true);
    }
    ~RegistrationCase() { delete index; }

    bool run(Matcher matcher, std::vector<double>& pose, int iterations = 30,
             double minScore = 0.3, const ProgressFunc& progress = {}) const {
        const ImageView<double> view = poseView(pose.data());
        switch (matcher) {
            case Matcher::Point:
                return matchPointToPoint(*index, source.points.data(), source.count(), view,
                                         iterations, maxDistance, minScore, false, progress);
            case Matcher::Plane:
                return matchPointToPlane(*index, target.normals.data(), source.points.data(),
                                         source.normals.data(), source.count(), view, iterations,
                                         maxDistance, 1.0, minScore, false, progress);
            case Matcher::Colored:
                return matchColoredPoints(*index, target.normals.data(), target.intensities.data(),
                                          gradients.data(), source.points.data(),
                                          source.normals.data(), source.intensities.data(),
                                          source.count(), view, iterations, maxDistance, 1.0,
                                          minScore, 0.3, false, progress);
        }
        return false;
    }
};

const RegistrationCase& surfaceCase() {
    static const Eigen::Isometry3d truth = makeMotion(0.05, -0.04, 0.08, 0.03, -0.02, 0.04);
    static const RegistrationCase c(truth, sampleSurface(60, 0.0, 1),
                                    sampleSurface(50, 0.3, 2, truth.inverse()));
    return c;
}

bool finitePose(const std::vector<double>& pose) {
    for (double v : pose)
        if (!std::isfinite(v)) return false;
    return true;
}

// The 12x12 system the loop solves, at a pose.
void assembled(const PointLinearization& lin, Eigen::Matrix<double, 12, 12>& H) {
    for (int i = 0; i < 6; ++i) {
        for (int j = 0; j < 6; ++j) {
            H(i, j) = lin.hessianTT[i * 6 + j];
            H(i, 6 + j) = lin.hessianTS[i * 6 + j];
            H(6 + i, j) = lin.hessianTS[j * 6 + i];
            H(6 + i, 6 + j) = lin.hessianSS[i * 6 + j];
        }
    }
}

double linearizeAt(Matcher matcher, const RegistrationCase& c, const RT_<float>& pose,
                   PointLinearization& lin) {
    lin.correspondences.assign(size_t(c.source.count()), -1);
    ColoredWeights weights;
    switch (matcher) {
        case Matcher::Point:
            return linearizePointToPoint(*c.index, c.source.points.data(), c.source.count(), pose,
                                         0.2, lin);
        case Matcher::Plane:
            return linearizePointToPlane(*c.index, c.target.normals.data(), c.source.points.data(),
                                         c.source.normals.data(), c.source.count(), pose, 0.2, 1.0,
                                         lin);
        case Matcher::Colored:
            return linearizeColoredPoints(*c.index, c.target.normals.data(),
                                          c.target.intensities.data(), c.gradients.data(),
                                          c.source.points.data(), c.source.normals.data(),
                                          c.source.intensities.data(), c.source.count(), pose, 0.2,
                                          1.0, 0.3, lin, weights);
    }
    return 0.0;
}

RT_<float> floatPose(const Eigen::Isometry3d& m) {
    std::vector<double> p = poseOf(m);
    return poseToFloat(poseView(p.data()));
}

}  // namespace

// From starts with some rotation the symmetric and coloured matchers reach the motion to
// sampling precision; point-to-point keeps the bias of nearest neighbours between two samplings.
TEST(PointSetRegistration, RecoversAKnownMotionFromRotatedStarts) {
    const RegistrationCase& c = surfaceCase();
    const Eigen::Isometry3d starts[] = {
        c.truth, makeMotion(0.01, 0.01, -0.01, 0.01, 0.0, -0.01) * c.truth,
        makeMotion(0.1, -0.05, 0.1, 0.05, 0.05, 0.0) * c.truth,
        makeMotion(0, 0, 1e-3, 0, 0, 0)};
    for (const auto& start : starts) {
        for (Matcher m : {Matcher::Plane, Matcher::Colored}) {
            std::vector<double> pose = poseOf(start);
            ASSERT_TRUE(c.run(m, pose));
            const Eigen::Isometry3d got = motionOf(pose);
            EXPECT_LT(angleBetween(got, c.truth), 2e-5) << int(m);
            EXPECT_LT(shiftBetween(got, c.truth), 2e-5) << int(m);
        }
    }
    std::vector<double> pose = poseOf(starts[1]);
    ASSERT_TRUE(c.run(Matcher::Point, pose));
    EXPECT_LT(angleBetween(motionOf(pose), c.truth), 0.3 * M_PI / 180);
    EXPECT_LT(shiftBetween(motionOf(pose), c.truth), 0.006);
    EXPECT_LT(angleBetween(motionOf(pose), c.truth), angleBetween(starts[1], c.truth) / 4);
}

// The loop solves for both sides' corrections, which leaves a gauge: B T A = T whenever
// B = T D T^-1 and A = D^-1. With the true cross block the 12x12 system would always have that
// six-dimensional null space; mirroring the cross block from its upper triangle breaks it except
// where the block is symmetric anyway. Measured by smallest over largest singular value: at the
// identity all three systems are singular to rounding; with R = I and a translation, point to
// point and point to plane still are, the coloured one is not; at a general rotation all are
// regular.
TEST(PointSetRegistration, SystemIsSingularAtIdentityRotation) {
    const RegistrationCase& c = surfaceCase();
    auto conditioning = [&](Matcher m, const Eigen::Isometry3d& at) {
        PointLinearization lin;
        Eigen::Matrix<double, 12, 12> H;
        linearizeAt(m, c, floatPose(at), lin);
        assembled(lin, H);
        const auto sv = Eigen::JacobiSVD<Eigen::Matrix<double, 12, 12>>(H).singularValues();
        return sv(11) / sv(0);
    };
    const Eigen::Isometry3d shifted = makeMotion(0, 0, 0, 0.01, 0.02, 0.0);
    for (Matcher m : {Matcher::Point, Matcher::Plane, Matcher::Colored}) {
        const double identity = conditioning(m, Eigen::Isometry3d::Identity());
        const double shift = conditioning(m, shifted);
        const double truth = conditioning(m, c.truth);
        EXPECT_LT(identity, 1e-14) << int(m);
        if (m == Matcher::Colored)
            EXPECT_GT(shift, 1e-5);
        else
            EXPECT_LT(shift, 1e-14) << int(m);
        EXPECT_GT(truth, 1e-4) << int(m);
    }
}

// From the exact identity the solve is singular. In the plane and coloured forms the target and
// source rows are exact negatives there, elimination gives NaN, the NaN step passes both tests
// and is written, and the next iteration matches nothing: false, with a NaN pose. Point to point
// gets a huge finite translation instead, whose trial error rejects it: true, pose unchanged.
TEST(PointSetRegistration, IdentityStartCannotMove) {
    const RegistrationCase& c = surfaceCase();
    for (Matcher m : {Matcher::Plane, Matcher::Colored}) {
        std::vector<double> pose = poseOf(Eigen::Isometry3d::Identity());
        EXPECT_FALSE(c.run(m, pose)) << int(m);
        EXPECT_FALSE(finitePose(pose)) << int(m);
        // With one iteration the NaN step is the accepted result.
        pose = poseOf(Eigen::Isometry3d::Identity());
        EXPECT_TRUE(c.run(m, pose, 1)) << int(m);
        EXPECT_FALSE(finitePose(pose)) << int(m);
    }
    std::vector<double> pose = poseOf(Eigen::Isometry3d::Identity());
    EXPECT_TRUE(c.run(Matcher::Point, pose));
    EXPECT_EQ(pose, poseOf(Eigen::Isometry3d::Identity()));
    // R = I with a translation: the plane system is still singular, its huge step is rejected
    // and the pose stays; the coloured system is regular there and converges.
    const std::vector<double> shifted = poseOf(makeMotion(0, 0, 0, 0.03, -0.02, 0.04));
    pose = shifted;
    EXPECT_TRUE(c.run(Matcher::Plane, pose));
    EXPECT_EQ(pose, shifted);
    pose = shifted;
    EXPECT_TRUE(c.run(Matcher::Colored, pose));
    EXPECT_LT(angleBetween(motionOf(pose), c.truth), 2e-5);
}

TEST(PointSetRegistration, ScoreBelowMinimumFailsAndKeepsThePose) {
    const RegistrationCase& c = surfaceCase();
    // Far away: nothing within the distance gate.
    const std::vector<double> start = poseOf(makeMotion(0.1, 0, 0, 5.0, 0, 0));
    for (Matcher m : {Matcher::Point, Matcher::Plane, Matcher::Colored}) {
        std::vector<double> pose = start;
        EXPECT_FALSE(c.run(m, pose)) << int(m);
        EXPECT_EQ(pose, start);
    }
    // Every source point matched gives a score of 1; asking for more than that fails too.
    std::vector<double> pose = poseOf(c.truth);
    EXPECT_FALSE(c.run(Matcher::Plane, pose, 30, 1.01));
    EXPECT_EQ(pose, poseOf(c.truth));
}

TEST(PointSetRegistration, ProgressAndCancel) {
    const RegistrationCase& c = surfaceCase();
    const std::vector<double> start = poseOf(makeMotion(0.01, 0.01, -0.01, 0.01, 0.0, -0.01) * c.truth);
    std::vector<int> seen;
    std::vector<double> pose = start;
    ASSERT_TRUE(c.run(Matcher::Plane, pose, 4, 0.3, [&](int p, bool&) { seen.push_back(p); }));
    EXPECT_EQ(seen, (std::vector<int>{0, 25, 50, 75, 100}));
    // Cancel at the first call: false, pose untouched, no further call.
    seen.clear();
    pose = start;
    EXPECT_FALSE(c.run(Matcher::Colored, pose, 4, 0.3, [&](int p, bool& cancel) {
        seen.push_back(p);
        cancel = true;
    }));
    EXPECT_EQ(seen, std::vector<int>{0});
    EXPECT_EQ(pose, start);
    // No iterations: only the final call, and true.
    seen.clear();
    EXPECT_TRUE(c.run(Matcher::Point, pose, 0, 0.3, [&](int p, bool&) { seen.push_back(p); }));
    EXPECT_EQ(seen, std::vector<int>{100});
    EXPECT_EQ(pose, start);
    // Cancel at the final call: false, but the steps are already written.
    pose = start;
    EXPECT_FALSE(c.run(Matcher::Plane, pose, 3, 0.3, [&](int p, bool& cancel) { cancel = p == 100; }));
    EXPECT_NE(pose, start);
}

TEST(PointSetRegistration, NaNSourcePointsStayUnmatchedButCount) {
    const RegistrationCase& c = surfaceCase();
    std::vector<float> points = c.source.points;
    const int n = c.source.count();
    for (int i = 0; i < n; i += 4) points[3 * size_t(i)] = std::numeric_limits<float>::quiet_NaN();
    PointLinearization lin;
    lin.correspondences.assign(size_t(n), -1);
    linearizePointToPoint(*c.index, points.data(), n, floatPose(c.truth), 0.2, lin);
    int matched = 0;
    for (int i = 0; i < n; ++i) {
        if (i % 4 == 0) {
            EXPECT_EQ(lin.correspondences[size_t(i)], -1);
        }
        matched += lin.correspondences[size_t(i)] >= 0;
    }
    EXPECT_EQ(lin.score, double(matched) / n);
    EXPECT_NEAR(lin.score, 0.75, 0.01);
}

// The angle gate: pairs whose normals differ by maxAngle or more are dropped.
TEST(PointSetRegistration, AngleGateIsStrict) {
    const RegistrationCase& c = surfaceCase();
    std::vector<float> flipped = c.source.normals;
    for (float& v : flipped) v = -v;
    PointLinearization lin;
    lin.correspondences.assign(size_t(c.source.count()), -1);
    linearizePointToPlane(*c.index, c.target.normals.data(), c.source.points.data(),
                          flipped.data(), c.source.count(), floatPose(c.truth), 0.2, 1.0, lin);
    EXPECT_EQ(lin.score, 0.0);
    // maxAngle = pi/2 passes everything facing the same way; cos(pi) = -1 still drops antiparallel
    // normals only when they are exactly opposite, which these are not.
    linearizePointToPlane(*c.index, c.target.normals.data(), c.source.points.data(),
                          c.source.normals.data(), c.source.count(), floatPose(c.truth), 0.2,
                          M_PI / 2, lin);
    EXPECT_EQ(lin.score, 1.0);
}

// The gradients of the linearisations agree with finite differences of their trial errors on
// both sides, which fixes the sign convention: solve H x = g, apply +x to the target, -x to the
// source.
TEST(PointSetRegistration, SourceGradientMatchesFiniteDifferences) {
    const RegistrationCase& c = surfaceCase();
    const Eigen::Isometry3d at = makeMotion(0.01, 0.01, -0.01, 0.01, 0.0, -0.01) * c.truth;
    for (Matcher m : {Matcher::Point, Matcher::Plane, Matcher::Colored}) {
        PointLinearization lin;
        ColoredWeights weights;
        lin.correspondences.assign(size_t(c.source.count()), -1);
        if (m == Matcher::Colored)
            linearizeColoredPoints(*c.index, c.target.normals.data(), c.target.intensities.data(),
                                   c.gradients.data(), c.source.points.data(),
                                   c.source.normals.data(), c.source.intensities.data(),
                                   c.source.count(), floatPose(at), 0.2, 1.0, 0.3, lin, weights);
        else
            linearizeAt(m, c, floatPose(at), lin);
        const double h = 1e-4;
        for (int k = 0; k < 12; ++k) {
            const double gk = k < 6 ? lin.gradientT[k] : lin.gradientS[k - 6];
            double x[12] = {0};
            x[k] = h;
            RT_<double> plus = applyBothSidedStep(poseToDouble(poseView(poseOf(at).data())), x);
            x[k] = -h;
            RT_<double> minus = applyBothSidedStep(poseToDouble(poseView(poseOf(at).data())), x);
            auto narrow = [](const RT_<double>& d) {
                RT_<float> f;
                for (int i = 0; i < 9; ++i) f.rotation[i] = float(d.rotation[i]);
                for (int i = 0; i < 3; ++i) f.translation[i] = float(d.translation[i]);
                return f;
            };
            const int* corr = lin.correspondences.data();
            double ep, em;
            if (m == Matcher::Point) {
                ep = pointToPointError(c.target.points.data(), c.target.count(),
                                       c.source.points.data(), c.source.count(), narrow(plus), corr);
                em = pointToPointError(c.target.points.data(), c.target.count(),
                                       c.source.points.data(), c.source.count(), narrow(minus), corr);
            } else if (m == Matcher::Colored) {
                auto err = [&](const RT_<double>& d) {
                    return coloredPointsError(c.target.points.data(), c.target.normals.data(),
                                              c.target.intensities.data(), c.gradients.data(),
                                              c.target.count(), c.source.points.data(),
                                              c.source.intensities.data(), c.source.count(),
                                              narrow(d), corr, weights);
                };
                ep = err(plus);
                em = err(minus);
            } else {
                ep = pointToPlaneError(c.target.points.data(), c.target.normals.data(),
                                       c.target.count(), c.source.points.data(),
                                       c.source.normals.data(), c.source.count(), narrow(plus), corr);
                em = pointToPlaneError(c.target.points.data(), c.target.normals.data(),
                                       c.target.count(), c.source.points.data(),
                                       c.source.normals.data(), c.source.count(), narrow(minus), corr);
            }
            // d(sum r^2)/dx = -2 g on both sides.
            const double numeric = (ep - em) / (2 * h);
            EXPECT_NEAR(numeric, -2.0 * gk, 0.02 * std::fabs(gk) + 1e-3)
                << int(m) << " " << k;
        }
    }
}

TEST(PointSetRegistration, ColoredWeightExtremes) {
    const RegistrationCase& c = surfaceCase();
    const RT_<float> at = floatPose(makeMotion(0.01, 0.0, 0.0, 0.01, 0.0, 0.0) * c.truth);
    for (double weight : {0.0, 1.0, -3.0, 7.0}) {
        PointLinearization lin;
        lin.correspondences.assign(size_t(c.source.count()), -1);
        ColoredWeights w;
        linearizeColoredPoints(*c.index, c.target.normals.data(), c.target.intensities.data(),
                               c.gradients.data(), c.source.points.data(), c.source.normals.data(),
                               c.source.intensities.data(), c.source.count(), at, 0.2, 1.0, weight,
                               lin, w);
        const bool geometricOnly = weight <= 0.0;
        for (int i = 0; i < c.source.count(); ++i) {
            if (lin.correspondences[size_t(i)] < 0) continue;
            if (geometricOnly)
                EXPECT_EQ(w.photometric[size_t(i)], 0.0f);
            else
                EXPECT_EQ(w.geometric[size_t(i)], 0.0f);
        }
    }
}

TEST(PointGradient, RecoversALinearRampOnAPlane) {
    // Intensity 2x - y + 0.5 on the plane z = 1: the tangent gradient is (2, -1, 0).
    std::vector<float> points, normals, intensities;
    for (int i = 0; i < 40; ++i) {
        for (int j = 0; j < 40; ++j) {
            const float x = 0.025f * float(i), y = 0.025f * float(j);
            points.insert(points.end(), {x, y, 1.0f});
            normals.insert(normals.end(), {0.0f, 0.0f, 1.0f});
            intensities.push_back(2.0f * x - y + 0.5f);
        }
    }
    PointIndex index(points.data(), 1600, 10);
    std::vector<float> parallel(points.size(), -1.0f), serial(points.size(), -1.0f);
    calcPointGradient(index, normals.data(), intensities.data(), parallel.data(), 1600, 0.1, true);
    calcPointGradient(index, normals.data(), intensities.data(), serial.data(), 1600, 0.1, false);
    EXPECT_EQ(parallel, serial);
    const size_t centre = 3 * (20 * 40 + 20);
    EXPECT_NEAR(parallel[centre], 2.0f, 1e-3);
    EXPECT_NEAR(parallel[centre + 1], -1.0f, 1e-3);
    EXPECT_NEAR(parallel[centre + 2], 0.0f, 1e-4);
    // A lone point has only itself: A = n n^T is singular, so its gradient is zero.
    const float lone[3] = {0, 0, 0}, up[3] = {0, 0, 1}, value = 1.0f;
    PointIndex single(lone, 1, 10);
    float g[3] = {9, 9, 9};
    calcPointGradient(single, up, &value, g, 1, 0.1, true);
    EXPECT_EQ(g[0], 0.0f);
    EXPECT_EQ(g[1], 0.0f);
    EXPECT_EQ(g[2], 0.0f);
}

// A real coloured scan: two disjoint halves of its points, one moved by a known motion.
TEST(PointSetRegistration, RealScanHalvesWithKnownMotion) {
    const std::string path =
        std::string(KESTOR_SHARED_DATA_DIR) + "/open3d_testdata/ColoredICP/frag_115.ply";
    std::ifstream file(path, std::ios::binary);
    if (!file) GTEST_SKIP() << "no " << path;
    std::string line;
    int vertices = 0;
    while (std::getline(file, line) && line != "end_header")
        if (line.rfind("element vertex", 0) == 0) vertices = std::stoi(line.substr(15));
    ASSERT_GT(vertices, 1000);
    const Eigen::Isometry3d truth = makeMotion(0.03, -0.02, 0.04, 0.02, 0.01, -0.015);
    SampledSurface target, source;
    for (int i = 0; i < vertices; ++i) {
        float v[6];
        unsigned char rgb[3];
        file.read(reinterpret_cast<char*>(v), sizeof v);
        file.read(reinterpret_cast<char*>(rgb), 3);
        // Every eighth point to the target, the one after it to the source.
        if (i % 8 > 1) continue;
        SampledSurface& s = i % 8 == 0 ? target : source;
        Eigen::Vector3d p(v[0], v[1], v[2]), n(v[3], v[4], v[5]);
        if (i % 8 == 1) {
            p = truth.inverse() * p;
            n = truth.inverse().linear() * n;
        }
        for (int k = 0; k < 3; ++k) {
            s.points.push_back(float(p[k]));
            s.normals.push_back(float(n[k]));
        }
        s.intensities.push_back(float(rgb[0] + rgb[1] + rgb[2]) / 765.0f);
    }
    ASSERT_TRUE(file);
    const RegistrationCase c(truth, std::move(target), std::move(source), 0.05);
    const Eigen::Isometry3d start = makeMotion(0.01, 0.01, -0.01, 0.01, -0.01, 0.0) * truth;
    for (Matcher m : {Matcher::Point, Matcher::Plane, Matcher::Colored}) {
        std::vector<double> pose = poseOf(start);
        ASSERT_TRUE(c.run(m, pose, 30, 0.3)) << int(m);
        const double angle = angleBetween(motionOf(pose), truth);
        const double shift = shiftBetween(motionOf(pose), truth);
        std::printf("frag_115 matcher %d: %.4f deg, %.2f mm (start %.2f deg, %.1f mm)\n", int(m),
                    angle * 180 / M_PI, shift * 1e3, angleBetween(start, truth) * 180 / M_PI,
                    shiftBetween(start, truth) * 1e3);
        // The scan is nearly flat: the tangent-plane terms leave the in-plane motion free, and
        // the two-sided steps drift along it, while point to point still improves.
        if (m == Matcher::Point) {
            EXPECT_LT(angle, angleBetween(start, truth) * 0.7);
        } else {
            EXPECT_TRUE(finitePose(pose));
            EXPECT_GT(shift, shiftBetween(start, truth)) << int(m);
        }
    }
}
