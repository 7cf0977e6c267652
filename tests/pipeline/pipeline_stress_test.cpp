// Many small frames through four workers whose fills finish in random order: tracking and the
// trace callback must still see every frame once, in the order of addition, one call at a time.
#include <gtest/gtest.h>

#include <set>

#include "support/engine_harness.h"

using namespace kestor_test;

namespace {

bool identityEstimate(const KESTORFrameInfo*, const KESTORFrameInfo*, double rt[3][4], int,
                      void*) {
    rt[0][0] = rt[1][1] = rt[2][2] = 1;
    return true;
}

}  // namespace

TEST(PipelineStress, EveryFrameOnceInOrderOfAdditionWithTheWholeEngineRunning) {
    constexpr int kFrames = 520;
    FrameSource source;
    renderPath(source, 40, 64, 48);
    source.refuse.assign(kFrames, false);
    source.maxSleepUs = 2000;
    TraceRecorder trace;
    // Joint alignment of each group (point to plane, few iterations to keep the run short) and
    // the group graph, as by default.
    void* instance = createFor(source, 10, KESTOR_FLAG_NO_MASK);
    KESTORPara para;
    KESTORGetPara(instance, &para);
    para.verbose = 0;
    para.groupIterations = 3;
    KESTORSetPara(instance, &para);
    KESTORSetTraceCallback(instance, recordTrace, &trace);
    KESTORSetPairMatchFunc(instance, identityEstimate, nullptr);
    runAll(instance, source, 4);  // adds kFrames: the refuse table sets the count
    int accepted = 0;
    KESTORGetFrameNum(instance, &accepted);
    KESTORDestroyInstance(instance);

    EXPECT_EQ(source.fills.load(), kFrames);
    ASSERT_EQ(trace.calls.size(), size_t(kFrames));
    EXPECT_EQ(trace.overlapping.load(), 0);
    int nextIndex = 0;
    for (int k = 0; k < kFrames; ++k) {
        const TraceRecord& r = trace.calls[size_t(k)];
        ASSERT_EQ(r.id, k);  // tracking order is the order of addition
        EXPECT_EQ(r.thread, trace.calls[0].thread);
        if (r.matchResult == 0) {
            EXPECT_EQ(r.index, nextIndex++);
        }
    }
    EXPECT_EQ(accepted, nextIndex);
    EXPECT_GT(accepted, kFrames * 9 / 10);
}
