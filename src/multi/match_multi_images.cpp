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
    // The coloured mode needs gradient maps of the gray maps; the caller gave none.
    const size_t pixels = size_t(width) * size_t(height);
    std::vector<std::vector<float>> gradX(colored ? size_t(count) : 0),
        gradY(colored ? size_t(count) : 0);
    std::vector<const float*> gradXs(gradX.size()), gradYs(gradY.size());
    for (size_t f = 0; f < gradX.size(); ++f) {
        if (grays[f] == nullptr) return;
        gradX[f].resize(pixels);
        gradY[f].resize(pixels);
        gaussianGradient(packedView(grays[f], width, height),
                         packedView(gradX[f].data(), width, height),
                         packedView(gradY[f].data(), width, height), 1.6, options.parallel);
        gradXs[f] = gradX[f].data();
        gradYs[f] = gradY[f].data();
    }
    matchMultiVmap(vmaps, nmaps, colored ? grays : nullptr, colored ? gradXs.data() : nullptr,
                   colored ? gradYs.data() : nullptr, width, height, k, poses, options, progress);
}

}  // namespace kestor
