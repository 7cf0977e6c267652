#pragma once
// The fusion instance: one camera geometry, its memory pools and frame and group lists, the
// application's callbacks, the parameters, and the threads, queues and locks of the online
// pipeline (which src/pipeline brings to life).
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "core/block_pool.h"
#include "core/frame_cache.h"
#include "core/intrinsics.h"
#include "core/fusion_records.h"
#include "kestor.h"

namespace kestor {

using TraceFunc = std::function<void(const _Frame*)>;
using PairMatchFunc = std::function<bool(const _Frame*, const _Frame*, RT_<double>&, _MatchFlag)>;
using CalcScoreFunc = std::function<float(const _Frame*, const _Frame*)>;
using AttachAllocFunc = std::function<void*()>;
using AttachFreeFunc = std::function<void(void*)>;
using Task = std::function<void()>;

// The parameters an instance starts with.
KESTORPara defaultPara();

// Bits of the flags word: mask and colour are on unless their bit says "none"; gray maps need
// colour.
struct FrameLayout {
    bool hasMask, hasColor, hasGray, deviceMemory;
};
FrameLayout layoutFromFlags(unsigned flags);

struct RGBDFusionImpl {
    RGBDFusionImpl(const double* K, int width, int height, const double* levelDistances,
                   const int* levelIterations, int levels, int groupSize, unsigned flags);
    // The last steps of teardown: pools, locks and callback slots go with the members.
    ~RGBDFusionImpl();
    RGBDFusionImpl(const RGBDFusionImpl&) = delete;
    RGBDFusionImpl& operator=(const RGBDFusionImpl&) = delete;

    int32_t width;
    int32_t height;
    int32_t levels;
    int32_t pixels;
    uint8_t hasMask;
    uint8_t hasColor;
    uint8_t hasGray;
    uint8_t deviceMemory;
    int32_t groupSize;
    std::vector<int32_t> levelIterations;
    std::vector<double> levelDistances;
    size_t imageBytes;
    size_t frameBytes;
    size_t groupBytes;
    size_t pyramidBytes;
    FrameCache* cache;
    BlockPool* hostImagePool;  // only with device memory
    BlockPool* imagePool;
    BlockPool* framePool;
    BlockPool* groupPool;
    BlockPool* pyramidPool;
    TraceFunc traceFunc;
    PairMatchFunc pairMatchFunc;
    CalcScoreFunc calcScoreFunc;
    AttachAllocFunc attachAlloc;
    AttachFreeFunc attachFree;
    Task spareFunc;  // a slot that nothing sets or calls
    double fx, fy, cx, cy;
    KESTORPara para;

    std::mutex lock;  // lists, pools, poses, frameTasks, cache appends
    std::atomic<int32_t> nextFrameId{0};
    std::vector<_Frame*> frames;  // accepted frames, in order of acceptance
    std::vector<_Group*> groups;  // all groups; a group's id is its place here
    std::deque<std::future<_Frame*>> frameTasks;
    std::atomic<int32_t> finishedGroups{0};
    std::atomic<int32_t> optimizedGroups{0};
    std::atomic<uint8_t> frameStop{1};
    std::condition_variable frameWake;
    std::thread frameThread;
    std::mutex traceLock;  // traceTasks
    std::atomic<uint8_t> traceStop{1};
    std::thread traceThread;
    std::condition_variable traceWake;
    std::deque<Task> traceTasks;
    std::atomic<uint8_t> groupStop{1};
    std::condition_variable groupWake;
    std::thread groupThread;
    std::mutex workerLock;  // workerTasks
    std::atomic<int32_t> idleWorkers{0};
    std::atomic<uint8_t> workerStop{1};
    std::vector<std::thread> workers;
    std::condition_variable workerWake;
    std::deque<Task> workerTasks;
    std::atomic<uint8_t> optimizeStop{1};
    std::thread optimizeThread;
    int64_t startTime;  // monotonic ns at construction

    // The level 0 camera as the workers take it.
    Intrinsics intrinsics() const { return Intrinsics{float(fx), float(fy), float(cx), float(cy)}; }

    // Milliseconds from startTime to now.
    uint64_t millisecondsSinceStart() const;
};

// Monotonic clock in nanoseconds.
int64_t monotonicNanoseconds();

// Width or height of pyramid level l; 0 once the shift runs past the size.
inline int32_t levelExtent(int32_t extent, int level) {
    return level < 31 && extent > 0 ? extent >> level : 0;
}

// Teardown of a stopped instance up to its destructor: frame numbering back to 0, every frame's
// and group's blocks back to their pools, the lists emptied, each pool reset, and the spill
// file's header written and the file closed.
void releaseInstanceContents(RGBDFusionImpl& instance);

}  // namespace kestor
