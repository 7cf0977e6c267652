// A fusion instance driven through a random sequence of calls: create with any flags, levels and
// group size, parameters and callbacks set and cleared, start, frames added (kept or dropped),
// stop, frames and point maps read, destroy. Images are tiny and runs short.
//
// The harness keeps to the documented use: setters, reads and point maps only while stopped,
// frames only while running, frame indices below the count, and a pair-match function whenever
// a mode needs one. Those misuses end the process by design and are not what is looked for.
#include <stdlib.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "kestor.h"

using kestor_fuzz::FuzzInput;

namespace {

// What one frame's fill callback writes; made on the caller's thread before the frame is added,
// read on a worker.
struct FrameData {
    std::vector<float> depth;
    std::vector<uint8_t> color, mask;
    bool keep = true;
};

bool fillFrame(KESTORFrameInfo* frame, void* user) {
    const FrameData& d = *static_cast<const FrameData*>(user);
    if (frame->depth) std::memcpy(frame->depth, d.depth.data(), d.depth.size() * sizeof(float));
    if (frame->color) std::memcpy(frame->color, d.color.data(), d.color.size());
    if (frame->mask) std::memcpy(frame->mask, d.mask.data(), d.mask.size());
    return d.keep;
}

// The application's callbacks decide from the frame ids and a few bits chosen at install time,
// so they stay reentrant.
struct CallbackBits {
    int refuseEvery = 0;  // refuse a match when the id sum is a multiple of this (0: never)
    bool nanPose = false; // answer with a NaN translation now and then
    bool nanScore = false;
};

bool pairMatch(const KESTORFrameInfo* first, const KESTORFrameInfo* second, double rt[3][4],
               int flag, void* user) {
    const CallbackBits& bits = *static_cast<const CallbackBits*>(user);
    const int sum = first->id + second->id + flag;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) rt[r][c] = r == c ? 1.0 : 0.0;
    rt[0][3] = 0.01 * (second->id - first->id);
    if (bits.nanPose && sum % 5 == 0) rt[1][3] = std::nan("");
    return bits.refuseEvery == 0 || sum % bits.refuseEvery != 0;
}

float calcScore(const KESTORFrameInfo* candidate, const KESTORFrameInfo* current, void* user) {
    const CallbackBits& bits = *static_cast<const CallbackBits*>(user);
    if (bits.nanScore && candidate->id % 3 == 0) return std::nanf("");
    return float(current->id - candidate->id);
}

void trace(const KESTORFrameInfo* frame, const KESTORTrackInfo* track, void* user) {
    *static_cast<double*>(user) += frame->id + track->pose[0][3] + track->matchResult;
}

void readFrame(const KESTORFrameInfo* frame, const double pose[3][4], void* user) {
    *static_cast<double*>(user) += frame->index + pose[2][3];
}

// The point-map exports hand the same user pointer to the cloud and the progress callbacks.
struct CloudReader {
    double sum = 0;
    bool cancelHalfway = false;
};

void readCloud(const KESTORPointCloud* cloud, void* user) {
    double sum = 0;
    for (int i = 0; i < cloud->count; ++i) sum += cloud->points[3 * i] + cloud->normals[3 * i];
    if (cloud->colors != nullptr && cloud->count > 0) sum += cloud->colors[3 * cloud->count - 1];
    static_cast<CloudReader*>(user)->sum += sum;
}

void cancelAt(int percent, bool* cancel, void* user) {
    if (percent >= 50 && static_cast<CloudReader*>(user)->cancelHalfway) *cancel = true;
}

// The attach memory is not the library's to free without a release function (by design), so it
// is static here; the release checks that it gets back what was handed out.
int attachBlock = 7;
void* allocAttach() { return &attachBlock; }
void freeAttach(void* attach) {
    if (attach != &attachBlock) std::abort();
}

struct Session {
    void* instance = nullptr;
    int width = 0, height = 0;
    bool running = false;
    bool pairFuncSet = false;
    KESTORPara para{};
    CallbackBits bits;
    std::deque<FrameData> frames;  // alive until destroy: workers read them while running
    double sink = 0;
    std::string cachePath;
};

void create(FuzzInput& in, Session& s) {
    s.width = in.size(1, 20);
    s.height = in.size(1, 16);
    const std::vector<double> K = in.camera(s.width, s.height);
    const int levels = in.size(-1, 3);
    std::vector<double> distances(4);
    std::vector<int> iterations(4);
    for (int l = 0; l < 4; ++l) {
        distances[size_t(l)] = in.number(0.0, 0.2);
        iterations[size_t(l)] = in.size(-1, 4);
    }
    const int groupSize = in.size(-1, 4);
    const unsigned flags = in.byte() & 15u;
    KESTORCreateInstance(&s.instance, K.data(), s.width, s.height, distances.data(),
                         iterations.data(), levels, groupSize, flags);
    KESTORGetPara(s.instance, &s.para);
    s.pairFuncSet = false;
    s.running = false;
}

void addFrames(FuzzInput& in, Session& s) {
    const size_t pixels = size_t(s.width) * size_t(s.height);
    for (int n = in.size(1, 3); n > 0 && s.frames.size() < 12; --n) {
        FrameData d;
        d.depth = in.depth(s.width, s.height);
        d.color = in.bytes(pixels * 3);
        d.mask = in.bytes(pixels);
        for (uint8_t& m : d.mask) m = m < 16 ? 0 : 255;
        d.keep = in.size(0, 7) != 0;
        s.frames.push_back(std::move(d));
        KESTORAddFrame(s.instance, fillFrame, &s.frames.back());
    }
}

void start(FuzzInput& in, Session& s) {
    // These modes call the pair-match function; without one the process ends by design.
    if ((s.para.groupMode == 1 || s.para.globalMode > 0) && !s.pairFuncSet) {
        KESTORSetPairMatchFunc(s.instance, pairMatch, &s.bits);
        s.pairFuncSet = true;
    }
    KESTORStart(s.instance, in.size(1, 2));
    s.running = true;
}

void step(FuzzInput& in, Session& s) {
    const int op = in.size(0, 11);
    if (s.running && op != 8 && op != 9 && op != 1) return;  // running: only add, stop, read para
    switch (op) {
    case 0: {
        KESTORPara p = s.para;
        p.angleThreshold = in.number(0.0, 3.2);
        p.overlapThreshold = in.number(-0.5, 1.0);
        p.colorWeight = in.number(-0.5, 1.5);
        p.groupIterations = in.size(-1, 4);
        p.groupMode = in.size(-1, 3);
        p.globalMode = in.size(-1, 3);
        p.verbose = 0;
        p.fullLoopWeight = in.flag();
        KESTORSetPara(s.instance, in.size(0, 9) == 0 ? nullptr : &p);
        KESTORGetPara(s.instance, &s.para);
        break;
    }
    case 1: {
        KESTORPara p;
        KESTORGetPara(s.instance, &p);
        break;
    }
    case 2:
        KESTORSetTraceCallback(s.instance, in.flag() ? trace : nullptr, &s.sink);
        break;
    case 3: {
        const bool set = in.flag();
        s.bits.refuseEvery = in.size(0, 4);
        s.bits.nanPose = in.flag();
        KESTORSetPairMatchFunc(s.instance, set ? pairMatch : nullptr, &s.bits);
        s.pairFuncSet = set;
        break;
    }
    case 4:
        s.bits.nanScore = in.flag();
        KESTORSetCalcScoreFunc(s.instance, in.flag() ? calcScore : nullptr, &s.bits);
        break;
    case 5:
        if (in.flag())
            KESTORSetAttachAllocator(s.instance, allocAttach, in.flag() ? freeAttach : nullptr);
        else
            KESTORSetAttachAllocator(s.instance, nullptr, nullptr);
        break;
    case 6:
        KESTORSetCachePath(s.instance, in.flag() ? s.cachePath.c_str() : "/nonexistent/kestor/cache");
        break;
    case 7:
        if (!s.running) start(in, s);
        break;
    case 8:
        if (s.running) addFrames(in, s);
        break;
    case 9:
        KESTORStop(s.instance);
        s.running = false;
        break;
    case 10: {
        int count = -5;
        KESTORGetFrameNum(s.instance, in.flag() ? &count : nullptr);
        if (count > 0 && in.flag())
            KESTORGetFrame(s.instance, in.size(0, count - 1), readFrame, &s.sink);
        else
            KESTORGetFrame(s.instance, in.size(-2, -1), readFrame, &s.sink);
        break;
    }
    case 11: {
        KESTORProgressFunc progress = in.flag() ? cancelAt : nullptr;
        CloudReader reader;
        reader.cancelHalfway = in.flag();
        switch (in.size(0, 2)) {
        case 0: KESTORGetPointsPerFrame(s.instance, readCloud, progress, &reader); break;
        case 1: KESTORFusePointsMap(s.instance, readCloud, progress, &reader); break;
        case 2:
            KESTOROptimizePointsMap(s.instance, in.number(0.0, 0.1), in.size(-1, 2),
                                    in.size(-1, 3), readCloud, progress, &reader);
            break;
        }
        break;
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string cacheFolder = [] {
        char name[] = "/tmp/kestor-fuzz-cache-XXXXXX";
        return std::string(mkdtemp(name) ? name : "/tmp");
    }();
    FuzzInput in(data, size);
    Session s;
    s.cachePath = cacheFolder + "/spill.bin";
    create(in, s);
    for (int steps = 0; steps < 24 && !in.empty(); ++steps) step(in, s);
    if (s.running && in.flag()) KESTORStop(s.instance);  // destroy stops a running pipeline too
    KESTORDestroyInstance(s.instance);
    std::remove(s.cachePath.c_str());
    return 0;
}
