#include "pipeline/frame_intake.h"

#include <cstring>
#include <vector>

#include "core/frame_memory.h"
#include "core/log.h"
#include "image/pyramid.h"

namespace kestor {

namespace {

// The smoothing of pyramid levels, as the pyramid export uses it.
constexpr double kPyramidSigma = 0.5;

}  // namespace

_Frame* newFrame(RGBDFusionImpl& instance, int32_t id) {
    std::unique_lock<std::mutex> guard(instance.lock);
    auto* frame = static_cast<_Frame*>(instance.framePool->take());
    // The block is cleared before it is tested: an allocator that really returned null would end
    // the process here, as the plain allocator does; the test below serves pools that do not.
    if (frame != nullptr) std::memset(static_cast<void*>(frame), 0, instance.frameBytes);
    if (frame == nullptr) {
        KESTOR_LOG("Cannot create frame from allocator.\n");
        return nullptr;
    }
    frame->depthRecord = frame->colorRecord = frame->maskRecord = kNoRecord;
    layoutImage(instance, static_cast<uint8_t*>(instance.imagePool->take()), frame->info);
    if (instance.attachAlloc) frame->info.attach = instance.attachAlloc();
    layoutPyramid(instance, static_cast<uint8_t*>(instance.pyramidPool->take()), frame->levels);
    frame->info.id = id;
    frame->info.index = -1;
    frame->info.groupId = -1;
    return frame;
}

void buildFramePyramid(const RGBDFusionImpl& instance, _Frame* frame) {
    if (instance.deviceMemory) return;
    if (frame->info.depth == nullptr || instance.width < 1 || instance.height < 1 ||
        instance.levels < 1 || frame->levels[0].vmap == nullptr)
        return;
    const int levels = instance.levels;
    const size_t n = size_t(levels);
    std::vector<float*> vmaps(n), nmaps(n), grays(n), gradXs(n), gradYs(n);
    for (int l = 0; l < levels; ++l) {
        const FrameLevel& level = frame->levels[l];
        vmaps[size_t(l)] = level.vmap;
        nmaps[size_t(l)] = level.nmap;
        grays[size_t(l)] = level.gray;
        gradXs[size_t(l)] = level.gradX;
        gradYs[size_t(l)] = level.gradY;
    }
    const uint8_t* color = instance.hasGray && instance.hasColor ? frame->info.color : nullptr;
    const bool gray = instance.hasGray;
    const Intrinsics k{float(instance.fx), float(instance.fy), float(instance.cx),
                       float(instance.cy)};
    calcPyramid(k, frame->info.depth, color, frame->info.mask, vmaps.data(), nmaps.data(),
                gray ? grays.data() : nullptr, gray ? gradXs.data() : nullptr,
                gray ? gradYs.data() : nullptr, instance.width, instance.height, levels, true,
                kPyramidSigma);
}

}  // namespace kestor
