#include <vector>

#include "image/filter_kernels.h"
#include "multi/match_multi.h"

namespace kestor {

void matchMultiImages(const float* const* vmaps, const float* const* nmaps,
                      const float* const* grays, int width, int height, const Intrinsics& k,
                      std::vector<RT_<double>>& poses, const MultiOptions& options,
                      const ProgressFunc& progress) {
    const int count = int(poses.size());
    if (width < 1 || height < 1) return;
    const bool colored = nmaps != nullptr && grays != nullptr;
    const size_t pixels = size_t(width) * size_t(height);
    std::vector<std::vector<float>> gradX(colored ? size_t(count) : 0),
        gradY(colored ? size_t(count) : 0);
    std::vector<FrameMaps> frames(static_cast<size_t>(count));
    for (int f = 0; f < count; ++f) {
        FrameMaps& m = frames[size_t(f)];
        if (vmaps[f] == nullptr) return;
        m.vmap = packedView(reinterpret_cast<const Float3*>(vmaps[f]), width, height);
        if (nmaps == nullptr) continue;
        if (nmaps[f] == nullptr) return;
        m.nmap = packedView(reinterpret_cast<const Float3*>(nmaps[f]), width, height);
        if (!colored) continue;
        if (grays[f] == nullptr) return;
        m.gray = packedView(grays[f], width, height);
        gradX[size_t(f)].resize(pixels);
        gradY[size_t(f)].resize(pixels);
        gaussianGradient(m.gray, packedView(gradX[size_t(f)].data(), width, height),
                         packedView(gradY[size_t(f)].data(), width, height), 1.6,
                         options.parallel);
        m.gradX = packedView<const float>(gradX[size_t(f)].data(), width, height);
        m.gradY = packedView<const float>(gradY[size_t(f)].data(), width, height);
    }
    const VmapMode mode = nmaps == nullptr ? alignVmaps
                          : colored        ? alignVmapNmapsColored
                                           : alignVmapNmaps;
    runVmapMode(mode, frames, k, poses, options, progress);
}

}  // namespace kestor
