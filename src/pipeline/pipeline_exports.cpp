// Exports of the pipeline family: start and stop, adding a frame by its fill callback, and
// reading the accepted frames with their current poses.
#include <memory>
#include <utility>

#include "core/fusion_instance.h"
#include "kestor.h"
#include "pipeline/frame_intake.h"
#include "pipeline/pipeline_threads.h"

using namespace kestor;

namespace {

RGBDFusionImpl* instanceOf(void* handle) { return static_cast<RGBDFusionImpl*>(handle); }

// The frame at `index` and a copy of its pose, taken together under the lock so that a reader
// running beside the pipeline sees a whole transform and a list that is not moving; false past
// the end of the list.
bool frameAt(RGBDFusionImpl& f, int index, const _Frame*& frame, double pose[3][4]) {
    std::lock_guard<std::mutex> guard(f.lock);
    if (size_t(index) >= f.frames.size()) return false;
    frame = f.frames[size_t(index)];
    poseFromDouble(frame->pose, poseView(&pose[0][0]));
    return true;
}

}  // namespace

extern "C" {

int KESTORStart(void* instance, int workers) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    startPipeline(*instanceOf(instance), workers);
    return KESTOR_STATUS_OK;
}

int KESTORStop(void* instance) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    stopPipeline(*instanceOf(instance));
    return KESTOR_STATUS_OK;
}

int KESTORAddFrame(void* instance, KESTORFillFunc fill, void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (fill == nullptr) return KESTOR_STATUS_BAD_ARGUMENT;
    RGBDFusionImpl& f = *instanceOf(instance);
    FillFunc callable = [fill, user](KESTORFrameInfo* frame) { return fill(frame, user); };
    // The number is read before the task is queued and raised after: one producer at a time.
    const int32_t id = f.nextFrameId.load();
    auto task = std::make_shared<std::packaged_task<_Frame*()>>(
        [&f, callable, id] { return runIntakeTask(f, callable, id); });
    std::future<_Frame*> result = task->get_future();
    {
        std::lock_guard<std::mutex> guard(f.workerLock);
        f.workerTasks.push_back([task] { (*task)(); });
    }
    f.workerWake.notify_one();
    {
        // Only the producer pushes here, so this queue keeps the order of the calls.
        std::lock_guard<std::mutex> guard(f.lock);
        f.frameTasks.push_back(std::move(result));
    }
    ++f.nextFrameId;
    return KESTOR_STATUS_OK;
}

int KESTORGetFrameNum(void* instance, int* count) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (count == nullptr) return KESTOR_STATUS_OK;
    RGBDFusionImpl& f = *instanceOf(instance);
    std::lock_guard<std::mutex> guard(f.lock);
    *count = int(f.frames.size());
    return KESTOR_STATUS_OK;
}

int KESTORGetFrame(void* instance, int index, KESTORFrameFunc func, void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (func == nullptr || index < -1) return KESTOR_STATUS_BAD_ARGUMENT;
    RGBDFusionImpl& f = *instanceOf(instance);
    const _Frame* frame = nullptr;
    double pose[3][4];
    // An index past the end is not reported: no call. The callback runs without the lock.
    if (index >= 0) {
        if (frameAt(f, index, frame, pose)) func(&frame->info, pose, user);
        return KESTOR_STATUS_OK;
    }
    for (int i = 0; frameAt(f, i, frame, pose); ++i) func(&frame->info, pose, user);
    return KESTOR_STATUS_OK;
}

}  // extern "C"
