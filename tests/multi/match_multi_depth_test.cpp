// KESTORMatchMultiDepth: maps made from rendered depth (and colour), then the plane or the
// coloured mode; a missing image stops the call with the poses as given.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kestor.h"
#include "multi/rendered_frames.h"

using kestor_test::RenderedSequence;

namespace {

std::vector<double> runDepth(const RenderedSequence& s, bool withColor, std::vector<double> rts,
                             int nullFrame = -1) {
    std::vector<const float*> depths;
    std::vector<const unsigned char*> colors;
    for (const auto& f : s.frames) {
        depths.push_back(f.depth.data());
        colors.push_back(f.color.data());
    }
    // Without colour the depth goes missing, with colour the colour image.
    if (nullFrame >= 0 && withColor) colors[size_t(nullFrame)] = nullptr;
    if (nullFrame >= 0 && !withColor) depths[size_t(nullFrame)] = nullptr;
    const std::vector<double> K = s.camera.matrix();
    EXPECT_EQ(KESTORMatchMultiDepth(depths.data(), withColor ? colors.data() : nullptr, nullptr,
                                    s.camera.width, s.camera.height, K.data(), rts.data(),
                                    int(s.frames.size()), 30, 0.2, 0.5, 0.2, 0.3, 0, true, false,
                                    nullptr, nullptr),
              KESTOR_STATUS_OK);
    return rts;
}

}  // namespace

TEST(MatchMultiDepth, PlaneAndColoredFromDepthRecoverThePoses) {
    const RenderedSequence s(3, 160, 120);
    const std::vector<double> start = s.perturbedRts();
    for (bool withColor : {false, true}) {
        const std::vector<double> out = runDepth(s, withColor, start);
        EXPECT_EQ(std::memcmp(out.data(), start.data(), 12 * sizeof(double)), 0);
        double r, t;
        kestor_test::poseErrors(s, out, r, t);
        EXPECT_LT(r, 0.002);
        EXPECT_LT(t, 0.003);
    }
}

TEST(MatchMultiDepth, AMissingImageLeavesThePosesAndStillReturnsZero) {
    const RenderedSequence s(3, 160, 120);
    const std::vector<double> start = s.perturbedRts();
    testing::internal::CaptureStdout();
    EXPECT_EQ(runDepth(s, false, start, 1), start);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[KESTOR INFO] matchMultiDepth - Input Depth Image Should With Same Size.\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(runDepth(s, true, start, 2), start);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[KESTOR INFO] matchMultiDepth - Input Image Should With Same Size.\n");
}

TEST(MatchMultiDepth, BadArgumentsWriteNothing) {
    const RenderedSequence s(2, 32, 24);
    const float* depths[2] = {s.frames[0].depth.data(), s.frames[1].depth.data()};
    const std::vector<double> K = s.camera.matrix();
    const std::vector<double> sentinel(24, 7.5);
    std::vector<double> rts = sentinel;
    auto call = [&](const float* const* d, const double* k, double* r, int w, int h, int n) {
        return KESTORMatchMultiDepth(d, nullptr, nullptr, w, h, k, r, n, 5, 0.1, 0.5, 0.2, 0.0, 0,
                                     true, false, nullptr, nullptr);
    };
    EXPECT_EQ(call(nullptr, K.data(), rts.data(), 32, 24, 2), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(depths, nullptr, rts.data(), 32, 24, 2), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(depths, K.data(), nullptr, 32, 24, 2), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(depths, K.data(), rts.data(), -1, 24, 2), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(depths, K.data(), rts.data(), 32, 0, 2), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(depths, K.data(), rts.data(), 32, 24, 1), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(rts, sentinel);
}
