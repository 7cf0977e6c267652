// Key points on real frames: the pair estimate against motion-capture ground truth, and what the
// engine callbacks answer for frames with and without texture.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "io/png_image.h"
#include "io/rgbd_sequence.h"
#include "match/keypoint_match.h"

namespace {

using kestor_match::KeyPointSet;

const std::string kTum = std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz";

struct LoadedFrame {
    std::vector<float> depth;
    std::vector<uint8_t> color;
    int width = 0, height = 0;
};

LoadedFrame load(const kestor_io::RgbdSequence& seq, int i) {
    LoadedFrame f;
    f.depth = kestor_io::readDepthPng(seq.frames[i].depthPath, seq.depthUnitsPerMetre, f.width,
                                      f.height);
    f.color = kestor_io::readColorPng(seq.frames[i].colorPath, f.width, f.height);
    return f;
}

KeyPointSet keyPoints(const kestor_io::RgbdSequence& seq, const LoadedFrame& f) {
    KeyPointSet set;
    kestor_match::extractKeyPoints(f.color.data(), f.depth.data(), f.width, f.height,
                                   seq.cameraMatrix().data(), {}, set);
    return set;
}

class TumKeyPoints : public ::testing::Test {
protected:
    static void SetUpTestSuite() { seq = new kestor_io::RgbdSequence(kestor_io::readTumSequence(kTum)); }
    static void TearDownTestSuite() { delete seq; }
    static kestor_io::RgbdSequence* seq;
};
kestor_io::RgbdSequence* TumKeyPoints::seq = nullptr;

TEST_F(TumKeyPoints, KeptPointsHaveDepthAndOneDescriptorEach) {
    const LoadedFrame f = load(*seq, 0);
    const KeyPointSet set = keyPoints(*seq, f);
    ASSERT_GT(set.count(), 200);
    EXPECT_EQ(set.normals.size(), set.points.size());
    EXPECT_EQ(set.descriptors.size(), size_t(set.count()) * kestor_match::kDescriptorDimension);
    for (int i = 0; i < set.count(); ++i) {
        EXPECT_GT(set.points[3 * i + 2], 0.3f);  // the desk is 0.5 to 3 m away
        EXPECT_LT(set.points[3 * i + 2], 4.0f);
    }
}

// The estimate carries the second frame into the first: it must equal T_first^-1 T_second of the
// ground truth, not its inverse (the pairs move the camera 12 to 25 cm, so the inverse would be
// off by twice that). Key points at depth edges, and colour taken 15 ms after depth, limit the
// estimate to a couple of centimetres: the dense match refines it.
TEST_F(TumKeyPoints, PairEstimateIsTheSecondFrameInTheFirstsCoordinates) {
    const struct { int first, second; } pairs[] = {{0, 10}, {10, 30}, {25, 5}};
    for (const auto& p : pairs) {
        SCOPED_TRACE(std::to_string(p.first) + "-" + std::to_string(p.second));
        const KeyPointSet a = keyPoints(*seq, load(*seq, p.first));
        const KeyPointSet b = keyPoints(*seq, load(*seq, p.second));
        const kestor_match::PairEstimate e = kestor_match::estimatePair(a, b, {});
        ASSERT_TRUE(e.found);
        double truth[12], degrees, metres, motionDegrees, motionMetres;
        kestor_io::relativePose(seq->frames[p.first].cameraToWorld,
                                seq->frames[p.second].cameraToWorld, truth);
        const double identity[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
        kestor_io::poseDifference(identity, truth, motionDegrees, motionMetres);
        ASSERT_GT(motionMetres, 0.12);
        kestor_io::poseDifference(e.rt, truth, degrees, metres);
        EXPECT_LT(metres, 0.04);
        EXPECT_LT(degrees, 2.5);
    }
}

TEST_F(TumKeyPoints, NearFramesScoreBetterThanAFlatFrame) {
    const KeyPointSet a = keyPoints(*seq, load(*seq, 0));
    const KeyPointSet b = keyPoints(*seq, load(*seq, 5));
    const KeyPointSet far = keyPoints(*seq, load(*seq, 36));
    const KeyPointSet none;
    const float near = kestor_match::dissimilarity(a, b, {});
    EXPECT_LT(near, -50.0f);
    EXPECT_LT(near, kestor_match::dissimilarity(a, far, {}));
    EXPECT_EQ(kestor_match::dissimilarity(a, none, {}), 0.0f);
}

// A frame with no texture gives no key points: the sequential match still gets a start (the
// identity) with the Identity fallback, and every other kind of match is refused.
TEST_F(TumKeyPoints, CallbacksWithoutKeyPoints) {
    LoadedFrame textured = load(*seq, 0);
    LoadedFrame flat = textured;
    std::fill(flat.color.begin(), flat.color.end(), uint8_t(128));
    KeyPointSet a = keyPoints(*seq, textured), b = keyPoints(*seq, flat);
    ASSERT_EQ(b.count(), 0);
    KESTORFrameInfo first{}, second{};
    first.attach = &a;
    second.attach = &b;
    const struct {
        int flag;
        kestor_match::SequentialFallback fallback;
        bool accepted;
    } cases[] = {
        {KESTOR_MATCH_SEQUENTIAL, kestor_match::SequentialFallback::Identity, true},
        {KESTOR_MATCH_SEQUENTIAL, kestor_match::SequentialFallback::Refuse, false},
        {KESTOR_MATCH_RELOCALIZE, kestor_match::SequentialFallback::Identity, false},
        {KESTOR_MATCH_GROUP, kestor_match::SequentialFallback::Identity, false},
        {KESTOR_MATCH_INNER, kestor_match::SequentialFallback::Identity, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flag);
        kestor_match::EngineMatcher matcher;
        matcher.fallback = c.fallback;
        double rt[3][4];
        std::fill(&rt[0][0], &rt[0][0] + 12, 7.0);
        EXPECT_EQ(kestor_match::pairMatchCallback(&first, &second, rt, c.flag, &matcher), c.accepted);
        if (c.accepted) {
            const double identity[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
            for (int k = 0; k < 12; ++k) EXPECT_EQ(rt[k / 4][k % 4], identity[k]);
        }
        EXPECT_EQ(matcher.fallbacks + matcher.refusals, 1);
    }
}

TEST_F(TumKeyPoints, AttachAllocatorPairAndFillHelper) {
    LoadedFrame f = load(*seq, 3);
    KESTORFrameInfo frame{};
    frame.attach = kestor_match::allocKeyPointSet();
    frame.depth = f.depth.data();
    frame.color = f.color.data();
    kestor_match::fillFrameKeyPoints(frame, f.width, f.height, seq->cameraMatrix().data(), {});
    EXPECT_GT(static_cast<KeyPointSet*>(frame.attach)->count(), 200);
    kestor_match::freeKeyPointSet(frame.attach);
}

}  // namespace
