#pragma once
#include <cstdint>
#include <vector>

#include "core/parallel_for.h"
#include "multi/align_frames.h"
#include "multi/compact_frame.h"
#include "multi/target_records.h"

namespace kestor {

// What a run on image grids keeps: every frame's compact source and target records, made once,
// and for each pair the target pixel its last association kept for each source element (-1 for
// none), which the trial errors reuse. The arrays are sized once and rewritten by every
// association.
struct VmapRun {
    std::vector<CompactFrame> sources;
    std::vector<TargetRecords> records;  // frame 0 is never a target and has none
    std::vector<std::vector<int32_t>> targets;

    // The frames are prepared side by side when `parallel` is set: each is independent of the
    // others, and done one after the other they would leave the second thread idle.
    VmapRun(const std::vector<FrameMaps>& frames, bool useNormals, bool colour, bool parallel) {
        sources.resize(frames.size());
        records.resize(frames.size());
        runLoop(parallel, 0, int(frames.size()), [&](int begin, int end, int) {
            for (int f = begin; f < end; ++f) {
                if (f > 0) records[size_t(f)] = targetRecords(frames[size_t(f)], useNormals, colour);
                sources[size_t(f)] = compactFrame(frames[size_t(f)], useNormals);
            }
        });
        // Pair slot s holds an entry per element of its source frame; clearing them is shared out
        // as well.
        std::vector<int> sourceOfSlot(size_t(pairSlotCount(int(frames.size()))));
        for (int i = 1; i < int(frames.size()); ++i)
            for (int j = 0; j < i; ++j) sourceOfSlot[size_t(pairSlot(i, j))] = j;
        targets.resize(sourceOfSlot.size());
        runLoop(parallel, 0, int(sourceOfSlot.size()), [&](int begin, int end, int) {
            for (int s = begin; s < end; ++s)
                targets[size_t(s)].resize(size_t(sources[size_t(sourceOfSlot[size_t(s)])].size()));
        });
    }

    int32_t* targetsOf(int i, int j) { return targets[size_t(pairSlot(i, j))].data(); }
};

// Kept over valid source elements.
inline double matchScore(int kept, int valid) { return double(kept) / double(valid); }

}  // namespace kestor
