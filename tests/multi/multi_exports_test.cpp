// Argument checks of the joint-alignment exports: each failing argument returns 4 with the poses
// untouched, sizes whose products overflow an int included (the buffers are far smaller than those
// sizes claim, so nothing may be read first); past the checks a frame without its data runs
// nothing and the status is 0.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "multi/rendered_frames.h"

using namespace kestor_test;

namespace {

// ints: the group ids, or the point counts of KESTORMatchMulti.
struct Args {
    const float* const* maps;
    const double* K;
    double* rts;
    const int* ints;
    int width, height, count;
};

struct Export {
    const char* name;
    // m maps, K camera, r poses, i ids or sizes, w width, h height, n count; overflowing: A 70000
    // x 70000, B pixels times three, C one long row, F frames times twelve, c a point count, d a
    // negative point count
    std::string checked;
    std::vector<const float*> maps;
    std::function<int(const Args&)> call;
    std::string missingLog;  // what the run logs for a frame without its data
};

}  // namespace

TEST(MultiExports, BadArgumentsWriteNothingAndAPassedCheckReturnsZero) {
    const RenderedSequence& s = rendered(3);
    const std::vector<double> K = s.camera.matrix();
    std::vector<const unsigned char*> colors = s.colors();
    colors[2] = nullptr;
    const std::vector<Export> exports = {
        {"MatchMulti", "mirncd", pointers(s.vmaps), [](const Args& a) {
             return KESTORMatchMulti(a.maps, nullptr, nullptr, a.ints, nullptr, a.rts, a.count, 5, 0.1, 0.5, 0.2,
                                     0.0, 0, true, false, nullptr, nullptr);
         }, ""},
        {"MatchMulti maps", "mrwhnABCF", pointers(s.vmaps), [](const Args& a) {
             const int sizes[2] = {a.width, a.height};
             return KESTORMatchMulti(a.maps, nullptr, nullptr, sizes, a.K, a.rts, a.count, 5, 0.1, 0.5, 0.2,
                                     0.0, 0, true, false, nullptr, nullptr);
         }, ""},
        {"MatchMultiVmapNmap", "mKrwhnABCF", pointers(s.vmaps), [](const Args& a) {
             return KESTORMatchMultiVmapNmap(a.maps, nullptr, nullptr, nullptr, nullptr, a.width, a.height, a.K,
                                             a.rts, a.count, 5, 0.1, 0.5, 0.2, 0.0, 0, true, false, nullptr, nullptr);
         }, ""},
        {"MatchMultiDepth", "mKrwhnABCF", s.depths(), [](const Args& a) {
             return KESTORMatchMultiDepth(a.maps, nullptr, nullptr, a.width, a.height, a.K, a.rts, a.count, 5, 0.1,
                                          0.5, 0.2, 0.0, 0, true, false, nullptr, nullptr);
         }, "[KESTOR INFO] matchMultiDepth - Input Depth Image Should With Same Size.\n"},
        // With colour (here one image short) the log names the images in general.
        {"MatchMultiDepth colored", "mKrwhnABCF", s.depths(), [&colors](const Args& a) {
             return KESTORMatchMultiDepth(a.maps, colors.data(), nullptr, a.width, a.height, a.K, a.rts, a.count, 5,
                                          0.1, 0.5, 0.2, 0.3, 0, true, false, nullptr, nullptr);
         }, "[KESTOR INFO] matchMultiDepth - Input Image Should With Same Size.\n"},
        // The in-group forms read K without a test.
        {"MatchMultiDepthInGroup", "mriwhnABCF", s.depths(), [](const Args& a) {
             return KESTORMatchMultiDepthInGroup(a.maps, nullptr, nullptr, a.width, a.height, a.K, a.rts, a.ints,
                                                 a.count, 5, 0.1, 0.5, 0.2, 0.0, true, false, nullptr, nullptr);
         }, ""},
        {"MatchMultiVmapNmapInGroup", "mriwhnABCF", pointers(s.vmaps), [](const Args& a) {
             return KESTORMatchMultiVmapNmapInGroup(a.maps, nullptr, nullptr, nullptr, nullptr, a.width, a.height,
                                                    a.K, a.rts, a.ints, a.count, 5, 0.1, 0.5, 0.2, 0.0, true,
                                                    false, nullptr, nullptr);
         }, ""},
    };
    const std::vector<double> sentinel(36, -3.25), start = s.perturbedRts();
    for (const Export& e : exports) {
        for (char broken : e.checked) {
            SCOPED_TRACE(std::string(e.name) + " without " + broken);
            std::vector<double> rts = sentinel;
            std::vector<int> ints = {4800, broken == 'c' ? 1 << 30 : broken == 'd' ? -1 : 4800, 4800};
            Args a{e.maps.data(), K.data(), rts.data(), ints.data(), 80, 60, 3};
            if (broken == 'm') a.maps = nullptr;
            if (broken == 'K') a.K = nullptr;
            if (broken == 'r') a.rts = nullptr;
            if (broken == 'i') a.ints = nullptr;
            if (broken == 'w') a.width = 0;
            if (broken == 'h') a.height = -1;
            if (broken == 'n') a.count = 1;
            if (broken == 'A') a.width = a.height = 70000;
            if (broken == 'B') a.width = a.height = 30000;
            if (broken == 'C') a.width = 1 << 28, a.height = 1;
            if (broken == 'F') a.count = 1 << 28;
            EXPECT_EQ(e.call(a), KESTOR_STATUS_BAD_ARGUMENT);
            EXPECT_EQ(rts, sentinel);
        }
        SCOPED_TRACE(e.name);
        std::vector<const float*> holed = e.maps;
        holed[1] = nullptr;
        std::vector<double> rts = start;
        const std::vector<int> ints = {4800, 4800, 4800};  // one group, or every pixel a point
        testing::internal::CaptureStdout();
        EXPECT_EQ(e.call({holed.data(), K.data(), rts.data(), ints.data(), 80, 60, 3}),
                  KESTOR_STATUS_OK);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), e.missingLog);
        EXPECT_EQ(rts, start);
    }
}
