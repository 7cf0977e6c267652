#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <string>

#include "kestor.h"
#include "pair/point_set_math.h"
#include "pair/point_set_registration.h"
#include "pair/point_set_solver.h"
#include "surface_samples.h"

using namespace kestor;
using namespace kestor_test;

namespace {

enum Matcher { ToPoint, ToPlane, Colored };

// The target indexed with its intensity gradients; the source moved by truth^-1.
struct RegistrationCase {
    Pose truth;
    SampledSurface target, source;
    std::vector<float> gradients;
    std::unique_ptr<PointIndex> index;
    double maxDistance;

    RegistrationCase(const Pose& motion, SampledSurface t, SampledSurface s, double d)
        : truth(motion), target(std::move(t)), source(std::move(s)), maxDistance(d) {
        index = std::make_unique<PointIndex>(target.points.data(), target.count(), 10);
        gradients.resize(target.points.size());
        calcPointGradient(*index, target.normals.data(), target.intensities.data(),
                          gradients.data(), target.count(), 2 * maxDistance, true);
    }

    bool run(Matcher m, std::vector<double>& pose, int iterations = 30, double minScore = 0.3,
             const ProgressFunc& progress = {}) const {
        const ImageView<double> view = poseView(pose.data());
        const SampledSurface &t = target, &s = source;
        if (m == ToPoint)
            return matchPointToPoint(*index, s.points.data(), s.count(), view, iterations,
                                     maxDistance, minScore, false, progress);
        if (m == ToPlane)
            return matchPointToPlane(*index, t.normals.data(), s.points.data(), s.normals.data(),
                                     s.count(), view, iterations, maxDistance, 1.0, minScore, false,
                                     progress);
        return matchColoredPoints(*index, t.normals.data(), t.intensities.data(), gradients.data(),
                                  s.points.data(), s.normals.data(), s.intensities.data(),
                                  s.count(), view, iterations, maxDistance, 1.0, minScore, 0.3,
                                  false, progress);
    }

    void linearize(Matcher m, const RT_<float>& pose, PointLinearization& lin, ColoredWeights& w,
                   const float* sourceNormals = nullptr, double maxAngle = 1.0,
                   double colorWeight = 0.3) const {
        const SampledSurface &t = target, &s = source;
        const float* sn = sourceNormals ? sourceNormals : s.normals.data();
        lin.correspondences.assign(size_t(s.count()), -1);
        if (m == ToPoint)
            linearizePointToPoint(*index, s.points.data(), s.count(), pose, 0.2, lin);
        else if (m == ToPlane)
            linearizePointToPlane(*index, t.normals.data(), s.points.data(), sn, s.count(), pose,
                                  0.2, maxAngle, lin);
        else
            linearizeColoredPoints(*index, t.normals.data(), t.intensities.data(), gradients.data(),
                                   s.points.data(), sn, s.intensities.data(), s.count(), pose, 0.2,
                                   maxAngle, colorWeight, lin, w);
    }

    double trialError(Matcher m, const RT_<float>& pose, const int* corr,
                      const ColoredWeights& w) const {
        const SampledSurface &t = target, &s = source;
        if (m == ToPoint)
            return pointToPointError(t.points.data(), t.count(), s.points.data(), s.count(), pose,
                                     corr);
        if (m == ToPlane)
            return pointToPlaneError(t.points.data(), t.normals.data(), t.count(), s.points.data(),
                                     s.normals.data(), s.count(), pose, corr);
        return coloredPointsError(t.points.data(), t.normals.data(), t.intensities.data(),
                                  gradients.data(), t.count(), s.points.data(),
                                  s.intensities.data(), s.count(), pose, corr, w);
    }
};

const RegistrationCase& surfaceCase() {
    static const Pose truth = makeMotion(0.05, -0.04, 0.08, 0.03, -0.02, 0.04);
    static const RegistrationCase c(truth, sampleSurface(60, 0.0, 1),
                                    sampleSurface(50, 0.3, 2, truth.inverse()), 0.2);
    return c;
}

bool finitePose(const std::vector<double>& pose) {
    for (double v : pose)
        if (!std::isfinite(v)) return false;
    return true;
}

RT_<float> floatPose(const Pose& m) {
    std::vector<double> p = m.matrix();
    return poseToFloat(poseView(p.data()));
}
double angleTo(const std::vector<double>& pose, const Pose& truth) {
    return rotationError(Pose::fromMatrix(pose.data()), truth);
}
double shiftTo(const std::vector<double>& pose, const Pose& truth) {
    return translationError(Pose::fromMatrix(pose.data()), truth);
}

const Pose kNudge = makeMotion(0.01, 0.01, -0.01, 0.01, 0.0, -0.01);

}  // namespace

// From starts with some rotation the symmetric and coloured matchers reach the motion to
// sampling precision; point-to-point keeps the bias of nearest neighbours between two samplings.
TEST(PointSetRegistration, RecoversAKnownMotionFromRotatedStarts) {
    const RegistrationCase& c = surfaceCase();
    const Pose starts[] = {c.truth, kNudge * c.truth,
                                        makeMotion(0.1, -0.05, 0.1, 0.05, 0.05, 0.0) * c.truth,
                                        makeMotion(0, 0, 1e-3, 0, 0, 0)};
    for (const auto& start : starts) {
        for (Matcher m : {ToPlane, Colored}) {
            std::vector<double> pose = start.matrix();
            ASSERT_TRUE(c.run(m, pose));
            EXPECT_LT(angleTo(pose, c.truth), 2e-5) << m;
            EXPECT_LT(shiftTo(pose, c.truth), 2e-5) << m;
        }
    }
    std::vector<double> pose = starts[1].matrix();
    ASSERT_TRUE(c.run(ToPoint, pose));
    EXPECT_LT(angleTo(pose, c.truth), rotationError(starts[1], c.truth) / 4);
    EXPECT_LT(shiftTo(pose, c.truth), 0.006);
}

// The loop solves for both sides' corrections, which leaves a gauge: B T A = T whenever
// B = T D T^-1 and A = D^-1. Mirroring the cross block from its upper triangle breaks that null
// space except where the block is symmetric anyway. By smallest over largest singular value: at
// the identity all three systems are singular to rounding; with R = I and a translation, point
// to point and point to plane still are, the coloured one is not; at a general rotation all are
// regular.
//
// From the exact identity, then, the plane and coloured solves give NaN (target and source rows
// are exact negatives), the NaN step passes both tests and is written, and the next iteration
// matches nothing: false, NaN pose. ToPoint to point gets a huge finite step, which its trial
// error rejects: true, pose unchanged.
TEST(PointSetRegistration, TheTwelveParameterSystemIsSingularWithoutRotation) {
    const RegistrationCase& c = surfaceCase();
    auto conditioning = [&](Matcher m, const Pose& at) {
        PointLinearization lin;
        ColoredWeights w;
        c.linearize(m, floatPose(at), lin, w);
        Eigen::Matrix<double, 12, 12> H;
        for (int i = 0; i < 6; ++i) {
            for (int j = 0; j < 6; ++j) {
                H(i, j) = lin.hessianTT[i * 6 + j];
                H(i, 6 + j) = lin.hessianTS[i * 6 + j];
                H(6 + i, j) = lin.hessianTS[j * 6 + i];
                H(6 + i, 6 + j) = lin.hessianSS[i * 6 + j];
            }
        }
        const auto sv = Eigen::JacobiSVD<Eigen::Matrix<double, 12, 12>>(H).singularValues();
        return sv(11) / sv(0);
    };
    const Pose shifted = makeMotion(0, 0, 0, 0.03, -0.02, 0.04);
    for (Matcher m : {ToPoint, ToPlane, Colored}) {
        EXPECT_LT(conditioning(m, Pose()), 1e-14) << m;
        if (m == Colored)
            EXPECT_GT(conditioning(m, shifted), 1e-5);
        else
            EXPECT_LT(conditioning(m, shifted), 1e-14) << m;
        EXPECT_GT(conditioning(m, c.truth), 1e-4) << m;
    }
    const std::vector<double> identity = Pose().matrix();
    for (Matcher m : {ToPlane, Colored}) {
        for (int iterations : {30, 1}) {  // with one iteration the NaN step is the result
            std::vector<double> pose = identity;
            EXPECT_EQ(c.run(m, pose, iterations), iterations == 1) << m;
            EXPECT_FALSE(finitePose(pose)) << m;
        }
    }
    std::vector<double> pose = identity;
    EXPECT_TRUE(c.run(ToPoint, pose));
    EXPECT_EQ(pose, identity);
    // R = I with a translation: the plane step is huge and rejected, the coloured run converges.
    pose = shifted.matrix();
    EXPECT_TRUE(c.run(ToPlane, pose));
    EXPECT_EQ(pose, shifted.matrix());
    pose = shifted.matrix();
    EXPECT_TRUE(c.run(Colored, pose));
    EXPECT_LT(angleTo(pose, c.truth), 2e-5);
}

// Minimum score (pose kept), NaN source points (unmatched but counted) and the strict angle gate.
TEST(PointSetRegistration, ScoreAndGates) {
    const RegistrationCase& c = surfaceCase();
    const std::vector<double> far = makeMotion(0.1, 0, 0, 5.0, 0, 0).matrix();
    for (Matcher m : {ToPoint, ToPlane, Colored}) {
        std::vector<double> pose = far;
        EXPECT_FALSE(c.run(m, pose)) << m;
        EXPECT_EQ(pose, far);
    }
    // Every source point matched gives a score of 1; asking for more than that fails too.
    std::vector<double> pose = c.truth.matrix();
    EXPECT_FALSE(c.run(ToPlane, pose, 30, 1.01));
    EXPECT_EQ(pose, c.truth.matrix());

    const int n = c.source.count();
    std::vector<float> points = c.source.points;
    for (int i = 0; i < n; i += 4) points[3 * size_t(i)] = std::numeric_limits<float>::quiet_NaN();
    PointLinearization lin;
    lin.correspondences.assign(size_t(n), -1);
    linearizePointToPoint(*c.index, points.data(), n, floatPose(c.truth), 0.2, lin);
    int matched = 0;
    for (int i = 0; i < n; ++i) {
        EXPECT_TRUE(i % 4 || lin.correspondences[size_t(i)] == -1) << i;
        matched += lin.correspondences[size_t(i)] >= 0;
    }
    EXPECT_EQ(lin.score, double(matched) / n);
    EXPECT_NEAR(lin.score, 0.75, 0.01);

    // Flipped source normals fail every pair; with maxAngle pi/2 all unflipped ones pass.
    std::vector<float> flipped = c.source.normals;
    for (float& v : flipped) v = -v;
    ColoredWeights w;
    for (Matcher m : {ToPlane, Colored}) {
        c.linearize(m, floatPose(c.truth), lin, w, flipped.data());
        EXPECT_EQ(lin.score, 0.0) << m;
        c.linearize(m, floatPose(c.truth), lin, w, nullptr, M_PI / 2);
        EXPECT_EQ(lin.score, 1.0) << m;
    }
}

TEST(PointSetRegistration, ProgressAndCancel) {
    const RegistrationCase& c = surfaceCase();
    const std::vector<double> start = (kNudge * c.truth).matrix();
    std::vector<int> seen;
    const auto record = [&](int p, bool&) { seen.push_back(p); };
    std::vector<double> pose = start;
    ASSERT_TRUE(c.run(ToPlane, pose, 4, 0.3, record));
    EXPECT_EQ(seen, (std::vector<int>{0, 25, 50, 75, 100}));
    // Cancel at the first call: false, pose untouched, no further call.
    seen.clear();
    pose = start;
    EXPECT_FALSE(c.run(Colored, pose, 4, 0.3, [&](int p, bool& cancel) {
        seen.push_back(p);
        cancel = true;
    }));
    EXPECT_EQ(seen, std::vector<int>{0});
    EXPECT_EQ(pose, start);
    // No iterations: only the final call, and true.
    seen.clear();
    EXPECT_TRUE(c.run(ToPoint, pose, 0, 0.3, record));
    EXPECT_EQ(seen, std::vector<int>{100});
    EXPECT_EQ(pose, start);
    // Cancel at the final call: false, but the steps are already written.
    EXPECT_FALSE(c.run(ToPlane, pose, 3, 0.3, [&](int p, bool& cancel) { cancel = p == 100; }));
    EXPECT_NE(pose, start);
}

// Without a camera the pair entry runs these matchers, picked by the arrays given, and with
// `info` tests the nearest-neighbour score at the end (every source point pairs here).
TEST(PointSetRegistration, TheEntryWithoutACameraRunsThePointSetMatchers) {
    const RegistrationCase& c = surfaceCase();
    const SampledSurface &t = c.target, &s = c.source;
    const int sizes[2] = {t.count(), s.count()};
    for (Matcher m : {ToPoint, ToPlane, Colored}) {
        std::vector<double> direct = (kNudge * c.truth).matrix(), rt = direct, info(36, -1.0);
        ASSERT_TRUE(c.run(m, direct, 5));
        const auto pick = [&](bool on, const std::vector<float>& x) { return on ? x.data() : nullptr; };
        EXPECT_EQ(KESTORMatchPair(t.points.data(), pick(m != ToPoint, t.normals), pick(m == Colored, t.intensities),
                                  s.points.data(), pick(m != ToPoint, s.normals), pick(m == Colored, s.intensities),
                                  sizes, nullptr, rt.data(), info.data(), 5, c.maxDistance, 1.0, 0.3, 0.3,
                                  true, false, nullptr, nullptr),
                  KESTOR_STATUS_OK) << m;
        EXPECT_EQ(rt, direct) << m;
        EXPECT_EQ(info[21], double(s.count())) << m;
    }
}

// The gradients of the linearisations agree with finite differences of their trial errors on
// both sides, which fixes the sign convention: solve H x = g, apply +x to the target, -x to the
// source.
TEST(PointSetRegistration, GradientsMatchFiniteDifferencesOfTheTrialErrors) {
    const RegistrationCase& c = surfaceCase();
    std::vector<double> at = (kNudge * c.truth).matrix();
    const RT_<double> base = poseToDouble(poseView(at.data()));
    const auto narrow = [](const RT_<double>& d) {
        RT_<float> f;
        for (int i = 0; i < 9; ++i) f.rotation[i] = float(d.rotation[i]);
        for (int i = 0; i < 3; ++i) f.translation[i] = float(d.translation[i]);
        return f;
    };
    for (Matcher m : {ToPoint, ToPlane, Colored}) {
        PointLinearization lin;
        ColoredWeights w;
        c.linearize(m, narrow(base), lin, w);
        const double h = 1e-4;
        for (int k = 0; k < 12; ++k) {
            const double gk = k < 6 ? lin.gradientT[k] : lin.gradientS[k - 6];
            double e[2];
            for (int side = 0; side < 2; ++side) {
                double x[12] = {0};
                x[k] = side ? -h : h;
                const RT_<double> moved = applyBothSidedStep(base, x);
                e[side] = c.trialError(m, narrow(moved), lin.correspondences.data(), w);
            }
            // d(sum r^2)/dx = -2 g on both sides.
            EXPECT_NEAR((e[0] - e[1]) / (2 * h), -2.0 * gk, 0.02 * std::fabs(gk) + 1e-3) << m << " " << k;
        }
    }
}

// A colour weight at or below 0 leaves only the geometric term, at or above 1 only the
// photometric one.
TEST(PointSetRegistration, ColoredWeightExtremes) {
    const RegistrationCase& c = surfaceCase();
    const RT_<float> at = floatPose(makeMotion(0.01, 0.0, 0.0, 0.01, 0.0, 0.0) * c.truth);
    for (double weight : {0.0, 1.0, -3.0, 7.0}) {
        PointLinearization lin;
        ColoredWeights w;
        c.linearize(Colored, at, lin, w, nullptr, 1.0, weight);
        const auto& zeroed = weight <= 0.0 ? w.photometric : w.geometric;
        for (int i = 0; i < c.source.count(); ++i)
            EXPECT_TRUE(lin.correspondences[size_t(i)] < 0 || zeroed[size_t(i)] == 0.0f) << weight;
    }
}

TEST(PointGradient, RecoversALinearRampOnAPlaneSerialAndParallel) {
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
    EXPECT_EQ(std::vector<float>(g, g + 3), std::vector<float>(3, 0.0f));
}

// A real coloured scan: two disjoint eighths of its points, one moved by a known motion.
TEST(PointSetRegistration, RealScanWithKnownMotion) {
    const std::string path =
        std::string(KESTOR_SHARED_DATA_DIR) + "/open3d_testdata/ColoredICP/frag_115.ply";
    std::ifstream file(path, std::ios::binary);
    if (!file) GTEST_SKIP() << "no " << path;
    std::string line;
    int vertices = 0;
    while (std::getline(file, line) && line != "end_header")
        if (line.rfind("element vertex", 0) == 0) vertices = std::stoi(line.substr(15));
    ASSERT_GT(vertices, 1000);
    const Pose truth = makeMotion(0.03, -0.02, 0.04, 0.02, 0.01, -0.015);
    SampledSurface target, source;
    for (int i = 0; i < vertices; ++i) {
        float v[6];
        unsigned char rgb[3];
        file.read(reinterpret_cast<char*>(v), sizeof v);
        file.read(reinterpret_cast<char*>(rgb), 3);
        if (i % 8 > 1) continue;
        SampledSurface& s = i % 8 == 0 ? target : source;
        const Pose move = i % 8 ? truth.inverse() : Pose();
        s.add(move.R * Eigen::Vector3d(v[0], v[1], v[2]) + move.t,
              move.R * Eigen::Vector3d(v[3], v[4], v[5]), (rgb[0] + rgb[1] + rgb[2]) / 765.0);
    }
    ASSERT_TRUE(file);
    const RegistrationCase c(truth, std::move(target), std::move(source), 0.05);
    const Pose start = kNudge * truth;
    for (Matcher m : {ToPoint, ToPlane, Colored}) {
        std::vector<double> pose = start.matrix();
        ASSERT_TRUE(c.run(m, pose)) << m;
        const double angle = angleTo(pose, truth);
        const double shift = shiftTo(pose, truth);
        std::printf("frag_115 matcher %d: %.4f deg, %.2f mm (start %.2f deg, %.1f mm)\n", m,
                    angle * 180 / M_PI, shift * 1e3, rotationError(start, truth) * 180 / M_PI,
                    translationError(start, truth) * 1e3);
        // The scan is nearly flat: the tangent-plane terms leave the in-plane motion free, and
        // the two-sided steps drift along it, while point to point still improves.
        if (m == ToPoint) {
            EXPECT_LT(angle, rotationError(start, truth) * 0.7);
        } else {
            EXPECT_TRUE(finitePose(pose));
            EXPECT_GT(shift, translationError(start, truth)) << m;
        }
    }
}
