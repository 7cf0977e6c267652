#pragma once
// Runs a pass of every active pair band by band: the image rows are cut into bands, and each
// band of every pair's source is taken in turn, so that what a band reads of each source and of
// each target stays in cache across all pairs instead of every pair streaming whole frames from
// memory. Each thread takes one run of neighbouring bands and keeps its own sums per pair, added
// up afterwards.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "core/parallel_for.h"
#include "multi/align_frames.h"
#include "multi/vmap_run.h"

namespace kestor {

constexpr int kBandRows = 8;

// Cuts bands with the given costs into `parts` runs of neighbouring bands with about equal cost:
// run s is [cuts[s], cuts[s + 1]), cuts[0] = 0 and cuts[parts] = the band count.
std::vector<int> balancedCuts(const std::vector<int64_t>& costs, int parts);

// pass(k, begin, end, slot) for pair k on its source's elements [begin, end) of one band; k only
// for active pairs. `height` is the frames' row count. The bands are shared out by the number of
// source elements they hold: valid depth is often denser in some rows of the image (a floor, a
// desk) than in others, and equal counts of rows would leave one thread waiting for the other.
template <typename Pass>
void forPairBands(const FramePair* pairs, const unsigned char* active, int count,
                  const VmapRun& run, int height, bool parallel, Pass&& pass) {
    const int bands = (height + kBandRows - 1) / kBandRows;
    auto bandRows = [&](int band) {
        return std::pair<int, int>(band * kBandRows, std::min(height, (band + 1) * kBandRows));
    };
    const int parts = loopSlots(parallel);
    std::vector<int> cuts{0, bands};
    if (parts > 1) {
        std::vector<int64_t> costs(size_t(bands), 0);
        for (int k = 0; k < count; ++k) {
            if (!active[k]) continue;
            const std::vector<int>& rows = run.sources[size_t(pairs[k].second)].rowStarts;
            for (int band = 0; band < bands; ++band) {
                const auto [r0, r1] = bandRows(band);
                costs[size_t(band)] += rows[size_t(r1)] - rows[size_t(r0)];
            }
        }
        cuts = balancedCuts(costs, parts);
    }
    runLoop(parallel, 0, int(cuts.size()) - 1, [&](int first, int last, int slot) {
        for (int band = cuts[size_t(first)]; band < cuts[size_t(last)]; ++band) {
            const auto [r0, r1] = bandRows(band);
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
