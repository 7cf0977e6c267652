#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kestor.h"
#include "pair/match_measures.h"
#include "surface_samples.h"

using namespace kestor;
using namespace kestor_test;

namespace {

const std::vector<double> kIdentity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
const double kSentinel = -12345.0;

// The information of moved points by its definition: the sum of J^T J.
Eigen::Matrix<double, 6, 6> informationOf(const std::vector<Eigen::Vector3f>& moved) {
    Eigen::Matrix<double, 6, 6> info = Eigen::Matrix<double, 6, 6>::Zero();
    for (const auto& p : moved) {
        const double x = p.x(), y = p.y(), z = p.z();
        Eigen::Matrix<double, 3, 6> J;
        J << 0, z, -y, 1, 0, 0, -z, 0, x, 0, 1, 0, y, -x, 0, 0, 0, 1;
        info += J.transpose() * J;
    }
    return info;
}

void expectInfo(const double* info, const Eigen::Matrix<double, 6, 6>& expected) {
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 6; ++c)
            EXPECT_NEAR(info[r * 6 + c], expected(r, c), 1e-9 * (1 + std::fabs(expected(r, c))))
                << r << "," << c;
}

std::vector<float> randomCloud(std::mt19937& rng, int n) {
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    std::vector<float> p(3 * size_t(n));
    for (float& v : p) v = uni(rng);
    return p;
}

}  // namespace

TEST(PointMatchInfo, ScoreAndInformationAgainstTheClosedForm) {
    std::mt19937 rng(11);
    const auto set1 = randomCloud(rng, 400);
    // Set 2: set 1 carried by the inverse of the pose, every other point pushed far away.
    const Eigen::Isometry3d motion = makeMotion(0.2, -0.1, 0.3, 0.5, -0.2, 0.1);
    const std::vector<double> rt = poseOf(motion);
    std::vector<float> set2(set1.size());
    std::vector<Eigen::Vector3f> matched;
    for (size_t i = 0; i < 400; ++i) {
        Eigen::Vector3d p(set1[3 * i], set1[3 * i + 1], set1[3 * i + 2]);
        if (i % 2) p += Eigen::Vector3d(0, 0, 50);
        const Eigen::Vector3d q = motion.inverse() * p;
        for (int k = 0; k < 3; ++k) set2[3 * i + size_t(k)] = float(q[k]);
    }
    // The moved points as the library computes them, in float.
    const RT_<float> pose = poseToFloat(poseView(const_cast<double*>(rt.data())));
    for (size_t i = 0; i < 400; i += 2) {
        const float* p = &set2[3 * i];
        Eigen::Vector3f m;
        for (int r = 0; r < 3; ++r)
            m[r] = pose.rotation[3 * r] * p[0] + pose.rotation[3 * r + 1] * p[1] +
                   pose.rotation[3 * r + 2] * p[2] + pose.translation[r];
        matched.push_back(m);
    }
    std::vector<double> info(36, kSentinel);
    EXPECT_EQ(KESTORCalcPointMatchInfo(set1.data(), nullptr, 400, set2.data(), nullptr, 400,
                                       rt.data(), info.data(), 0.01, 1.0, 0.5),
              KESTOR_STATUS_OK);
    expectInfo(info.data(), informationOf(matched));
    EXPECT_EQ(info[3 * 6 + 3], 200.0);
    // The score is 0.5 exactly: a limit equal to it is reached, one just above is not, and
    // the matrix is written either way.
    std::fill(info.begin(), info.end(), kSentinel);
    EXPECT_EQ(KESTORCalcPointMatchInfo(set1.data(), nullptr, 400, set2.data(), nullptr, 400,
                                       rt.data(), info.data(), 0.01, 1.0, std::nextafter(0.5, 1.0)),
              KESTOR_STATUS_FAILED);
    expectInfo(info.data(), informationOf(matched));
}

TEST(PointMatchInfo, DistanceIsStrictAndAngleEqualityPasses) {
    const float set1[3] = {0, 0, 0}, set2[3] = {3, 4, 0};  // squared distance 25 exactly
    std::vector<double> info(36);
    EXPECT_EQ(KESTORCalcPointMatchInfo(set1, nullptr, 1, set2, nullptr, 1, kIdentity.data(),
                                       info.data(), 5.0, 1.0, 0.5),
              KESTOR_STATUS_FAILED);
    EXPECT_EQ(info[3 * 6 + 3], 0.0);
    EXPECT_EQ(KESTORCalcPointMatchInfo(set1, nullptr, 1, set2, nullptr, 1, kIdentity.data(),
                                       info.data(), 5.0001, 1.0, 0.5),
              KESTOR_STATUS_OK);
    // A normal rotated by exactly maxAngle: its dot product equals the float cosine.
    const double maxAngle = 0.7;
    const float c = float(std::cos(maxAngle));
    const float n1[3] = {0, 0, 1}, n2[3] = {0, std::sqrt(1 - c * c), c};
    const float near2[3] = {0, 0, 0.1f};
    EXPECT_EQ(KESTORCalcPointMatchInfo(set1, n1, 1, near2, n2, 1, kIdentity.data(), info.data(),
                                       0.5, maxAngle, 1.0),
              KESTOR_STATUS_OK);
    EXPECT_EQ(KESTORCalcPointMatchInfo(set1, n1, 1, near2, n2, 1, kIdentity.data(), info.data(),
                                       0.5, maxAngle - 1e-4, 1.0),
              KESTOR_STATUS_FAILED);
    // One normal array missing: no angle test at all.
    EXPECT_EQ(KESTORCalcPointMatchInfo(set1, n1, 1, near2, nullptr, 1, kIdentity.data(),
                                       info.data(), 0.5, 0.0, 1.0),
              KESTOR_STATUS_OK);
}

TEST(PointMatchInfo, BadArgumentsWriteNothing) {
    const float p[3] = {0, 0, 0};
    std::vector<double> info(36, kSentinel);
    const double* rt = kIdentity.data();
    const int statuses[] = {
        KESTORCalcPointMatchInfo(nullptr, nullptr, 1, p, nullptr, 1, rt, info.data(), 1, 1, 0),
        KESTORCalcPointMatchInfo(p, nullptr, 1, nullptr, nullptr, 1, rt, info.data(), 1, 1, 0),
        KESTORCalcPointMatchInfo(p, nullptr, 1, p, nullptr, 1, nullptr, info.data(), 1, 1, 0),
        KESTORCalcPointMatchInfo(p, nullptr, 1, p, nullptr, 1, rt, nullptr, 1, 1, 0),
        KESTORCalcPointMatchInfo(p, nullptr, 0, p, nullptr, 1, rt, info.data(), 1, 1, 0),
        KESTORCalcPointMatchInfo(p, nullptr, 1, p, nullptr, -1, rt, info.data(), 1, 1, 0)};
    for (int s : statuses) EXPECT_EQ(s, KESTOR_STATUS_BAD_ARGUMENT);
    for (double v : info) EXPECT_EQ(v, kSentinel);
}

namespace {

// A small map of valid vertices at depth 2 with normals towards the camera.
struct Maps {
    int width = 8, height = 6;
    double K[9] = {10, 0, 3.5, 0, 10, 2.5, 0, 0, 1};
    std::vector<float> vmap, nmap;
    Maps() {
        for (int v = 0; v < height; ++v) {
            for (int u = 0; u < width; ++u) {
                const float z = 2.0f + 0.01f * float(u + v);
                vmap.insert(vmap.end(), {(float(u) - 3.5f) * z / 10.0f, (float(v) - 2.5f) * z / 10.0f, z});
                nmap.insert(nmap.end(), {0.0f, 0.0f, -1.0f});
            }
        }
    }
};

}  // namespace

TEST(VmapMatchInfo, IdenticalMapsScoreOneAndMatchTheSelfInformation) {
    Maps m;
    std::vector<double> info(36, kSentinel), self(36, kSentinel);
    EXPECT_EQ(KESTORCalcVmapMatchInfo(m.vmap.data(), m.nmap.data(), m.vmap.data(), m.nmap.data(),
                                      m.width, m.height, m.K, kIdentity.data(), info.data(), 0.01,
                                      0.5, 1.0),
              KESTOR_STATUS_OK);
    EXPECT_EQ(KESTORCalcVmapSelfMatchInfo(m.vmap.data(), m.width, m.height, kIdentity.data(),
                                          self.data()),
              KESTOR_STATUS_OK);
    EXPECT_EQ(info, self);
    std::vector<Eigen::Vector3f> all;
    for (size_t i = 0; i < m.vmap.size(); i += 3) all.emplace_back(m.vmap[i], m.vmap[i + 1], m.vmap[i + 2]);
    expectInfo(self.data(), informationOf(all));
}

TEST(VmapMatchInfo, ScoreCountsValidSourcePixelsOnly) {
    Maps m;
    auto vmap2 = m.vmap;
    // Two source pixels invalid (z = 0) and four moved 1 away: 46 valid, 42 matched.
    vmap2[2] = vmap2[5] = 0.0f;
    for (int i = 10; i < 14; ++i) vmap2[3 * size_t(i) + 2] += 1.0f;
    const auto status = [&](double minScore) {
        std::vector<double> info(36);
        return KESTORCalcVmapMatchInfo(m.vmap.data(), nullptr, vmap2.data(), nullptr, m.width,
                                       m.height, m.K, kIdentity.data(), info.data(), 0.01, 0.5,
                                       minScore);
    };
    EXPECT_EQ(status(42.0 / 46.0), KESTOR_STATUS_OK);
    EXPECT_EQ(status(std::nextafter(42.0 / 46.0, 1.0)), KESTOR_STATUS_FAILED);
    // No valid source pixel: the score is NaN, which passes any limit.
    std::vector<float> empty(m.vmap.size(), 0.0f);
    std::vector<double> info(36, kSentinel);
    EXPECT_EQ(KESTORCalcVmapMatchInfo(m.vmap.data(), nullptr, empty.data(), nullptr, m.width,
                                      m.height, m.K, kIdentity.data(), info.data(), 0.01, 0.5, 1.0),
              KESTOR_STATUS_OK);
    for (double v : info) EXPECT_EQ(v, 0.0);
}

TEST(VmapMatchInfo, BordersAndStrictTests) {
    // One target pixel at column 0; a source point that projects to u = -0.3 or u = +0.3.
    const double K[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const auto run = [&](float sourceX, float targetNormalZ, float sourceNormalY, double maxAngle,
                         double maxDistance) {
        const float vmap1[6] = {sourceX, 0, 1, 0, 0, 0};
        const float nmap1[6] = {0, 0, targetNormalZ, 0, 0, 0};
        const float vmap2[6] = {sourceX, 0, 1, 0, 0, 0};
        const float c = std::sqrt(1.0f - sourceNormalY * sourceNormalY);
        const float nmap2[6] = {0, sourceNormalY, c, 0, 0, 1};
        std::vector<double> info(36);
        return KESTORCalcVmapMatchInfo(vmap1, nmap1, vmap2, nmap2, 2, 1, K, kIdentity.data(),
                                       info.data(), maxDistance, maxAngle, 1.0);
    };
    EXPECT_EQ(run(0.3f, 1, 0, 1.0, 0.1), KESTOR_STATUS_OK);
    EXPECT_EQ(run(-0.3f, 1, 0, 1.0, 0.1), KESTOR_STATUS_FAILED);  // rounds to 0, but u < 0
    EXPECT_EQ(run(0.3f, 0, 0, 1.0, 0.1), KESTOR_STATUS_FAILED);   // zero target normal
    EXPECT_EQ(run(0.3f, 1, 0, 1.0, 0.0), KESTOR_STATUS_FAILED);   // distance 0 is not below 0
    // A normal at exactly maxAngle fails here (it passes in the point form).
    const float s = 0.6f, c = std::sqrt(1.0f - s * s);
    const double maxAngle = std::acos(double(c));
    ASSERT_EQ(float(std::cos(maxAngle)), c);
    EXPECT_EQ(run(0.3f, 1, s, maxAngle, 0.1), KESTOR_STATUS_FAILED);
    EXPECT_EQ(run(0.3f, 1, s, maxAngle + 1e-4, 0.1), KESTOR_STATUS_OK);
}

TEST(VmapMatchInfo, NormalsIgnoredUnlessAllFourViewsAgree) {
    Maps m;
    auto flipped = m.nmap;
    for (float& v : flipped) v = -v;
    std::vector<double> info(36);
    const auto view = [](const std::vector<float>& map, int w, int h) {
        return packedView(reinterpret_cast<const Float3*>(map.data()), w, h);
    };
    const RT_<float> identity = RT_<float>::identity();
    const Intrinsics k = intrinsicsFromMatrix(m.K);
    EXPECT_EQ(calcVmapMatchScore(view(m.vmap, 8, 6), view(m.nmap, 8, 6), view(m.vmap, 8, 6),
                                 view(flipped, 8, 6), k, identity, infoView(info.data()), 0.01, 0.5),
              0.0);
    EXPECT_EQ(calcVmapMatchScore(view(m.vmap, 8, 6), view(m.nmap, 8, 5), view(m.vmap, 8, 6),
                                 view(flipped, 8, 6), k, identity, infoView(info.data()), 0.01, 0.5),
              1.0);
    // Not a 6x6 information view: nothing is computed or written.
    std::vector<double> wrong(36, kSentinel);
    EXPECT_EQ(calcVmapMatchScore(view(m.vmap, 8, 6), view(m.nmap, 8, 6), view(m.vmap, 8, 6),
                                 view(m.nmap, 8, 6), k, identity,
                                 ImageView<double>{wrong.data(), 40, 5, 6}, 0.01, 0.5),
              0.0);
    EXPECT_EQ(wrong, std::vector<double>(36, kSentinel));
}

TEST(VmapSelfMatchInfo, SkipsZeroDepthOnlyAndUsesThePose) {
    const float vmap[9] = {1, 2, 3, 5, 5, 0, 0.5f, -1, 2};
    const std::vector<double> rt = poseOf(makeMotion(0.3, 0.2, -0.1, 1, 2, 3));
    std::vector<double> info(36, kSentinel);
    ASSERT_EQ(KESTORCalcVmapSelfMatchInfo(vmap, 3, 1, rt.data(), info.data()), KESTOR_STATUS_OK);
    const Eigen::Isometry3f pose = motionOf(rt).cast<float>();
    expectInfo(info.data(), informationOf({pose * Eigen::Vector3f(1, 2, 3),
                                           pose * Eigen::Vector3f(0.5f, -1, 2)}));
    // A NaN depth is not skipped.
    const float nanMap[3] = {0, 0, std::numeric_limits<float>::quiet_NaN()};
    KESTORCalcVmapSelfMatchInfo(nanMap, 1, 1, kIdentity.data(), info.data());
    EXPECT_TRUE(std::isnan(info[0]));
    EXPECT_EQ(info[3 * 6 + 3], 1.0);
}

TEST(VmapMatchInfo, BadArgumentsWriteNothing) {
    Maps m;
    const float* v = m.vmap.data();
    const double* rt = kIdentity.data();
    std::vector<double> info(36, kSentinel);
    double* i = info.data();
    const int statuses[] = {
        KESTORCalcVmapMatchInfo(nullptr, nullptr, v, nullptr, 8, 6, m.K, rt, i, 1, 1, 0),
        KESTORCalcVmapMatchInfo(v, nullptr, nullptr, nullptr, 8, 6, m.K, rt, i, 1, 1, 0),
        KESTORCalcVmapMatchInfo(v, nullptr, v, nullptr, 8, 6, nullptr, rt, i, 1, 1, 0),
        KESTORCalcVmapMatchInfo(v, nullptr, v, nullptr, 8, 6, m.K, nullptr, i, 1, 1, 0),
        KESTORCalcVmapMatchInfo(v, nullptr, v, nullptr, 8, 6, m.K, rt, nullptr, 1, 1, 0),
        KESTORCalcVmapMatchInfo(v, nullptr, v, nullptr, 0, 6, m.K, rt, i, 1, 1, 0),
        KESTORCalcVmapMatchInfo(v, nullptr, v, nullptr, 8, -2, m.K, rt, i, 1, 1, 0),
        KESTORCalcVmapSelfMatchInfo(nullptr, 8, 6, rt, i),
        KESTORCalcVmapSelfMatchInfo(v, 8, 6, nullptr, i),
        KESTORCalcVmapSelfMatchInfo(v, 8, 6, rt, nullptr),
        KESTORCalcVmapSelfMatchInfo(v, 0, 6, rt, i),
        KESTORCalcVmapSelfMatchInfo(v, 8, 0, rt, i)};
    for (int s : statuses) EXPECT_EQ(s, KESTOR_STATUS_BAD_ARGUMENT);
    for (double x : info) EXPECT_EQ(x, kSentinel);
}
