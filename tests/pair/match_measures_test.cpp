#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kestor.h"
#include "core/rigid_transform.h"
#include "surface_samples.h"

using namespace kestor_test;

namespace {

const std::vector<double> kIdentity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
const double kSentinel = -12345.0;

// The information of moved points by its definition: the sum of J^T J.
Eigen::Matrix<double, 6, 6> informationOf(const std::vector<Eigen::Vector3f>& moved) {
    Eigen::Matrix<double, 6, 6> info = Eigen::Matrix<double, 6, 6>::Zero();
    for (const auto& p : moved) {
        Eigen::Matrix<double, 3, 6> J;
        J << 0, p.z(), -p.y(), 1, 0, 0, -p.z(), 0, p.x(), 0, 1, 0, p.y(), -p.x(), 0, 0, 0, 1;
        info += J.transpose() * J;
    }
    return info;
}

void expectInfo(const std::vector<double>& info, const Eigen::Matrix<double, 6, 6>& expected) {
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 6; ++c)
            EXPECT_NEAR(info[size_t(r * 6 + c)], expected(r, c), 1e-9 * (1 + std::fabs(expected(r, c))));
}

// Points moved by a pose in float, as the library moves them.
Eigen::Vector3f moved(const std::vector<double>& rt, const float* p) {
    const kestor::RT_<float> pose = kestor::poseToFloat(kestor::poseView(const_cast<double*>(rt.data())));
    Eigen::Vector3f m;
    for (int r = 0; r < 3; ++r)
        m[r] = pose.rotation[3 * r] * p[0] + pose.rotation[3 * r + 1] * p[1] +
               pose.rotation[3 * r + 2] * p[2] + pose.translation[r];
    return m;
}

// An 8x6 map at depth about 2 with normals towards the camera.
struct Maps {
    int width = 8, height = 6;
    double K[9] = {10, 0, 3.5, 0, 10, 2.5, 0, 0, 1};
    std::vector<float> vmap, nmap;
    Maps() {
        for (int v = 0; v < height; ++v) {
            for (int u = 0; u < width; ++u) {
                const float z = 2.0f + 0.01f * float(u + v);
                vmap.insert(vmap.end(), {(float(u) - 3.5f) * z / 10, (float(v) - 2.5f) * z / 10, z});
                nmap.insert(nmap.end(), {0.0f, 0.0f, -1.0f});
            }
        }
    }
    int match(const std::vector<float>& vmap2, const float* nmap1, const float* nmap2,
              double minScore, std::vector<double>& info) const {
        return KESTORCalcVmapMatchInfo(vmap.data(), nmap1, vmap2.data(), nmap2, width, height, K,
                                       kIdentity.data(), info.data(), 0.01, 0.5, minScore);
    }
};

}  // namespace

// Set 2 is set 1 carried by the inverse of the pose with every other point pushed far away: the
// score is 0.5 exactly, a limit equal to it is reached, one just above is not, and the matrix is
// written either way.
TEST(PointMatchInfo, ScoreAndInformationAgainstTheClosedForm) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    std::vector<float> set1(1200), set2(1200);
    for (float& v : set1) v = uni(rng);
    const Pose motion = makeMotion(0.2, -0.1, 0.3, 0.5, -0.2, 0.1), back = motion.inverse();
    const std::vector<double> rt = motion.matrix();
    std::vector<Eigen::Vector3f> matched;
    for (size_t i = 0; i < 400; ++i) {
        Eigen::Vector3d p(set1[3 * i], set1[3 * i + 1], set1[3 * i + 2] + (i % 2 ? 50 : 0));
        const Eigen::Vector3d q = back.R * p + back.t;
        for (int k = 0; k < 3; ++k) set2[3 * i + size_t(k)] = float(q[k]);
        if (i % 2 == 0) matched.push_back(moved(rt, &set2[3 * i]));
    }
    for (double minScore : {0.5, std::nextafter(0.5, 1.0)}) {
        std::vector<double> info(36, kSentinel);
        EXPECT_EQ(KESTORCalcPointMatchInfo(set1.data(), nullptr, 400, set2.data(), nullptr, 400,
                                           rt.data(), info.data(), 0.01, 1.0, minScore),
                  minScore == 0.5 ? KESTOR_STATUS_OK : KESTOR_STATUS_FAILED);
        expectInfo(info, informationOf(matched));
        EXPECT_EQ(info[3 * 6 + 3], 200.0);
    }
}

// Distance strict; a normal at exactly maxAngle passes; one normal array missing: no angle test.
TEST(PointMatchInfo, DistanceIsStrictAndAngleEqualityPasses) {
    const float set1[3] = {0, 0, 0}, set2[3] = {3, 4, 0}, near2[3] = {0, 0, 0.1f};
    const double maxAngle = 0.7;
    const float c = float(std::cos(maxAngle));
    const float n1[3] = {0, 0, 1}, n2[3] = {0, std::sqrt(1 - c * c), c};
    std::vector<double> info(36);
    const auto run = [&](const float* p2, const float* nn1, const float* nn2, double d, double a) {
        return KESTORCalcPointMatchInfo(set1, nn1, 1, p2, nn2, 1, kIdentity.data(), info.data(),
                                        d, a, 1.0);
    };
    EXPECT_EQ(run(set2, nullptr, nullptr, 5.0, 1.0), KESTOR_STATUS_FAILED);
    EXPECT_EQ(info[3 * 6 + 3], 0.0);
    EXPECT_EQ(run(set2, nullptr, nullptr, 5.0001, 1.0), KESTOR_STATUS_OK);
    EXPECT_EQ(run(near2, n1, n2, 0.5, maxAngle), KESTOR_STATUS_OK);
    EXPECT_EQ(run(near2, n1, n2, 0.5, maxAngle - 1e-4), KESTOR_STATUS_FAILED);
    EXPECT_EQ(run(near2, n1, nullptr, 0.5, 0.0), KESTOR_STATUS_OK);
}

TEST(VmapMatchInfo, IdenticalMapsScoreAndTheSelfInformation) {
    Maps m;
    std::vector<double> info(36, kSentinel), self(36, kSentinel);
    EXPECT_EQ(m.match(m.vmap, m.nmap.data(), m.nmap.data(), 1.0, info), KESTOR_STATUS_OK);
    EXPECT_EQ(KESTORCalcVmapSelfMatchInfo(m.vmap.data(), m.width, m.height, kIdentity.data(),
                                          self.data()),
              KESTOR_STATUS_OK);
    EXPECT_EQ(info, self);
    // Normals used when both are given: flipped ones match nothing.
    std::vector<float> flipped = m.nmap;
    for (float& v : flipped) v = -v;
    EXPECT_EQ(m.match(m.vmap, m.nmap.data(), flipped.data(), 0.01, info), KESTOR_STATUS_FAILED);
    EXPECT_EQ(m.match(m.vmap, nullptr, flipped.data(), 1.0, info), KESTOR_STATUS_OK);

    // The self information skips z == 0 only (a NaN depth is summed) and uses the pose.
    const float vmap[9] = {1, 2, 3, 5, 5, 0, 0.5f, -1, 2};
    const std::vector<double> rt = makeMotion(0.3, 0.2, -0.1, 1, 2, 3).matrix();
    ASSERT_EQ(KESTORCalcVmapSelfMatchInfo(vmap, 3, 1, rt.data(), self.data()), KESTOR_STATUS_OK);
    expectInfo(self, informationOf({moved(rt, vmap), moved(rt, vmap + 6)}));
    const float nanMap[3] = {0, 0, std::numeric_limits<float>::quiet_NaN()};
    KESTORCalcVmapSelfMatchInfo(nanMap, 1, 1, kIdentity.data(), self.data());
    EXPECT_TRUE(std::isnan(self[0]));
    EXPECT_EQ(self[3 * 6 + 3], 1.0);

    // The score counts valid source pixels only. Two source pixels invalid (z = 0) and four moved
    // 1 away: 46 valid, 42 matched.
    auto vmap2 = m.vmap;
    vmap2[2] = vmap2[5] = 0.0f;
    for (size_t i = 10; i < 14; ++i) vmap2[3 * i + 2] += 1.0f;
    EXPECT_EQ(m.match(vmap2, nullptr, nullptr, 42.0 / 46.0, info), KESTOR_STATUS_OK);
    EXPECT_EQ(m.match(vmap2, nullptr, nullptr, std::nextafter(42.0 / 46.0, 1.0), info),
              KESTOR_STATUS_FAILED);
    // No valid source pixel: the score is NaN, which passes any limit.
    EXPECT_EQ(m.match(std::vector<float>(m.vmap.size(), 0.0f), nullptr, nullptr, 1.0, info),
              KESTOR_STATUS_OK);
    EXPECT_EQ(info, std::vector<double>(36, 0.0));
}

TEST(VmapMatchInfo, BordersAndStrictTests) {
    // One target pixel at column 0; a source point that projects to u = -0.3 or u = +0.3.
    const double K[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    // Rows of 2 pixels are scored one pixel at a time and rows of 9 eight at a time first:
    // both must give the same answer.
    const auto run = [&](float x, float targetNormalZ, float sourceNormalY, double maxAngle,
                         double maxDistance) {
        int status[2];
        for (int width : {2, 9}) {
            std::vector<float> vmap(size_t(3 * width), 0.0f), nmap1 = vmap, nmap2 = vmap;
            vmap[0] = x, vmap[2] = 1;
            nmap1[2] = targetNormalZ;
            nmap2[1] = sourceNormalY, nmap2[2] = std::sqrt(1.0f - sourceNormalY * sourceNormalY);
            for (int i = 1; i < width; ++i) nmap2[size_t(3 * i + 2)] = 1;
            std::vector<double> info(36);
            status[width == 9] = KESTORCalcVmapMatchInfo(vmap.data(), nmap1.data(), vmap.data(),
                                                         nmap2.data(), width, 1, K, kIdentity.data(),
                                                         info.data(), maxDistance, maxAngle, 1.0);
        }
        EXPECT_EQ(status[0], status[1]);
        return status[1];
    };
    EXPECT_EQ(run(0.3f, 1, 0, 1.0, 0.1), KESTOR_STATUS_OK);
    EXPECT_EQ(run(-0.3f, 1, 0, 1.0, 0.1), KESTOR_STATUS_FAILED);  // rounds to 0, but u < 0
    EXPECT_EQ(run(0.3f, 0, 0, 1.0, 0.1), KESTOR_STATUS_FAILED);   // zero target normal
    EXPECT_EQ(run(0.3f, 1, 0, 1.0, 0.0), KESTOR_STATUS_FAILED);   // distance 0 is not below 0
    // A normal at exactly maxAngle fails here (it passes in the point form).
    const float s = 0.6f;
    const double maxAngle = std::acos(double(std::sqrt(1.0f - s * s)));
    ASSERT_EQ(float(std::cos(maxAngle)), std::sqrt(1.0f - s * s));
    EXPECT_EQ(run(0.3f, 1, s, maxAngle, 0.1), KESTOR_STATUS_FAILED);
    EXPECT_EQ(run(0.3f, 1, s, maxAngle + 1e-4, 0.1), KESTOR_STATUS_OK);
}

// Case b breaks the b-th checked argument of each export (null, or a size below 1).
TEST(MatchInfoExports, BadArgumentsWriteNothing) {
    Maps m;
    const float* v = m.vmap.data();
    const double *rt = kIdentity.data(), *K = m.K;
    std::vector<double> info(36, kSentinel);
    double* i = info.data();
    const auto cut = [](int b, int k, auto x) { return b == k ? decltype(x){} : x; };
    for (int b = 0; b < 7; ++b) {
        EXPECT_TRUE(b > 5 || KESTORCalcPointMatchInfo(cut(b, 0, v), nullptr, cut(b, 4, 1), cut(b, 1, v),
                                                    nullptr, b == 5 ? -1 : 1, cut(b, 2, rt),
                                                    cut(b, 3, i), 1, 1, 0) == 4) << b;
        EXPECT_EQ(KESTORCalcVmapMatchInfo(cut(b, 0, v), nullptr, cut(b, 1, v), nullptr, cut(b, 5, 8),
                                          b == 6 ? -2 : 6, cut(b, 2, K), cut(b, 3, rt), cut(b, 4, i),
                                          1, 1, 0), KESTOR_STATUS_BAD_ARGUMENT) << b;
        EXPECT_TRUE(b > 4 || KESTORCalcVmapSelfMatchInfo(cut(b, 0, v), cut(b, 3, 8), cut(b, 4, 6),
                                                         cut(b, 1, rt), cut(b, 2, i)) == 4) << b;
    }
    // Sizes whose products overflow an int, and point counts whose floats do.
    for (const auto& size : {std::make_pair(70000, 70000), {30000, 30000}, {1 << 28, 1}}) {
        EXPECT_EQ(KESTORCalcVmapMatchInfo(v, v, v, v, size.first, size.second, K, rt, i, 1, 1, 0), 4);
        EXPECT_EQ(KESTORCalcVmapSelfMatchInfo(v, size.first, size.second, rt, i), 4);
    }
    EXPECT_EQ(KESTORCalcPointMatchInfo(v, v, 1 << 30, v, v, 8, rt, i, 1, 1, 0), 4);
    EXPECT_EQ(KESTORCalcPointMatchInfo(v, v, 8, v, v, 1 << 30, rt, i, 1, 1, 0), 4);
    EXPECT_EQ(info, std::vector<double>(36, kSentinel));
}
