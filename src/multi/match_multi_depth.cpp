#include <vector>

#include "core/log.h"
#include "image/gray_gradient.h"
#include "image/vertex_normal_maps.h"
#include "multi/match_multi.h"

namespace kestor {

namespace {

// A frame's maps, computed here and owned for the length of the call.
struct DepthFrame {
    std::vector<Float3> vmap, nmap;
    std::vector<float> gray, gradX, gradY;
};

template <typename T>
ImageView<const T> viewOrEmpty(const T* data, int width, int height) {
    if (data == nullptr) return ImageView<const T>{};
    return packedView(data, width, height);
}

template <typename T>
bool sameSize(const ImageView<T>& a, int width, int height) {
    return a.data != nullptr && a.width == width && a.height == height;
}

void computeMaps(const Intrinsics& k, const ImageView<const float>& depth,
                 const ImageView<const uint8_t>& mask, int width, int height, DepthFrame& out,
                 FrameMaps& maps) {
    const size_t pixels = size_t(width) * size_t(height);
    out.vmap.resize(pixels);
    out.nmap.resize(pixels);
    const auto vmap = packedView(out.vmap.data(), width, height);
    depthToVmapNmap(k, depth, mask, vmap, packedView(out.nmap.data(), width, height));
    maps.vmap = constView(vmap);
    maps.nmap = packedView<const Float3>(out.nmap.data(), width, height);
}

}  // namespace

void matchMultiDepth(const float* const* depths, const unsigned char* const* colors,
                     const unsigned char* const* masks, int width, int height,
                     const Intrinsics& k, std::vector<RT_<double>>& poses,
                     const MultiOptions& options, const ProgressFunc& progress) {
    const int count = int(poses.size());
    std::vector<DepthFrame> owned(static_cast<size_t>(count));
    std::vector<FrameMaps> frames(static_cast<size_t>(count));
    for (int f = 0; f < count; ++f) {
        const auto depth = viewOrEmpty(depths[f], width, height);
        const auto mask = masks ? viewOrEmpty(masks[f], width, height) : ImageView<const uint8_t>{};
        if (colors == nullptr) {
            if (!sameSize(depth, width, height)) {
                KESTOR_LOG("matchMultiDepth - Input Depth Image Should With Same Size.\n");
                return;
            }
            computeMaps(k, depth, mask, width, height, owned[size_t(f)], frames[size_t(f)]);
            continue;
        }
        const auto color =
            viewOrEmpty(reinterpret_cast<const Byte3*>(colors[f]), width, height);
        if (!sameSize(depth, width, height) || !sameSize(color, width, height)) {
            KESTOR_LOG("matchMultiDepth - Input Image Should With Same Size.\n");
            return;
        }
        DepthFrame& d = owned[size_t(f)];
        FrameMaps& m = frames[size_t(f)];
        computeMaps(k, depth, mask, width, height, d, m);
        const size_t pixels = size_t(width) * size_t(height);
        d.gray.resize(pixels);
        d.gradX.resize(pixels);
        d.gradY.resize(pixels);
        calcGrayAndGradient(color, packedView(d.gray.data(), width, height),
                            packedView(d.gradX.data(), width, height),
                            packedView(d.gradY.data(), width, height), 1.6, false,
                            options.parallel);
        m.gray = packedView<const float>(d.gray.data(), width, height);
        m.gradX = packedView<const float>(d.gradX.data(), width, height);
        m.gradY = packedView<const float>(d.gradY.data(), width, height);
    }
    runVmapMode(colors ? alignVmapNmapsColored : alignVmapNmaps, frames, k, poses, options,
                progress);
}

}  // namespace kestor
