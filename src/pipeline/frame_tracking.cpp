#include "pipeline/frame_tracking.h"

#include <vector>

#include "core/frame_memory.h"
#include "pipeline/builtin_match.h"
#include "pipeline/candidate_draw.h"
#include "pipeline/frame_intake.h"
#include "pipeline/group_math.h"

namespace kestor {

namespace {

struct Outcome {
    bool tracked = false;
    bool relocalized = false;
    bool closed = false;
};

// Places the frame against one of the finished groups: candidates by the application's score
// or drawn at random, each tried with the application's estimate and then the built-in match
// against the group's pyramid. Returns the group's id, or -1.
int relocalize(RGBDFusionImpl& instance, int finished, _Frame* frame, GroupEdge& edge) {
    if (!instance.pairMatchFunc || finished < 1 || instance.groups.empty()) return -1;
    const std::vector<_Group*>& groups = instance.groups;
    const std::vector<ScoredCandidate> candidates = pickCandidates(
        instance, finished, [&](int g) { return keyFrameOf(*groups[size_t(g)]); }, frame);
    for (const ScoredCandidate& c : candidates) {
        const _Group& group = *groups[size_t(c.position)];
        if (!instance.pairMatchFunc(keyFrameOf(group), frame, edge.rt, MATCH_RELOCALIZE))
            continue;
        if (!builtInMatch(instance, group.levels, frame->levels, edge.rt, edge.info)) continue;
        frame->track.matchResult = 0;
        frame->track.relocalized = 1;
        return group.id;
    }
    return -1;
}

void addMember(_Group& group, _Frame* frame) {
    group.frames.push_back(frame);
    ++group.frameCount;
}

_Group* appendGroup(RGBDFusionImpl& instance) {
    instance.groups.push_back(newGroup(instance, int32_t(instance.groups.size())));
    return instance.groups.back();
}

// Puts a placed frame into the groups and the frame list; the caller holds the lock.
bool enterFrame(RGBDFusionImpl& instance, _Frame* frame, GroupEdge& edge, bool relocalized) {
    if (instance.groups.empty()) appendGroup(instance);
    bool closed = false;
    if (relocalized) {
        // A new group starts with the frame; the one before it stays short.
        closed = true;
        _Group* group = appendGroup(instance);
        addMember(*group, frame);
        group->loopEdges.push_back(edge);
    } else {
        _Group& last = *instance.groups.back();
        const int c = last.frameCount;
        closed = c >= instance.groupSize;
        if (closed || c != 0) {
            edge.from = c;
            edge.to = c - 1;
            last.chainEdges.push_back(edge);
        }
        addMember(last, frame);
        // A full group is closed by the frame, which also opens the next group as its first
        // member.
        if (closed) addMember(*appendGroup(instance), frame);
    }
    frame->info.index = int32_t(instance.frames.size());
    instance.frames.push_back(frame);
    frame->info.groupId = instance.groups.back()->id;
    poseFromDouble(frame->pose, poseView(&frame->track.pose[0][0]));
    return closed;
}

}  // namespace

void trackFrame(RGBDFusionImpl& instance, _Frame* frame) {
    if (frame == nullptr) return;
    const int64_t t0 = monotonicNanoseconds();
    // Only this thread appends to the lists, so their tails are read without the lock.
    _Frame* prev = instance.frames.empty() ? nullptr : instance.frames.back();
    GroupEdge edge{};
    edge.weight = kTrackedWeight;
    const _Group* last = instance.groups.empty() ? nullptr : instance.groups.back();
    edge.rt = last != nullptr && !last->chainEdges.empty() ? last->chainEdges.back().rt
                                                            : RT_<double>::identity();
    Outcome out;
    if (prev == nullptr) {
        out.tracked = true;
        frame->pose = RT_<double>::identity();
    } else {
        bool estimated = true;
        if (instance.pairMatchFunc &&
            !instance.pairMatchFunc(prev, frame, edge.rt, MATCH_SEQUENTIAL)) {
            frame->track.matchResult = 3;
            estimated = false;
        }
        if (estimated) {
            if (builtInMatch(instance, prev->levels, frame->levels, edge.rt, edge.info)) {
                out.tracked = true;
                frame->pose = compose(prev->pose, edge.rt);
            } else {
                frame->track.matchResult = 2;
            }
        }
        if (!out.tracked) {
            const int finished = instance.finishedGroups.load();
            const int r = finished > 0 ? relocalize(instance, finished, frame, edge) : -1;
            if (r >= 0 && r < finished) {
                out.relocalized = true;
                std::lock_guard<std::mutex> guard(instance.lock);
                edge.from = 0;
                edge.to = instance.groups[size_t(r)]->id;
                frame->pose = compose(keyFrameOf(*instance.groups[size_t(r)])->pose, edge.rt);
            }
            out.tracked = out.relocalized;
        }
    }
    if (out.tracked) {
        std::lock_guard<std::mutex> guard(instance.lock);
        out.closed = enterFrame(instance, frame, edge, out.relocalized);
    }
    if (instance.levels > 0) {
        frame->track.vmap = frame->levels[0].vmap;
        frame->track.nmap = frame->levels[0].nmap;
    }
    frame->track.trackTime = (monotonicNanoseconds() - t0) / 1000000;
    {
        std::lock_guard<std::mutex> guard(instance.traceLock);
        const bool tracked = out.tracked, relocalized = out.relocalized;
        instance.traceTasks.push_back([&instance, frame, tracked, relocalized] {
            runTraceTask(instance, frame, tracked, relocalized);
        });
    }
    instance.traceWake.notify_all();
    if (out.closed) instance.groupWake.notify_all();
}

}  // namespace kestor
