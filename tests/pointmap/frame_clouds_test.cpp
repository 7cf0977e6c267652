// Per-frame clouds and the fused map of a finished run: the same points as the coloured-points
// export for the same planes and pose, whether the planes are in memory or in the spill cache;
// the fused map as their concatenation; the progress and cancel rules; the export statuses.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kestor.h"
#include "support/engine_harness.h"

using namespace kestor;
using namespace kestor_test;

namespace {

struct Cloud {
    int id = 0;
    std::vector<float> points, normals;
    std::vector<uint8_t> colors;
    bool colorsNull = false;
};

struct Received {
    std::vector<Cloud> clouds;
    std::vector<int> percents;
    int cancelAt = -1;  // percent at which progress cancels
};

void takeCloud(const KESTORPointCloud* c, void* user) {
    Cloud out;
    out.id = c->id;
    out.points.assign(c->points, c->points + 3 * c->count);
    out.normals.assign(c->normals, c->normals + 3 * c->count);
    if (c->colors) out.colors.assign(c->colors, c->colors + 3 * c->count);
    out.colorsNull = c->colors == nullptr;
    static_cast<Received*>(user)->clouds.push_back(out);
}

void takePoints(const float* p, const float* n, const uint8_t* c, int count, void* user) {
    Cloud& out = *static_cast<Cloud*>(user);
    if (p) out.points.assign(p, p + 3 * count);
    if (n) out.normals.assign(n, n + 3 * count);
    if (c) out.colors.assign(c, c + 3 * count);
    out.colorsNull = c == nullptr;
}

void note(int percent, bool* cancel, void* user) {
    Received& r = *static_cast<Received*>(user);
    r.percents.push_back(percent);
    if (percent == r.cancelAt) *cancel = true;
}

void expectSame(const Cloud& a, const Cloud& b, const std::string& what) {
    EXPECT_EQ(a.points, b.points) << what;  // bit for bit: the same kernels in the same order
    EXPECT_EQ(a.normals, b.normals) << what;
    EXPECT_EQ(a.colors, b.colors) << what;
    EXPECT_EQ(a.colorsNull, b.colorsNull) << what;
}

// Four frames of the room at 40x30, frame 2 with a masked block.
struct Planes {
    RoomSequence seq{4, 40, 30};
    std::vector<std::vector<uint8_t>> masks;
    Planes() {
        for (size_t f = 0; f < seq.frames.size(); ++f) {
            masks.emplace_back(40 * 30, 255);
            if (f == 2)
                for (int y = 5; y < 20; ++y) std::memset(&masks.back()[size_t(y * 40 + 8)], 0, 12);
        }
    }
    void fill(EngineState& state) const {
        for (size_t f = 0; f < seq.frames.size(); ++f) state.addFrame(seq.frames[f], seq.truth[f], masks[f]);
    }
    // What the coloured-points export gives for frame f with the planes the instance keeps.
    Cloud expected(size_t f, bool color, bool mask) const {
        Cloud out;
        const std::vector<double> K = seq.camera.matrix(), rt = seq.truth[f].matrix();
        EXPECT_EQ(KESTORColorDepthToPoints(seq.frames[f].depth.data(), color ? seq.frames[f].color.data() : nullptr,
                                           mask ? masks[f].data() : nullptr, 40, 30, K.data(), rt.data(), takePoints, &out),
                  KESTOR_STATUS_OK);
        out.id = int(f);
        return out;
    }
};

const Planes& planes() {
    static const Planes p;
    return p;
}

std::string tempPath(const char* name) { return ::testing::TempDir() + "kestor_pointmap_" + name; }

}  // namespace

TEST(FrameClouds, EqualTheColoredPointsOfEachFrameAndFuseInFrameOrder) {
    const Planes& p = planes();
    struct Case { const char* name; unsigned flags; bool spill; bool color, mask; };
    const Case cases[] = {
        {"mask and colour", 0, false, true, true},   {"mask and colour, spilled", 0, true, true, true},
        {"colour only", 1, false, true, false},      {"colour only, spilled", 1, true, true, false},
        {"depth only", 3, false, false, false},      {"depth only, spilled", 3, true, false, false},
        {"gray maps", 8, true, true, true},
    };
    for (const Case& c : cases) {
        EngineState state(3, p.seq.camera, 2, c.flags, c.spill ? tempPath("clouds") : "");
        p.fill(state);
        state.reduceAll();
        // Spilled frames keep no planes in memory: the points must come from the file.
        EXPECT_EQ(state.engine().frames[1]->info.depth == nullptr, c.spill) << c.name;

        Received perFrame, fused;
        EXPECT_EQ(KESTORGetPointsPerFrame(state.handle(), takeCloud, nullptr, &perFrame), KESTOR_STATUS_OK);
        EXPECT_EQ(KESTORFusePointsMap(state.handle(), takeCloud, nullptr, &fused), KESTOR_STATUS_OK);
        ASSERT_EQ(perFrame.clouds.size(), p.seq.frames.size()) << c.name;
        Cloud concatenated;
        concatenated.id = -1;
        for (size_t f = 0; f < p.seq.frames.size(); ++f) {
            const Cloud& got = perFrame.clouds[f];
            EXPECT_EQ(got.id, int(f)) << c.name;
            EXPECT_GT(got.points.size(), 1000u) << c.name;
            expectSame(got, p.expected(f, c.color, c.mask), std::string(c.name) + ", frame " + std::to_string(f));
            concatenated.points.insert(concatenated.points.end(), got.points.begin(), got.points.end());
            concatenated.normals.insert(concatenated.normals.end(), got.normals.begin(), got.normals.end());
            concatenated.colors.insert(concatenated.colors.end(), got.colors.begin(), got.colors.end());
        }
        concatenated.colorsNull = !c.color;
        ASSERT_EQ(fused.clouds.size(), 1u) << c.name;
        EXPECT_EQ(fused.clouds[0].id, -1) << c.name;
        expectSame(fused.clouds[0], concatenated, std::string(c.name) + ", fused");
    }
    std::remove(tempPath("clouds").c_str());
}

TEST(FrameClouds, UnreadableSpillRecords) {
    // A frame whose depth record fails is left out; a failed colour or mask record drops that
    // plane only.
    const Planes& p = planes();
    struct Case { const char* name; uint64_t _Frame::*record; bool delivered, color, mask; };
    const Case cases[] = {
        {"depth", &_Frame::depthRecord, false, true, true},
        {"colour", &_Frame::colorRecord, true, false, true},
        {"mask", &_Frame::maskRecord, true, true, false},
    };
    for (const Case& c : cases) {
        EngineState state(3, p.seq.camera, 2, 0, tempPath("records"));
        p.fill(state);
        state.reduceAll();
        state.engine().frames[2]->*c.record = kNoRecord;
        Received got;
        EXPECT_EQ(KESTORGetPointsPerFrame(state.handle(), takeCloud, nullptr, &got), KESTOR_STATUS_OK);
        std::vector<int> ids;
        for (const Cloud& cloud : got.clouds) ids.push_back(cloud.id);
        EXPECT_EQ(ids, c.delivered ? std::vector<int>({0, 1, 2, 3}) : std::vector<int>({0, 1, 3})) << c.name;
        if (c.delivered) expectSame(got.clouds[2], p.expected(2, c.color, c.mask), c.name);
    }
    std::remove(tempPath("records").c_str());
}

TEST(FrameClouds, ProgressCallsAndCancel) {
    // Blank frames: each still gets its (empty) callback.
    const Camera camera = Camera().scaled(8, 6);
    const Frame blank{8, 6, std::vector<float>(48, 0.0f), std::vector<uint8_t>(144, 0)};
    struct Case { const char* name; int frames, cancelAt; std::vector<int> percents; size_t delivered; };
    auto steps = [](int frames, int step) {
        std::vector<int> out;
        for (int i = 0; i < frames; i += step) out.push_back(100 * i / frames);
        out.push_back(100);
        return out;
    };
    const Case cases[] = {
        {"no frames", 0, -1, {100}, 0},
        {"49 frames, every frame", 49, -1, steps(49, 1), 49},
        {"51 frames, every second", 51, -1, steps(51, 2), 51},
        // 20 frames: frame 10 reports 50 and cancels; nothing after it, no 100.
        {"cancel at frame 10", 20, 50, {0, 5, 10, 15, 20, 25, 30, 35, 40, 45, 50}, 10},
    };
    for (const Case& c : cases) {
        EngineState state(3, camera, 1, 0);
        for (int f = 0; f < c.frames; ++f) state.addFrame(blank, Pose());
        Received perFrame, fused;
        perFrame.cancelAt = fused.cancelAt = c.cancelAt;
        EXPECT_EQ(KESTORGetPointsPerFrame(state.handle(), takeCloud, note, &perFrame), KESTOR_STATUS_OK);
        EXPECT_EQ(KESTORFusePointsMap(state.handle(), takeCloud, note, &fused), KESTOR_STATUS_OK);
        EXPECT_EQ(perFrame.percents, c.percents) << c.name;
        EXPECT_EQ(fused.percents, c.percents) << c.name;
        ASSERT_EQ(perFrame.clouds.size(), c.delivered) << c.name;
        for (size_t f = 0; f < c.delivered; ++f) {
            EXPECT_EQ(perFrame.clouds[f].id, int(f)) << c.name;
            EXPECT_TRUE(perFrame.clouds[f].points.empty()) << c.name;
        }
        ASSERT_EQ(fused.clouds.size(), 1u) << c.name;
        EXPECT_EQ(fused.clouds[0].id, -1) << c.name;
        EXPECT_TRUE(fused.clouds[0].points.empty()) << c.name;
    }
}

TEST(FrameClouds, CancelledFusedMapHoldsTheFramesSoFar) {
    const Planes& p = planes();
    EngineState state(3, p.seq.camera, 2, 0);
    p.fill(state);
    Received perFrame, fused;
    perFrame.cancelAt = fused.cancelAt = 50;  // at frame 2 of 4
    EXPECT_EQ(KESTORGetPointsPerFrame(state.handle(), takeCloud, note, &perFrame), KESTOR_STATUS_OK);
    EXPECT_EQ(KESTORFusePointsMap(state.handle(), takeCloud, note, &fused), KESTOR_STATUS_OK);
    ASSERT_EQ(perFrame.clouds.size(), 2u);
    ASSERT_EQ(fused.clouds.size(), 1u);
    std::vector<float> points = perFrame.clouds[0].points;
    points.insert(points.end(), perFrame.clouds[1].points.begin(), perFrame.clouds[1].points.end());
    EXPECT_EQ(fused.clouds[0].points, points);
}

TEST(FrameClouds, DeviceMemoryFramesGiveNoPoints) {
    // Device planes cannot be read back in this build: frames come out empty, and nothing
    // dereferences the device blocks.
    const Camera camera = Camera().scaled(8, 6);
    EngineState state(3, camera, 1, 4);
    for (int f = 0; f < 3; ++f) state.addFrame(Frame{}, Pose());
    Received got;
    EXPECT_EQ(KESTORGetPointsPerFrame(state.handle(), takeCloud, nullptr, &got), KESTOR_STATUS_OK);
    EXPECT_GE(got.clouds.size(), 2u);
    for (const Cloud& c : got.clouds) EXPECT_TRUE(c.points.empty());
}

// Each row breaks one argument of a point-map export: its status, with no callback called.
TEST(PointMapExports, BadArgumentsAreRefusedWithNothingCalled) {
    EngineState state(3, Camera().scaled(8, 6), 1, 0);
    state.addFrame(Frame{8, 6, std::vector<float>(48, 1.0f), std::vector<uint8_t>(144, 9)}, Pose());
    void* h = state.handle();
    const float points[6] = {0, 0, 0, 5, 5, 5};
    Received r;
    std::vector<int> kept = {-1};
    auto keep = [](const int* k, int count, void* user) { static_cast<std::vector<int>*>(user)->assign(k, k + count); };
    const struct Row { const char* broken; std::function<int()> call; int status; } rows[] = {
        {"GetPointsPerFrame: handle", [&] { return KESTORGetPointsPerFrame(nullptr, takeCloud, note, &r); }, 9},
        {"GetPointsPerFrame: callback", [&] { return KESTORGetPointsPerFrame(h, nullptr, note, &r); }, 4},
        {"FusePointsMap: handle", [&] { return KESTORFusePointsMap(nullptr, takeCloud, note, &r); }, 9},
        {"FusePointsMap: callback", [&] { return KESTORFusePointsMap(h, nullptr, note, &r); }, 4},
        {"OptimizePointsMap: handle", [&] { return KESTOROptimizePointsMap(nullptr, 0.05, 5, 0, takeCloud, note, &r); }, 9},
        {"OptimizePointsMap: callback", [&] { return KESTOROptimizePointsMap(h, 0.05, 5, 0, nullptr, note, &r); }, 4},
        {"VoxelFilter: points", [&] { return KESTORVoxelFilter(nullptr, 2, 1.0, keep, &kept); }, 4},
        {"VoxelFilter: no points", [&] { return KESTORVoxelFilter(points, 0, 1.0, keep, &kept); }, 4},
        {"VoxelFilter: negative count", [&] { return KESTORVoxelFilter(points, -3, 1.0, keep, &kept); }, 4},
        {"VoxelFilter: 2^30 points, more floats than an int counts", [&] { return KESTORVoxelFilter(points, 1 << 30, 1.0, keep, &kept); }, 4},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.call(), row.status) << row.broken;
        EXPECT_TRUE(r.percents.empty()) << row.broken;
        EXPECT_TRUE(r.clouds.empty()) << row.broken;
        EXPECT_EQ(kept, std::vector<int>({-1})) << row.broken;
    }
    EXPECT_EQ(KESTORVoxelFilter(points, 2, 1.0, nullptr, nullptr), KESTOR_STATUS_OK);  // no callback wanted
}
