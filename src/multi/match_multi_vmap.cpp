#include <algorithm>

#include "multi/match_multi.h"

namespace kestor {

void runVmapMode(VmapMode mode, const std::vector<FrameMaps>& frames, const Intrinsics& k,
                 std::vector<RT_<double>>& poses, const MultiOptions& options,
                 ProgressFunc progress) {
    std::vector<RT_<double>> local(poses);
    mode(frames, k, local, options, progress);
    for (size_t f = 0; f < poses.size(); ++f) {
        std::copy_n(local[f].rotation, 9, poses[f].rotation);
        std::copy_n(local[f].translation, 3, poses[f].translation);
    }
}

void matchMultiVmap(const float* const* vmaps, const float* const* nmaps,
                    const float* const* grays, const float* const* gradXs,
                    const float* const* gradYs, int width, int height, const Intrinsics& k,
                    std::vector<RT_<double>>& poses, const MultiOptions& options,
                    const ProgressFunc& progress) {
    const bool colored = nmaps && grays && gradXs && gradYs;
    const int count = int(poses.size());
    std::vector<FrameMaps> frames(static_cast<size_t>(count));
    for (int f = 0; f < count; ++f) {
        FrameMaps& m = frames[size_t(f)];
        if (vmaps[f] == nullptr) return;
        m.vmap = packedView(reinterpret_cast<const Float3*>(vmaps[f]), width, height);
        if (nmaps == nullptr) continue;
        if (nmaps[f] == nullptr) return;
        m.nmap = packedView(reinterpret_cast<const Float3*>(nmaps[f]), width, height);
        if (!colored) continue;
        if (grays[f] == nullptr || gradXs[f] == nullptr || gradYs[f] == nullptr) return;
        m.gray = packedView(grays[f], width, height);
        m.gradX = packedView(gradXs[f], width, height);
        m.gradY = packedView(gradYs[f], width, height);
    }
    const VmapMode mode = colored ? alignVmapNmapsColored : nmaps ? alignVmapNmaps : alignVmaps;
    runVmapMode(mode, frames, k, poses, options, progress);
}

}  // namespace kestor
