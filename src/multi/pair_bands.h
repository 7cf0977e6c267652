#pragma once
// Runs a pass of every active pair band by band: the image rows are cut into bands, and each
// band of every pair's source is taken in turn, so that what a band reads of each source and of
// each target stays in cache across all pairs instead of every pair streaming whole frames from
// memory. Threads take whole bands; each keeps its own sums per pair, added up afterwards.
#include <algorithm>
#include <vector>

#include "core/parallel_for.h"
#include "multi/align_frames.h"
#include "multi/vmap_run.h"

namespace kestor {

constexpr int kBandRows = 8;

// pass(k, begin, end, slot) for pair k on its source's elements [begin, end) of one band; k only
// for active pairs. `height` is the frames' row count.
template <typename Pass>
void forPairBands(const FramePair* pairs, const unsigned char* active, int count,
                  const VmapRun& run, int height, bool parallel, Pass&& pass) {
    const int bands = (height + kBandRows - 1) / kBandRows;
    runLoop(parallel, 0, bands, [&](int first, int last, int slot) {
        for (int band = first; band < last; ++band) {
            const int r0 = band * kBandRows, r1 = std::min(height, r0 + kBandRows);
            for (int k = 0; k < count; ++k) {
                if (!active[k]) continue;
                const std::vector<int>& rows = run.sources[size_t(pairs[k].second)].rowStarts;
                if (rows[size_t(r0)] < rows[size_t(r1)]) pass(k, rows[size_t(r0)], rows[size_t(r1)], slot);
            }
        }
    });
}

// Per-pair sums of the band passes, one set per thread slot, added up slot by slot.
template <typename Sums>
struct SlotSums {
    std::vector<Sums> slots;  // slot s, pair k at s * pairs + k
    int pairs = 0;

    void reset(int slotCount, int pairCount) {
        pairs = pairCount;
        slots.assign(size_t(slotCount) * size_t(pairCount), Sums{});
    }
    Sums& at(int slot, int k) { return slots[size_t(slot) * size_t(pairs) + size_t(k)]; }
    // Pair k's sums over all slots, in slot order.
    Sums total(int k) const {
        Sums t{};
        for (size_t s = 0; s * size_t(pairs) < slots.size(); ++s) t += slots[s * size_t(pairs) + size_t(k)];
        return t;
    }
};

}  // namespace kestor
