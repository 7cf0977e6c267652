// A long run of the whole engine: ten thousand small rendered frames through four workers with a
// spill file and the background optimisation on. Memory must stop growing once it is warm, apart
// from what the engine keeps on purpose (a frame block per frame, and a group block and the key
// frame's pyramid per group), every frame must be traced once, and the spill file's header must
// count the records the file holds.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include "core/fusion_instance.h"
#include "support/engine_harness.h"

using namespace kestor_test;

namespace {

constexpr int kFrames = 10000, kWarmUp = 2000, kGroupSize = 10;

long residentBytes() {
    long pages = 0, resident = 0;
    std::ifstream statm("/proc/self/statm");
    statm >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

struct SoakTrace {
    TraceRecorder records;
    std::atomic<int> traced{0};
    long residentAtWarmUp = 0, residentAtEnd = 0;
    int finishedAtWarmUp = 0, finishedAtEnd = 0;
    void* instance = nullptr;
};

void onTrace(const KESTORFrameInfo* frame, const KESTORTrackInfo* track, void* user) {
    auto* soak = static_cast<SoakTrace*>(user);
    recordTrace(frame, track, &soak->records);
    // The trace thread reads the group count without the lock: only its size, for a figure.
    const auto& impl = *static_cast<const kestor::RGBDFusionImpl*>(soak->instance);
    if (frame->id == kWarmUp - 1) {
        soak->residentAtWarmUp = residentBytes();
        soak->finishedAtWarmUp = impl.finishedGroups.load();
    }
    if (frame->id == kFrames - 1) {
        soak->residentAtEnd = residentBytes();
        soak->finishedAtEnd = impl.finishedGroups.load();
    }

    ++soak->traced;
}

// The application's estimate: the identity for the next frame, nothing for loop candidates.
bool sequentialOnly(const KESTORFrameInfo*, const KESTORFrameInfo*, double rt[3][4], int kind,
                    void*) {
    rt[0][0] = rt[1][1] = rt[2][2] = 1;
    return kind == KESTOR_MATCH_SEQUENTIAL;
}

}  // namespace

TEST(EngineSoak, TenThousandFramesKeepMemoryFlatAndEveryFrameOnce) {
#if KESTOR_SANITIZED || KESTOR_THREAD_SANITIZED
    GTEST_SKIP() << "ten thousand frames are not run under sanitizers";
#endif
    FrameSource source;
    renderPath(source, 60, 64, 48);
    source.refuse.assign(size_t(kFrames), false);
    const std::string cache = ::testing::TempDir() + "kestor_soak_cache.bin";
    SoakTrace soak;
    void* instance = createFor(source, kGroupSize, KESTOR_FLAG_NO_MASK | KESTOR_FLAG_GRAY);
    const auto& impl = *static_cast<const kestor::RGBDFusionImpl*>(instance);
    soak.instance = instance;
    const size_t pyramidBytes = impl.pyramidBytes, frameBytes = impl.frameBytes,
                 groupBytes = impl.groupBytes;
    ASSERT_EQ(KESTORSetCachePath(instance, cache.c_str()), KESTOR_STATUS_OK);
    // No joint alignment inside groups: this run is about memory, order and the spill file over
    // many frames, not about whether the group stage keeps pace (the engine benchmark is).
    setModes(instance, 0);
    KESTORSetTraceCallback(instance, onTrace, &soak);
    KESTORSetPairMatchFunc(instance, sequentialOnly, nullptr);

    KESTORStart(instance, 4);
    for (int k = 0; k < kFrames; ++k) {
        // A camera's pace: never more than a few frames ahead of the trace.
        while (k - soak.traced.load() > 8) std::this_thread::sleep_for(std::chrono::microseconds(200));
        KESTORAddFrame(instance, fillFromSource, &source);
    }
    KESTORStop(instance);
    int accepted = 0;
    KESTORGetFrameNum(instance, &accepted);
    KESTORDestroyInstance(instance);

    // Every frame traced once, in the order of addition.
    ASSERT_EQ(soak.records.calls.size(), size_t(kFrames));
    for (int k = 0; k < kFrames; ++k) ASSERT_EQ(soak.records.calls[size_t(k)].id, k);
    EXPECT_EQ(soak.records.overlapping.load(), 0);
    EXPECT_GT(accepted, kFrames * 99 / 100);

    // What the engine keeps on purpose after warm-up, plus 16 MB for allocator slack and buffers
    // that threads make on first use. A frame's pyramid or images kept by mistake would add 145
    // or 21 kB a frame, over a gigabyte or 168 MB in all; anything above 2 kB a frame shows.
    const int newGroups = soak.finishedAtEnd - soak.finishedAtWarmUp + 2;
    // Per group also its member poses and frame list and the chain edge of each member; per
    // frame this test's own trace record, in a vector that may have doubled.
    const double perGroup = double(groupBytes + pyramidBytes) +
                            kGroupSize * double(sizeof(kestor::GroupEdge) +
                                                sizeof(kestor::RT_<double>) + sizeof(void*));
    const double perFrame = double(frameBytes) + 2.0 * sizeof(TraceRecord);
    const double kept = double(kFrames - kWarmUp) * perFrame + double(newGroups) * perGroup;
    const double growth = double(soak.residentAtEnd - soak.residentAtWarmUp);
    EXPECT_LT(growth, kept + 16e6) << "resident " << soak.residentAtWarmUp << " B after warm-up, "
                                   << soak.residentAtEnd << " B at the end";

    // The header counts the records, which alternate depth and colour planes of whole frames.
    std::FILE* file = std::fopen(cache.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    uint64_t header = 0, size = 0, records = 0;
    ASSERT_EQ(std::fread(&header, 8, 1, file), 1u);
    const uint64_t pixels = 64 * 48;
    while (std::fread(&size, 8, 1, file) == 1) {
        EXPECT_EQ(size, records % 2 == 0 ? pixels * 4 : pixels * 3) << "record " << records;
        if (std::fseek(file, long(size), SEEK_CUR) != 0) break;
        ++records;
    }
    std::fclose(file);
    std::remove(cache.c_str());
    EXPECT_EQ(header, records);
    // Every accepted frame is spilled, but the members of the group still open at the stop.
    EXPECT_GE(records / 2, uint64_t(accepted - kGroupSize - 1));
}
