#pragma once
#include <cstdint>
#include <vector>

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

    VmapRun(const std::vector<FrameMaps>& frames, bool useNormals, bool colour) {
        for (const FrameMaps& f : frames) {
            records.push_back(sources.empty() ? TargetRecords{}
                                              : targetRecords(f, useNormals, colour));
            sources.push_back(compactFrame(f, useNormals));
        }
        targets.resize(size_t(pairSlotCount(int(frames.size()))));
        for (int i = 1; i < int(frames.size()); ++i)
            for (int j = 0; j < i; ++j)
                targets[size_t(pairSlot(i, j))].resize(size_t(sources[size_t(j)].size()));
    }

    int32_t* targetsOf(int i, int j) { return targets[size_t(pairSlot(i, j))].data(); }
};

// Kept over valid source elements.
inline double matchScore(int kept, int valid) { return double(kept) / double(valid); }

}  // namespace kestor
