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
    const Intrinsics k = instance.intrinsics();
    calcPyramid(k, frame->info.depth, color, frame->info.mask, vmaps.data(), nmaps.data(),
                gray ? grays.data() : nullptr, gray ? gradXs.data() : nullptr,
                gray ? gradYs.data() : nullptr, instance.width, instance.height, levels, true,
                kPyramidSigma);
}

}  // namespace kestor

namespace kestor {

namespace {

// Host memory for the application to write into when the frame's planes live on the device.
uint8_t* takeStaging(RGBDFusionImpl& instance, KESTORFrameInfo& staging) {
    std::lock_guard<std::mutex> guard(instance.lock);
    auto* block = static_cast<uint8_t*>(instance.hostImagePool->take());
    layoutImage(instance, block, staging);
    return block;
}

}  // namespace

_Frame* runIntakeTask(RGBDFusionImpl& instance, const FillFunc& fill, int32_t id) {
    _Frame* frame = newFrame(instance, id);
    if (frame == nullptr) {
        instance.frameWake.notify_all();
        return nullptr;
    }
    KESTORFrameInfo& info = frame->info;
    KESTORFrameInfo device = info;
    uint8_t* staging = nullptr;
    if (instance.deviceMemory) {
        KESTORFrameInfo host = info;
        staging = takeStaging(instance, host);
        info.depth = host.depth;
        info.color = host.color;
        info.mask = host.mask;
    }
    const bool kept = fill(&info);
    if (instance.deviceMemory) {
        // No transfer: this build has no device, so the planes stay as the pool gave them.
        info.depth = device.depth;
        info.color = device.color;
        info.mask = device.mask;
        std::lock_guard<std::mutex> guard(instance.lock);
        instance.hostImagePool->giveBack(staging);
    }
    if (kept) {
        frame->timeStamp = instance.millisecondsSinceStart();
        buildFramePyramid(instance, frame);
    } else {
        std::lock_guard<std::mutex> guard(instance.lock);
        releaseFrame(instance, frame);
        frame = nullptr;
    }
    instance.frameWake.notify_all();
    return frame;
}

void runTraceTask(RGBDFusionImpl& instance, _Frame* frame, bool tracked, bool relocalized) {
    frame->track.totalTime = int64_t(instance.millisecondsSinceStart() - frame->timeStamp);
    if (instance.traceFunc) instance.traceFunc(frame);
    std::lock_guard<std::mutex> guard(instance.lock);
    if (!tracked && !relocalized)
        releaseFrame(instance, frame);  // never entered the frame list: nobody sees it again
    else
        reduceFrame(instance, frame);
}

}  // namespace kestor
