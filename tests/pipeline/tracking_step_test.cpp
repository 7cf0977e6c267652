// The tracking step called directly, without threads, on frames made and filled by hand.
#include <gtest/gtest.h>

#include <cstring>

#include "core/fusion_instance.h"
#include "pipeline/frame_intake.h"
#include "pipeline/frame_tracking.h"
#include "support/synthetic_scene.h"

using namespace kestor;
using kestor_test::Camera;
using kestor_test::Scene;

namespace {

// One rendered view, the same for every frame, and a built-in match that runs no iteration:
// its result is its start, so the start that tracking chose can be read off the poses.
struct Fixture {
    Camera camera = Camera().scaled(80, 60);
    kestor_test::Frame view = Scene::texturedRoom().render(camera, kestor_test::Pose());
    RGBDFusionImpl* f = nullptr;
    explicit Fixture(int groupSize) {
        const std::vector<double> K = camera.matrix();
        const double distances[2] = {0.2, 0.4};
        const int iterations[2] = {0, 0};
        void* handle = nullptr;
        KESTORCreateInstance(&handle, K.data(), 80, 60, distances, iterations, 2, groupSize,
                             KESTOR_FLAG_NO_MASK | KESTOR_FLAG_NO_COLOR);
        f = static_cast<RGBDFusionImpl*>(handle);
        KESTORPara para;
        KESTORGetPara(handle, &para);
        para.groupMode = 0;
        para.globalMode = 0;
        KESTORSetPara(handle, &para);
    }
    ~Fixture() { KESTORDestroyInstance(f); }
    _Frame* track(int id) {
        _Frame* frame = newFrame(*f, id);
        std::memcpy(frame->info.depth, view.depth.data(), view.depth.size() * sizeof(float));
        buildFramePyramid(*f, frame);
        trackFrame(*f, frame);
        return frame;
    }
};

}  // namespace

// A step of 1 cm along x, given once by the application: the next frame starts from the last
// chain edge, and the first frame of a new group from the identity, as that group has no edge.
TEST(TrackingStep, StartsFromTheLastChainEdgeOfTheLastGroupOnly) {
    Fixture fx(2);
    fx.track(0);
    fx.f->pairMatchFunc = [](const _Frame*, const _Frame*, RT_<double>& rt, _MatchFlag) {
        rt = RT_<double>::identity();
        rt.translation[0] = 0.01;
        return true;
    };
    _Frame* f1 = fx.track(1);
    fx.f->pairMatchFunc = nullptr;
    _Frame* f2 = fx.track(2);  // closes group 0: also member 0 of group 1
    _Frame* f3 = fx.track(3);
    EXPECT_NEAR(f1->pose.translation[0], 0.01, 1e-7);
    EXPECT_NEAR(f2->pose.translation[0], 0.02, 1e-7);
    EXPECT_NEAR(f3->pose.translation[0], 0.02, 1e-7);
    ASSERT_EQ(fx.f->groups.size(), 2u);
    const _Group& g0 = *fx.f->groups[0];
    const _Group& g1 = *fx.f->groups[1];
    EXPECT_EQ(g0.frameCount, 3);
    EXPECT_EQ(g1.frameCount, 2);
    EXPECT_EQ(g1.frames[0], f2);
    ASSERT_EQ(g0.chainEdges.size(), 2u);
    EXPECT_EQ(g0.chainEdges[1].from, 2);
    EXPECT_EQ(g0.chainEdges[1].to, 1);
    EXPECT_EQ(g0.chainEdges[1].weight, 255);
    ASSERT_EQ(g1.chainEdges.size(), 1u);
    EXPECT_EQ(g1.chainEdges[0].from, 1);
    EXPECT_EQ(f2->info.groupId, 1);  // the newer of its two groups
    EXPECT_EQ(f3->info.index, 3);
    EXPECT_EQ(f3->track.pose[0][3], f3->pose.translation[0]);
    EXPECT_EQ(f3->track.vmap, f3->levels[0].vmap);
    EXPECT_EQ(fx.f->traceTasks.size(), 4u);
}
