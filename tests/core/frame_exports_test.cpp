#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <string>
#include <thread>

#include "core/log.h"
#include "kestor.h"

TEST(FrameExports, Version) { EXPECT_STREQ(KESTORVersion(), "1.1.3"); }

TEST(FrameExports, ThreadCount) {
    const int saved = KESTORGetThreadNum();
    KESTORSetThreadNum(3);
    EXPECT_EQ(KESTORGetThreadNum(), 3);
    EXPECT_EQ(omp_get_max_threads(), 3);
    KESTORSetThreadNum(-1);
    EXPECT_EQ(KESTORGetThreadNum(), int(std::thread::hardware_concurrency()));
    // Other values reach the runtime unchanged: the library answers as the runtime does.
    omp_set_num_threads(-2);
    const int runtimeAnswer = omp_get_max_threads();
    KESTORSetThreadNum(5);
    KESTORSetThreadNum(-2);
    EXPECT_EQ(KESTORGetThreadNum(), runtimeAnswer);
    KESTORSetThreadNum(saved);
}

TEST(DeviceStubs, StatusStubsSayNotAvailableEvenWithNullArguments) {
    EXPECT_EQ(cuKESTORDepthToVmapNmap(nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0), 7);
    EXPECT_EQ(cuKESTORCalcPyramidVmapNmap(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                          nullptr, nullptr, nullptr, 0, 0, 0, false),
              7);
    EXPECT_EQ(cuKESTORCalcGrayAndGradient(nullptr, nullptr, nullptr, nullptr, 0, 0, 0, false, false),
              7);
    EXPECT_EQ(cuKESTORCalcVmapMatchInfo(nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr,
                                        nullptr, 0, 0, 0),
              7);
    EXPECT_EQ(cuKESTORCalcVmapSelfMatchInfo(nullptr, 0, 0, nullptr, nullptr), 7);
    EXPECT_EQ(cuKESTORMatchPairVmapNmapPyramid(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                               nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr,
                                               nullptr, nullptr, 0, 0, 0, 0, false, false, nullptr,
                                               nullptr),
              7);
    EXPECT_EQ(cuKESTORMatchMultiVmapNmap(nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr,
                                         nullptr, 0, 0, 0, 0, 0, 0, 0, false, false, nullptr,
                                         nullptr),
              7);
}

TEST(DeviceStubs, AllocatorGivesNothingAndCopiesTouchNothing) {
    EXPECT_EQ(cuKESTORMalloc(1024), nullptr);
    char a[8] = "abcdefg", b[8] = "0123456";
    cuKESTORMemcpy(a, b, 8);
    cuKESTORUpload(a, b, 8);
    cuKESTORDownload(a, b, 8);
    cuKESTORFree(a);
    cuKESTORFree(nullptr);
    EXPECT_STREQ(a, "abcdefg");
}

TEST(Log, EveryMessageCarriesThePrefixAndNothingElseIsAdded) {
    testing::internal::CaptureStdout();
    KESTOR_LOG("frame %d of %s\n", 7, "nine");
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[KESTOR INFO] frame 7 of nine\n");
}
