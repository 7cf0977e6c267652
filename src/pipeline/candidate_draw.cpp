#include "pipeline/candidate_draw.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <numeric>

namespace kestor {

namespace {

constexpr int kMaxCandidates = 5;

}  // namespace

std::vector<ScoredCandidate> pickCandidates(const RGBDFusionImpl& instance, int count,
                                            const std::function<const _Frame*(int)>& keyFrameAt,
                                            const _Frame* current) {
    std::vector<ScoredCandidate> out;
    if (count < 1) return out;
    const int k = std::min(kMaxCandidates, count);
    if (instance.calcScoreFunc) {
        for (int g = 0; g < count; ++g)
            out.push_back(ScoredCandidate{instance.calcScoreFunc(keyFrameAt(g), current), g});
        const auto lower = [](const ScoredCandidate& a, const ScoredCandidate& b) {
            return a.score < b.score;
        };
        if (count == k) {
            std::sort(out.begin(), out.end(), lower);
        } else {
            std::partial_sort(out.begin(), out.begin() + k, out.end(), lower);
            out.resize(size_t(k));
        }
        return out;
    }
    std::srand(unsigned(std::time(nullptr)));
    std::vector<int> perm(static_cast<size_t>(count));
    std::iota(perm.begin(), perm.end(), 0);
    // A swap may reach back and exchange a place already chosen.
    for (int p = 0; p < k; ++p) std::swap(perm[size_t(p)], perm[size_t(std::rand() % count)]);
    for (int p = 0; p < k; ++p) out.push_back(ScoredCandidate{0.0f, perm[size_t(p)]});
    return out;
}

}  // namespace kestor
