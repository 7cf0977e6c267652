// Joint alignment of rendered frames through KESTORMatchMultiVmapNmap, KESTORMatchMultiDepth and
// KESTORMatchMulti (maps with a camera, point sets without): every mode back to the truth with
// frame 0 untouched and serial equal to parallel, a frame that overlaps nothing, the fall-backs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "multi/rendered_frames.h"

using namespace kestor_test;

namespace {

// Every second pixel with a valid vertex and normal, with its gray value.
struct PointSets {
    std::vector<std::vector<float>> points, normals, intensities;
    std::vector<int> sizes;

    explicit PointSets(const RenderedSequence& s) : points(s.vmaps.size()), normals(points), intensities(points) {
        for (size_t f = 0; f < s.vmaps.size(); ++f) {
            for (size_t e = 0; e < s.grays[f].size(); e += 2) {
                const float *v = &s.vmaps[f][3 * e], *m = &s.nmaps[f][3 * e];
                if (!(v[2] > 0) || (m[0] == 0 && m[1] == 0 && m[2] == 0)) continue;
                points[f].insert(points[f].end(), v, v + 3);
                normals[f].insert(normals[f].end(), m, m + 3);
                intensities[f].push_back(s.grays[f][e]);
            }
            sizes.push_back(int(intensities[f].size()));
        }
    }
};

std::vector<double> runPoints(const PointSets& sets, unsigned mode, std::vector<double> rts, bool parallel,
                              int iterations = 30, double maxDistance = 0.1) {
    auto p = pointers(sets.points), n = pointers(sets.normals), g = pointers(sets.intensities);
    EXPECT_EQ(KESTORMatchMulti(p.data(), mode & Normals ? n.data() : nullptr, mode & Gray ? g.data() : nullptr,
                               sets.sizes.data(), nullptr, rts.data(), int(sets.sizes.size()), iterations,
                               maxDistance, 0.5, 0.2, 0.3, 0, parallel, false, nullptr, nullptr), KESTOR_STATUS_OK);
    return rts;
}

std::vector<double> runDepth(const RenderedSequence& s, bool withColor, std::vector<double> rts, bool parallel) {
    const std::vector<double> K = s.camera.matrix();
    EXPECT_EQ(KESTORMatchMultiDepth(s.depths().data(), withColor ? s.colors().data() : nullptr, nullptr, 80, 60,
                                    K.data(), rts.data(), int(s.frames.size()), 30, 0.2, 0.5, 0.2, 0.3, 0,
                                    parallel, false, nullptr, nullptr), KESTOR_STATUS_OK);
    return rts;
}

}  // namespace

// Both point-to-point forms lock onto one sample per point (the nearest one, or the vertex of the
// pixel a point rounds to) and the projective one has no outlier test, so they reach the truth
// only from motion under the sample spacing or half a pixel; from further out they settle on a
// whole-sample offset. They start at a tenth of the perturbation, on data where the truth is an
// exact zero of the error.
TEST(MatchMulti, EveryModeRecoversPerturbedPosesSerialAndParallelAgree) {
    const RenderedSequence &s4 = rendered(4), &s8 = rendered(8);
    // Four copies of frame 0's vertex map: every truth is the identity and an exact zero of the error.
    RenderedSequence copies = s4;
    for (size_t k = 1; k < 4; ++k) {
        copies.vmaps[k] = copies.vmaps[0];
        copies.truth[k] = Pose();
    }
    // Frame 0's points handed to every frame in that frame's own coordinates: the truth is kept
    // and is an exact zero of the error.
    PointSets sets(s4), shared(s4);
    for (size_t k = 1; k < 4; ++k) {
        const Pose inv = s4.truth[k].inverse();
        shared.points[k] = shared.points[0];
        shared.sizes[k] = shared.sizes[0];
        for (size_t e = 0; e < shared.points[k].size(); e += 3) {
            Eigen::Map<Eigen::Vector3f> p(&shared.points[k][e]);
            p = (inv.R * p.cast<double>() + inv.t).cast<float>();
        }
    }
    const std::vector<double> K = s4.camera.matrix();
    const int mapSize[2] = {80, 60};
    auto g = pointers(s4.grays), v = pointers(s4.vmaps), n = pointers(s4.nmaps);
    struct Case {
        const char* name;
        const RenderedSequence& s;
        double scale;
        std::function<std::vector<double>(std::vector<double>, bool)> run;
        double maxRotation, maxTranslation;
        double agree = 1e-7;  // serial against parallel
    };
    const Case cases[] = {
        {"vmap plane", s4, 1, [&](auto r, bool p) { return runVmapNmap(s4, Mode::Plane, r, p); }, 0.002, 0.003},
        {"vmap colored", s4, 1, [&](auto r, bool p) { return runVmapNmap(s4, Mode::Colored, r, p); }, 0.002, 0.003},
        {"vmap colored 8", s8, 0.7, [&](auto r, bool p) { return runVmapNmap(s8, Mode::Colored, r, p); }, 0.004, 0.006},
        {"vmap point", copies, 0.1, [&](auto r, bool p) { return runVmapNmap(copies, Mode::Point, r, p, 50); }, 1e-5, 1e-5},
        {"depth plane", s4, 1, [&](auto r, bool p) { return runDepth(s4, false, r, p); }, 0.002, 0.003},
        // Gray gradients made in strips differ at the strip borders with the thread count.
        {"depth colored", s4, 1, [&](auto r, bool p) { return runDepth(s4, true, r, p); }, 0.002, 0.003, 2e-4},
        {"points plane", s4, 1, [&](auto r, bool p) { return runPoints(sets, Mode::Plane, r, p); }, 0.003, 0.004},
        {"points colored", s4, 1, [&](auto r, bool p) { return runPoints(sets, Mode::Colored, r, p); }, 0.003, 0.004},
        {"points point", s4, 0.1, [&](auto r, bool p) { return runPoints(shared, Mode::Point, r, p, 30, 0.05); }, 1e-4, 1e-4},
        // With a camera the arrays are maps, and the gradients are made from the gray maps.
        {"maps colored", s4, 1, [&](std::vector<double> r, bool p) {
             EXPECT_EQ(KESTORMatchMulti(v.data(), n.data(), g.data(), mapSize, K.data(), r.data(), 4, 30, 0.2,
                                        0.5, 0.2, 0.3, 0, p, false, nullptr, nullptr), 0);
             return r;
         }, 0.002, 0.003},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<double> start = c.s.perturbedRts(c.scale);
        const std::vector<double> parallel = c.run(start, true);
        expectRecovered(c.s, start, parallel, c.maxRotation, c.maxTranslation);
        expectNear(c.run(start, false), parallel, c.agree);
    }
}

TEST(MatchMulti, AFrameThatOverlapsNothingLeavesEveryPose) {
    RenderedSequence s = rendered(4);
    PointSets sets(s);
    for (float& c : sets.points[3]) c += 50.0f;
    std::fill(s.vmaps[3].begin(), s.vmaps[3].end(), 0.0f);
    const std::vector<double> start = s.perturbedRts();
    for (Mode mode : {Mode::Point, Mode::Plane, Mode::Colored}) {
        EXPECT_EQ(runVmapNmap(s, mode, start, true), start) << "maps, mode " << int(mode);
        EXPECT_EQ(runPoints(sets, mode, start, true), start) << "points, mode " << int(mode);
    }
}

// Colour needs normals and all three gray maps; short of that the run is the plain one.
TEST(MatchMulti, IncompleteColourFallsBackToThePlainMode) {
    const RenderedSequence& s = rendered(4);
    const std::vector<double> start = s.perturbedRts();
    EXPECT_EQ(runVmapNmap(s, Normals | Gray | GradX, start, false, 3), runVmapNmap(s, Plane, start, false, 3));
    const PointSets sets(s);
    EXPECT_EQ(runPoints(sets, Gray, start, false, 3), runPoints(sets, Point, start, false, 3));
}

// The modes that correct a pose on its right only ever see relative poses, so turning the whole
// set by one large motion G turns the result by G and changes nothing else; the one mode
// corrected on the left does not follow it.
TEST(MatchMulti, CorrectionSideDecidesWhetherARunFollowsAMotionOfTheWholeSet) {
    const RenderedSequence& s = rendered(4);
    const PointSets sets(s);
    const Pose G = Pose::fromAxisAngle({0.3, -1, 0.5}, 1.9, {2.0, -1.0, 0.5});
    auto moved = [&](const std::vector<double>& rts) {
        std::vector<double> out;
        for (size_t f = 0; f < rts.size(); f += 12) {
            const std::vector<double> m = (G * Pose::fromMatrix(&rts[f])).matrix();
            out.insert(out.end(), m.begin(), m.end());
        }
        return out;
    };
    const std::vector<double> start = s.perturbedRts();
    for (Mode mode : {Mode::Point, Mode::Plane, Mode::Colored}) {
        SCOPED_TRACE(int(mode));
        // Point to point on maps is the one mode corrected on the left, in common coordinates:
        // there the motion changes the steps.
        const std::vector<double> a = runVmapNmap(s, mode, moved(start), false, 5),
                                  b = moved(runVmapNmap(s, mode, start, false, 5));
        double apart = 0;
        for (size_t e = 0; e < a.size(); ++e) apart = std::max(apart, std::abs(a[e] - b[e]));
        if (mode == Mode::Point)
            EXPECT_GT(apart, 1e-3);
        else
            EXPECT_LT(apart, 1e-5);
        expectNear(runPoints(sets, mode, moved(start), false, 5), moved(runPoints(sets, mode, start, false, 5)), 1e-5);
    }
}
