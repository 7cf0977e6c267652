#include "pipeline/pipeline_threads.h"

#include <chrono>
#include <utility>

#include "pipeline/frame_tracking.h"
#include "pipeline/group_finishing.h"
#include "pipeline/pose_optimisation.h"

namespace kestor {

namespace {

constexpr auto kOptimizeSleep = std::chrono::milliseconds(50);

// Sets a stop flag so that a thread about to wait on `wake` cannot miss it: the flag is written,
// the waiter's mutex passed through, then everyone woken.
void raiseStop(std::atomic<uint8_t>& flag, std::mutex& mutex, std::condition_variable& wake) {
    flag.exchange(1);
    { std::lock_guard<std::mutex> pass(mutex); }
    wake.notify_all();
}

void joinIfRunning(std::thread& thread) {
    if (thread.joinable()) thread.join();
}

void workerProc(RGBDFusionImpl* instance) {
    RGBDFusionImpl& f = *instance;
    while (!f.workerStop) {
        std::unique_lock<std::mutex> guard(f.workerLock);
        f.workerWake.wait(guard, [&] { return f.workerStop || !f.workerTasks.empty(); });
        if (f.workerStop) break;
        Task task = std::move(f.workerTasks.front());
        f.workerTasks.pop_front();
        guard.unlock();
        --f.idleWorkers;
        task();
        ++f.idleWorkers;
    }
}

// Pops the next frame's future under the lock; false when the queue is empty.
bool popFrameTask(RGBDFusionImpl& f, std::future<_Frame*>& out) {
    if (f.frameTasks.empty()) return false;
    out = std::move(f.frameTasks.front());
    f.frameTasks.pop_front();
    return true;
}

void frameProc(RGBDFusionImpl* instance) {
    RGBDFusionImpl& f = *instance;
    while (!f.frameStop) {
        std::unique_lock<std::mutex> guard(f.lock);
        f.frameWake.wait(guard, [&] { return f.frameStop || !f.frameTasks.empty(); });
        std::future<_Frame*> next;
        if (!popFrameTask(f, next)) continue;
        guard.unlock();
        // Waits for the worker; an exception stored by the task (a throwing fill, a destroyed
        // task) comes out here and ends the process.
        trackFrame(f, next.get());
    }
    // Draining: every frame added before the stop is tracked, workers still running.
    for (;;) {
        std::future<_Frame*> next;
        {
            std::lock_guard<std::mutex> guard(f.lock);
            if (!popFrameTask(f, next)) break;
        }
        trackFrame(f, next.get());
    }
}

void traceProc(RGBDFusionImpl* instance) {
    RGBDFusionImpl& f = *instance;
    while (!f.traceStop) {
        std::unique_lock<std::mutex> guard(f.traceLock);
        f.traceWake.wait(guard, [&] { return f.traceStop || !f.traceTasks.empty(); });
        if (f.traceTasks.empty()) continue;
        Task task = std::move(f.traceTasks.front());
        f.traceTasks.pop_front();
        guard.unlock();
        task();
    }
    // The tracking thread has ended: nobody adds to the queue any more.
    while (!f.traceTasks.empty()) {
        Task task = std::move(f.traceTasks.front());
        f.traceTasks.pop_front();
        task();
    }
}

// The group at finishedGroups, finished without the lock; its place is then counted.
void finishNextGroup(RGBDFusionImpl& f, std::unique_lock<std::mutex>& guard) {
    _Group* group = f.groups[size_t(f.finishedGroups.load())];
    guard.unlock();
    finishGroup(f, *group);
    ++f.finishedGroups;
}

void groupProc(RGBDFusionImpl* instance) {
    RGBDFusionImpl& f = *instance;
    // The newest group is still open until a newer one exists.
    const auto closedWaiting = [&] { return size_t(f.finishedGroups.load()) + 1 < f.groups.size(); };
    while (!f.groupStop) {
        std::unique_lock<std::mutex> guard(f.lock);
        f.groupWake.wait(guard, [&] { return f.groupStop || closedWaiting(); });
        if (closedWaiting()) finishNextGroup(f, guard);
    }
    // Tracking has ended: the last, open group is finished too.
    for (;;) {
        std::unique_lock<std::mutex> guard(f.lock);
        if (size_t(f.finishedGroups.load()) >= f.groups.size()) break;
        finishNextGroup(f, guard);
    }
}

// One pass over the groups finished so far; groups that finish during the pass count as taken
// in without having been searched for loops.
void optimizeFinished(RGBDFusionImpl& f) {
    std::vector<_Group*> groups;
    int start, count;
    {
        std::lock_guard<std::mutex> guard(f.lock);
        groups = f.groups;
        count = f.finishedGroups.load();
        start = f.optimizedGroups.load();
    }
    runOptimisationPass(f, groups, start, count);
    f.optimizedGroups.exchange(f.finishedGroups.load());
}

void optimizeProc(RGBDFusionImpl* instance) {
    RGBDFusionImpl& f = *instance;
    do {
        if (f.optimizedGroups.load() == f.finishedGroups.load())
            std::this_thread::sleep_until(std::chrono::steady_clock::now() + kOptimizeSleep);
        else
            optimizeFinished(f);
    } while (!f.optimizeStop);
    if (f.optimizedGroups.load() != f.finishedGroups.load()) optimizeFinished(f);
}

}  // namespace

void stopPipeline(RGBDFusionImpl& f) {
    raiseStop(f.frameStop, f.lock, f.frameWake);
    joinIfRunning(f.frameThread);
    raiseStop(f.traceStop, f.traceLock, f.traceWake);
    joinIfRunning(f.traceThread);
    {
        std::deque<Task> dropped;
        std::lock_guard<std::mutex> guard(f.traceLock);
        dropped.swap(f.traceTasks);
    }
    raiseStop(f.groupStop, f.lock, f.groupWake);
    joinIfRunning(f.groupThread);
    // Groups the group thread did not reach (or all of them, when it never ran).
    for (;;) {
        std::unique_lock<std::mutex> guard(f.lock);
        if (size_t(f.finishedGroups.load()) >= f.groups.size()) break;
        finishNextGroup(f, guard);
    }
    f.optimizeStop.exchange(1);  // seen within one sleep, or at the end of a pass
    joinIfRunning(f.optimizeThread);
    raiseStop(f.workerStop, f.workerLock, f.workerWake);
    for (std::thread& worker : f.workers) joinIfRunning(worker);
    std::deque<Task> dropped;
    {
        std::lock_guard<std::mutex> guard(f.workerLock);
        dropped.swap(f.workerTasks);
    }
}

void startPipeline(RGBDFusionImpl& f, int workers) {
    stopPipeline(f);
    f.idleWorkers = workers;
    f.workerStop.exchange(0);
    f.workers.clear();  // a thread that still ran would end the process here
    for (int w = 0; w < workers; ++w) f.workers.emplace_back(workerProc, &f);
    f.frameStop.exchange(0);
    f.frameThread = std::thread(frameProc, &f);
    f.traceStop.exchange(0);
    f.traceThread = std::thread(traceProc, &f);
    f.groupStop.exchange(0);
    f.groupThread = std::thread(groupProc, &f);
    f.optimizeStop.exchange(0);
    f.optimizeThread = std::thread(optimizeProc, &f);
}

}  // namespace kestor
