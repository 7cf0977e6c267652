// The pair passes of the joint alignment on image grids: eight elements at a time against one by
// one on rendered frames (same stored bits, sums equal to rounding), and the association gates on
// a hand-made target where each element sits on one edge of one gate.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "multi/rendered_frames.h"
#include "multi/vmap_pair_passes.h"

using namespace kestor;
using namespace kestor_test;

namespace {

FrameMaps mapsOf(const RenderedSequence& s, int k) {
    const int w = s.camera.width, h = s.camera.height;
    FrameMaps m;
    m.vmap = packedView(reinterpret_cast<const Float3*>(s.vmaps[size_t(k)].data()), w, h);
    m.nmap = packedView(reinterpret_cast<const Float3*>(s.nmaps[size_t(k)].data()), w, h);
    m.gray = packedView<const float>(s.grays[size_t(k)].data(), w, h);
    m.gradX = packedView<const float>(s.gradXs[size_t(k)].data(), w, h);
    m.gradY = packedView<const float>(s.gradYs[size_t(k)].data(), w, h);
    return m;
}

void expectClose(double a, double b) { EXPECT_NEAR(a, b, 1e-9 * (1.0 + std::abs(b))); }

// What a pass leaves: the targets, the kept count and its sums, flattened.
struct Outcome {
    std::vector<int32_t> targets;
    int kept = 0;
    std::vector<double> sums;
};

// Runs `pass(begin, end, targets, sums)` over the whole source and element by element; returns
// the targets.
template <typename Pass>
std::vector<int32_t> expectLanesMatchSingles(int count, Pass pass) {
    Outcome whole, single;
    whole.targets.assign(size_t(count), -2);
    single.targets.assign(size_t(count), -2);
    whole.kept = pass(0, count, whole.targets.data(), whole.sums);
    for (int e = 0; e < count; ++e) single.kept += pass(e, e + 1, single.targets.data(), single.sums);
    EXPECT_EQ(whole.kept, single.kept);
    EXPECT_GT(whole.kept, count / 4);
    EXPECT_LT(whole.kept, count);
    EXPECT_EQ(whole.targets, single.targets);
    EXPECT_EQ(whole.sums.size(), single.sums.size());
    for (size_t i = 0; i < whole.sums.size() && i < single.sums.size(); ++i) expectClose(whole.sums[i], single.sums[i]);
    return whole.targets;
}

template <int N>
void append(std::vector<double>& out, const RowSums<N>& sums, double error) {
    if (out.empty()) out.assign(N * N + N + 1, 0.0);
    for (int i = 0; i < N * N; ++i) out[size_t(i)] += sums.hessian[i];
    for (int i = 0; i < N; ++i) out[size_t(N * N + i)] += sums.gradient[i];
    out.back() += error;
}

// Frame 2 of a rendered sequence against frame 0, at a start that is off the truth so that some
// elements fail each gate.
struct RenderedPair {
    const RenderedSequence& s = rendered(3, 2.0);
    const Intrinsics k{float(s.camera.fx), float(s.camera.fy), float(s.camera.cx), float(s.camera.cy)};
    std::vector<double> start = s.perturbedRts(1.0);
    const RT_<float> T = relativePose(poseToDouble(poseView(&start[0])), poseToDouble(poseView(&start[24])));
    const ProjectiveTest plane{0.05f * 0.05f, float(std::cos(0.5)), true};
};

}  // namespace

TEST(VmapPairPasses, LanesAndSingleElementsAgreeInEveryPass) {
    const RenderedPair pair;
    const RenderedSequence& s = pair.s;
    const Intrinsics& k = pair.k;
    const RT_<float>& T = pair.T;
    const ProjectiveTest& plane = pair.plane;
    const ProjectiveTest point{0.05f * 0.05f, 0.0f, false};

    const CompactFrame withNormals = compactFrame(mapsOf(s, 2), true);
    const CompactFrame withoutNormals = compactFrame(mapsOf(s, 2), false);
    const TargetRecords colour = targetRecords(mapsOf(s, 0), true, true);
    const TargetRecords vertices = targetRecords(mapsOf(s, 0), false, false);
    const int n = withNormals.size();
    ASSERT_GT(n, 64);

    const std::vector<int32_t> pointTargets = expectLanesMatchSingles(withoutNormals.size(), [&](int b, int e, int32_t* t, std::vector<double>& out) {
        RowSums<12> sums;
        double error = 0.0;
        const int kept = pointRowsPass(withoutNormals, vertices, k, T, point, b, e, t, sums, error);
        append(out, sums, error);
        return kept;
    });
    expectLanesMatchSingles(n, [&](int b, int e, int32_t* t, std::vector<double>& out) {
        RowSums<6> sums;
        double error = 0.0;
        const int kept = planeRowsPass(withNormals, colour, k, T, plane, b, e, t, sums, error);
        append(out, sums, error);
        return kept;
    });
    const std::vector<int32_t> targets = expectLanesMatchSingles(n, [&](int b, int e, int32_t* t, std::vector<double>& out) {
        ColoredSums sums;
        const int kept = coloredSumsPass(withNormals, colour, k, T, plane, b, e, t, sums);
        EXPECT_EQ(sums.kept, kept);
        append(out, sums.geometric, 0.0);
        append(out, sums.photometric, 0.0);
        return kept;
    });
    // The passes that walk kept targets, at a trial pose a little off the association's: the
    // values of `sums(begin, end)` over the whole source and summed element by element agree.
    RT_<float> trial = T;
    trial.translation[0] += 0.004f;
    trial.rotation[1] += 0.002f;
    auto byElement = [&](int count, auto sums) {
        const std::vector<double> lanes = sums(0, count);
        std::vector<double> singles(lanes.size(), 0.0);
        for (int e = 0; e < count; ++e) {
            const std::vector<double> one = sums(e, e + 1);
            for (size_t i = 0; i < one.size(); ++i) singles[i] += one[i];
        }
        EXPECT_GT(lanes[0], 0.0);
        for (size_t i = 0; i < lanes.size(); ++i) expectClose(lanes[i], singles[i]);
    };
    byElement(n, [&](int b, int e) {
        return std::vector<double>{planeErrorPass(withNormals, colour, trial, targets.data(), b, e)};
    });
    byElement(n, [&](int b, int e) {
        return std::vector<double>{centredPlaneErrorPass(withNormals, colour, trial, targets.data(), b, e, 0.01)};
    });
    byElement(withoutNormals.size(), [&](int b, int e) {
        return std::vector<double>{pointErrorPass(withoutNormals, vertices, trial, pointTargets.data(), b, e)};
    });
}

// The coloured blocks come from unweighted sums, centred and weighted afterwards. They must equal
// the rows centred and weighted one by one, and the trial error at the association's own pose
// must give back the linearised error.
TEST(VmapPairPasses, ColouredSumsGiveTheRowsCentredAndWeightedOneByOne) {
    const RenderedPair p;
    const CompactFrame source = compactFrame(mapsOf(p.s, 2), true);
    const TargetRecords target = targetRecords(mapsOf(p.s, 0), true, true);
    const int n = source.size();
    std::vector<int32_t> targets(static_cast<size_t>(n));
    ColoredSums all;
    coloredSumsPass(source, target, p.k, p.T, p.plane, 0, n, targets.data(), all);
    ASSERT_GT(all.kept, n / 4);
    ColoredScales scales;
    scales.update({all.stats()}, 0.3);
    ASSERT_GT(std::abs(scales.meanGeometric), 1e-5);  // the centring matters here
    ASSERT_GT(std::abs(scales.meanPhotometric), 1e-5);

    double hessian[36] = {}, gradient[6] = {}, error = 0.0;
    std::vector<int32_t> one(static_cast<size_t>(n));
    for (int e = 0; e < n; ++e) {
        ColoredSums element;  // a single element's sums are its row and residual
        if (coloredSumsPass(source, target, p.k, p.T, p.plane, e, e + 1, one.data(), element) == 0) continue;
        const RowSums<7>* kinds[2] = {&element.geometric, &element.photometric};
        const double means[2] = {scales.meanGeometric, scales.meanPhotometric};
        const double weights[2] = {scales.weightGeometric, scales.weightPhotometric};
        for (int kind = 0; kind < 2; ++kind) {
            const double r = (kinds[kind]->gradient[6] - means[kind]) * weights[kind];
            for (int a = 0; a < 6; ++a) {
                const double ja = kinds[kind]->gradient[a] * weights[kind];
                for (int b = a; b < 6; ++b) hessian[a * 6 + b] += ja * kinds[kind]->gradient[b] * weights[kind];
                gradient[a] += r * ja;
            }
            error += r * r;
        }
    }
    RowSums<6> rows;
    const double linearised = all.weightedRows(scales, rows);
    for (int a = 0; a < 6; ++a) {
        for (int b = a; b < 6; ++b) expectClose(rows.hessian[a * 6 + b], hessian[a * 6 + b]);
        EXPECT_NEAR(rows.gradient[a], gradient[a], 1e-9 * (1.0 + std::sqrt(hessian[a * 7] * error)));
    }
    expectClose(linearised, error);
    const double trial = scales.weightGeometric * scales.weightGeometric *
                             centredPlaneErrorPass(source, target, p.T, targets.data(), 0, n, scales.meanGeometric) +
                         all.photometricError(scales);
    expectClose(trial, error);
}

// A 4 x 2 target whose pixel (c, r) holds the vertex (c, r, 1) facing the camera, with fx = fy = 1
// and the centre at 0, so a source point (x, y, 1) projects to u = x, v = y at the identity.
TEST(VmapPairPasses, EachGateRejectsAtItsEdgeInLanesAndOneByOne) {
    const int W = 4, H = 2;
    std::vector<Float3> vmap, nmap;
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c) {
            vmap.push_back(Float3{float(c), float(r), 1.0f});
            nmap.push_back(Float3{0.0f, 0.0f, -1.0f});
        }
    vmap[1 * W + 1].z = 0.0f;          // no vertex at (1, 1)
    nmap[1 * W + 2] = Float3{0, 0, 0};  // no normal at (2, 1)
    FrameMaps target;
    target.vmap = packedView<const Float3>(vmap.data(), W, H);
    target.nmap = packedView<const Float3>(nmap.data(), W, H);
    const TargetRecords records = targetRecords(target, true, false);

    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Float3 facing{0.0f, 0.0f, -1.0f};
    struct Element {
        Float3 p, m;
        int expected;  // target pixel, or -1
    };
    const Element elements[] = {
        {{0.0f, 0.0f, 1.0f}, facing, 0},           // u = 0 exactly is taken
        {{-0.3f, 0.0f, 1.0f}, facing, -1},         // u < 0 although it rounds to column 0
        {{3.5f, 0.0f, 1.0f}, facing, -1},          // u + 0.5 == W
        {{3.4f, 0.0f, 1.0f}, facing, 3},           // column W - 1, distance 0.4
        {{1.0f, 1.0f, 1.0f}, facing, -1},          // target without a vertex
        {{2.0f, 1.0f, 1.0f}, facing, -1},          // target without a normal
        {{1.5f, 0.0f, 1.0f}, facing, -1},          // distance exactly at the limit (0.5)
        {{0.0f, 1.0f, 1.0f}, {0.0f, 0.8660254f, -0.5f}, -1},  // n . m exactly at the limit
        {{nan, 0.0f, 1.0f}, facing, -1},           // NaN
        {{1.0f, 0.0f, 1.0f}, facing, 1},
        {{-1.0f, 0.0f, -1.0f}, facing, -1},        // behind the camera, lands on column 1, too far
        {{0.0f, -0.0f, 1.0f}, facing, 0},          // v = -0 counts as 0
        {{3.0f, 1.49f, 1.0f}, facing, 7},
        {{3.0f, 1.5f, 1.0f}, facing, -1},          // v + 0.5 == H
        {{0.4f, 0.0f, 1.0f}, {0.0f, 0.8f, -0.6f}, 0},  // n . m = 0.6 is above the limit
        {{2.2f, -0.1f, 1.0f}, facing, -1},         // v < 0
    };
    CompactFrame source;
    std::vector<int32_t> expected;
    for (const Element& e : elements) {
        source.points.push_back(e.p);
        source.normals.push_back(e.m);
        source.pixels.push_back(int32_t(source.pixels.size()));
        expected.push_back(e.expected);
    }
    const Intrinsics k{1.0f, 1.0f, 0.0f, 0.0f};
    const ProjectiveTest test{0.25f, 0.5f, true};
    const RT_<float> identity = RT_<float>::identity();
    const int count = source.size();
    std::vector<int32_t> lanes(static_cast<size_t>(count)), singles(static_cast<size_t>(count));
    RowSums<6> sums;
    double error = 0.0;
    EXPECT_EQ(planeRowsPass(source, records, k, identity, test, 0, count, lanes.data(), sums, error), 6);
    for (int e = 0; e < count; ++e)
        planeRowsPass(source, records, k, identity, test, e, e + 1, singles.data(), sums, error);
    EXPECT_EQ(lanes, expected);
    EXPECT_EQ(singles, expected);
}
