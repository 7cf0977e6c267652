#include "image/pyramid.h"

#include <vector>

#include "image/filter_kernels.h"
#include "image/vertex_normal_maps.h"

namespace kestor {

namespace {

ImageView<Float3> mapView(float* data, int width, int height) {
    return packedView(reinterpret_cast<Float3*>(data), width, height);
}

}  // namespace

void calcPyramid(const Intrinsics& k, const float* depth, const uint8_t* color,
                 const uint8_t* mask, float* const* vmaps, float* const* nmaps,
                 float* const* grays, float* const* gradXs, float* const* gradYs, int width,
                 int height, int levels, bool useMagnitude, double sigma) {
    const bool makeGray = color != nullptr && grays != nullptr;

    // Level 1's vertices are sampled from level 0's rows as they are made.
    const auto vmap0 = mapView(vmaps[0], width, height);
    const auto vmap1 = levels > 1 ? mapView(vmaps[1], width >> 1, height >> 1) : ImageView<Float3>{};
    depthToVmapNmap(k, packedView(depth, width, height), packedView(mask, width, height), vmap0,
                    mapView(nmaps[0], width, height), levels > 1 ? &vmap1 : nullptr);
    if (makeGray)
        colorToGray(packedView(reinterpret_cast<const Byte3*>(color), width, height),
                    packedView(grays[0], width, height));

    for (int l = 1; l < levels; ++l) {
        const int w = width >> l, h = height >> l;
        const int wf = width >> (l - 1), hf = height >> (l - 1);
        const auto vmap = mapView(vmaps[l], w, h);
        if (l == 1)
            vmapToNmap(constView(vmap), mapView(nmaps[l], w, h));
        else
            subsampleVmapNmap(constView(mapView(vmaps[l - 1], wf, hf)), vmap, mapView(nmaps[l], w, h));
        if (makeGray)
            subsampleGray(packedView<const float>(grays[l - 1], wf, hf),
                          packedView(grays[l], w, h));
    }

    if (!makeGray || gradXs == nullptr || gradYs == nullptr) return;

    const std::vector<float> kernel = smoothKernel(sigma);
    const int taps = int(kernel.size());
    for (int l = 0; l < levels; ++l) {
        const int w = width >> l, h = height >> l;
        const auto gray = packedView(grays[l], w, h);
        const auto gx = packedView(gradXs[l], w, h);
        const auto gy = packedView(gradYs[l], w, h);
        filterColumns(constView(gray), kernel.data(), taps, gx);
        filterRows(constView(gx), kernel.data(), taps, gray);
        // With the magnitude, the gradients of the smoothed image are used only to form it and
        // are overwritten below, so they are never stored.
        if (useMagnitude) centralGradientMagnitude(gray);
        centralGradients(constView(gray), gx, gy);
    }
}

}  // namespace kestor
