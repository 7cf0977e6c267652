#include <algorithm>
#include <atomic>
#include <cmath>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/parallel_for.h"
#include "keypoint/inlier_count.h"
#include "keypoint/ransac_match.h"
#include "keypoint/triangle_alignment.h"
#include "keypoint/vec3.h"

namespace kestor {
namespace {

// Squared cosine of the smallest triangle angle allowed, 10 degrees.
double minAngleCos2() {
    static const double value = [] {
        const double c = std::cos(0.17453292519943295);
        return c * c;
    }();
    return value;
}

// The cheap tests before an alignment: every side of one triangle within the length ratio of
// the matching side of the other (strictly, both ways), and no source angle under 10 degrees.
bool plausibleSample(const float* const S[3], const float* const T[3], float ratio2) {
    using V = Vec3<double>;
    const V s[3] = {loadVec3<double>(S[0]), loadVec3<double>(S[1]), loadVec3<double>(S[2])};
    const V t[3] = {loadVec3<double>(T[0]), loadVec3<double>(T[1]), loadVec3<double>(T[2])};
    double sourceSide[3], targetSide[3];
    for (int k = 0; k < 3; ++k) {  // side k lies opposite vertex k
        const V a = s[(k + 1) % 3] - s[(k + 2) % 3];
        const V b = t[(k + 1) % 3] - t[(k + 2) % 3];
        sourceSide[k] = dot(a, a);
        targetSide[k] = dot(b, b);
    }
    const double r2 = ratio2;
    for (int k = 0; k < 3; ++k)
        if (!(sourceSide[k] > targetSide[k] * r2 && targetSide[k] > sourceSide[k] * r2))
            return false;
    int shortest = 0;
    for (int k = 1; k < 3; ++k)
        if (sourceSide[k] < sourceSide[shortest]) shortest = k;
    const V a = s[(shortest + 1) % 3] - s[shortest];
    const V b = s[(shortest + 2) % 3] - s[shortest];
    const double ab = dot(a, b);
    return !(ab * ab > dot(a, a) * dot(b, b) * minAngleCos2());
}

struct SlotBest {
    int count = 0;
    RT_<float> rt = RT_<float>::identity();
};

}  // namespace

int searchRigidMotion(const float* source, const float* target, const float* sourceNormals,
                      const float* targetNormals, int n, const ImageView<double>& result,
                      const ImageView<uint8_t>& mask, int iterations, double edgeRatio,
                      double inlierDistance, bool parallel) {
    if (n < 3 || source == nullptr || target == nullptr) return 0;
    const int earlyStop = std::max(6, (3 * n) >> 2);
    const float inlierRadius2 = float(inlierDistance * inlierDistance);
    const float ratio2 = float(edgeRatio * edgeRatio);
    const CorrespondenceLanes lanes =
        buildCorrespondenceLanes(source, target, sourceNormals, targetNormals, n);

    std::vector<SlotBest> best(size_t(loopSlots(parallel)));
    std::atomic<uint8_t> stop{0};
    runLoop(parallel, 0, iterations, [&](int begin, int end, int slot) {
        std::random_device device;
        std::mt19937 generator(device() | unsigned(slot));
        std::uniform_int_distribution<int> pick(0, n - 1);
        std::vector<int> order(static_cast<size_t>(n));
        std::iota(order.begin(), order.end(), 0);
        SlotBest& mine = best[size_t(slot)];
        for (int it = begin; it < end; ++it) {
            if (stop.load(std::memory_order_relaxed) != 0) break;
            // The swap may reach back before p, so the array stays a permutation and the first
            // three entries are always distinct.
            for (int p = 0; p < 3; ++p) std::swap(order[size_t(p)], order[size_t(pick(generator))]);
            const float* S[3];
            const float* T[3];
            for (int k = 0; k < 3; ++k) {
                S[k] = source + size_t(order[size_t(k)]) * 3;
                T[k] = target + size_t(order[size_t(k)]) * 3;
            }
            if (!plausibleSample(S, T, ratio2)) continue;
            const RT_<float> rt = alignTriangles(S[0], S[1], S[2], T[0], T[1], T[2]);
            const int count = countInliers(lanes, rt, inlierRadius2, nullptr);
            if (count > mine.count) {
                mine.count = count;
                mine.rt = rt;
                if (count > earlyStop) stop.exchange(1);
            }
        }
    });

    size_t winner = 0;
    for (size_t s = 1; s < best.size(); ++s)
        if (best[s].count > best[winner].count) winner = s;
    const SlotBest& chosen = best[winner];
    if (chosen.count < 3) return 0;
    const int recount = countInliers(lanes, chosen.rt, inlierRadius2, mask.data);
    if (recount != chosen.count) KESTOR_LOG("Match condition error.\n");
    poseFromFloat(chosen.rt, result);
    return chosen.count;
}

}  // namespace kestor
