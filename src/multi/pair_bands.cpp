#include "multi/pair_bands.h"

namespace kestor {

std::vector<int> balancedCuts(const std::vector<int64_t>& costs, int parts) {
    const int bands = int(costs.size());
    int64_t total = 0;
    for (int64_t c : costs) total += c;
    std::vector<int> cuts(size_t(parts) + 1, bands);
    cuts[0] = 0;
    // Run s ends at the first band whose running total reaches s / parts of the whole.
    int64_t running = 0;
    int band = 0;
    for (int s = 1; s < parts; ++s) {
        const int64_t goal = total * s / parts;
        while (band < bands && running + costs[size_t(band)] <= goal) running += costs[size_t(band++)];
        // The band that crosses the goal goes to whichever side it is mostly on.
        if (band < bands && goal - running > running + costs[size_t(band)] - goal)
            running += costs[size_t(band++)];
        cuts[size_t(s)] = band;
    }
    return cuts;
}

}  // namespace kestor
