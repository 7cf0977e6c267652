#include "pointmap/frame_clouds.h"

#include <algorithm>
#include <cstdint>

#include "image/color_points.h"

namespace kestor {

void frameCloud(const Intrinsics& k, const ImageView<const float>& depth,
                const ImageView<const Byte3>& colors, const ImageView<const uint8_t>& mask,
                std::vector<uint8_t>& outColors, std::vector<float>& outPoints,
                std::vector<float>& outNormals) {
    // The same walk that the coloured-points export runs: the mask zeroes vertices while the
    // vertex map is built, so the z test below it covers masked pixels too.
    ColoredPoints kept;
    gatherColoredPoints(k, depth, colors, mask, kept);
    outColors.swap(kept.colors);
    outPoints.swap(kept.points);
    outNormals.swap(kept.normals);
}

void forEachFrame(RGBDFusionImpl& instance, _Frame* const* frames, int frameCount,
                  const FramePlanesFunc& frame, const ProgressFunc& progress) {
    const size_t pixels = size_t(std::max(instance.pixels, 0));
    const bool fromCache = instance.cache->isOpen();
    // The work buffers: spilled planes are read into them one frame at a time, and with device
    // memory (which this build cannot read back) they stand in, cleared, for the frame's planes.
    std::vector<float> depthBuffer;
    std::vector<uint8_t> colorBuffer, maskBuffer;
    if (fromCache || instance.deviceMemory) {
        depthBuffer.assign(pixels, 0.0f);
        colorBuffer.assign(pixels * 3, 0);
        maskBuffer.assign(pixels, 0);
    }
    const int step = std::max(1, (frameCount + 49) / 50);
    bool cancel = false;
    for (int i = 0; i < frameCount; ++i) {
        if (progress && i % step == 0) progress(int((100LL * i) / frameCount), cancel);
        if (cancel) return;
        const _Frame& f = *frames[i];
        const float* depth = f.info.depth;
        const uint8_t* color = f.info.color;
        const uint8_t* mask = f.info.mask;
        if (instance.deviceMemory && f.info.depth != nullptr) {
            depth = depthBuffer.data();
            color = f.info.color != nullptr ? colorBuffer.data() : nullptr;
            mask = f.info.mask != nullptr ? maskBuffer.data() : nullptr;
        } else if (fromCache) {
            FrameCache& cache = *instance.cache;
            depth = cache.read(f.depthRecord, pixels * 4, depthBuffer.data()) ? depthBuffer.data()
                                                                               : nullptr;
            color = cache.read(f.colorRecord, pixels * 3, colorBuffer.data()) ? colorBuffer.data()
                                                                              : nullptr;
            mask = cache.read(f.maskRecord, pixels, maskBuffer.data()) ? maskBuffer.data() : nullptr;
        }
        if (depth == nullptr) continue;
        frame(i, depth, reinterpret_cast<const unsigned char(*)[3]>(color), mask, f.pose);
    }
    if (progress) progress(100, cancel);
}

void forEachFrameCloud(RGBDFusionImpl& instance, const FrameCloudFunc& cloud,
                       const ProgressFunc& progress) {
    if (!cloud) return;
    const Intrinsics k = instance.intrinsics();
    const int width = instance.width, height = instance.height;
    auto oneFrame = [&](int index, const float* depth, const unsigned char (*colors)[3],
                        const unsigned char* mask, const RT_<double>& pose) {
        _PointCloud c;
        frameCloud(k, packedView(depth, width, height),
                   packedView(reinterpret_cast<const Byte3*>(colors), width, height),
                   packedView(mask, width, height), c.colors, c.points, c.normals);
        const RT_<float> rt = castRT<float>(pose);
        const int count = int(c.points.size() / 3);
        rotateNormals(rt, c.normals.data(), c.normals.data(), count);
        transformPoints(rt, c.points.data(), c.points.data(), count);
        cloud(index, c);
    };
    forEachFrame(instance, instance.frames.data(), int(instance.frames.size()), oneFrame,
                 progress);
}

}  // namespace kestor
