#pragma once
// The records of the online engine: frames, groups, the edges between them and the clouds they
// hand out. Frames and groups live in pool blocks whose size depends on the pyramid depth, so
// each ends in a run of one FrameLevel per level.
#include <cstdint>
#include <vector>

#include "core/rigid_transform.h"
#include "kestor.h"

namespace kestor {

// Record number of a plane that has no record in the spill cache.
constexpr uint64_t kNoRecord = ~uint64_t(0);

// Steps of a frame's reduction: one of the two finishers is done (1), pyramid dropped (bit 2),
// images written to the spill cache (bit 4).
enum CacheState : uint32_t {
    kCacheUntouched = 0,
    kCacheHalfDone = 1,
    kCacheReduced = 2,
    kCacheSpilled = 4,
};

// One pyramid level of a frame or group: five views into one pyramid block. gray and the
// gradients are set only when the instance keeps gray maps.
struct FrameLevel {
    float* gray;
    float* gradX;
    float* gradY;
    float* vmap;
    float* nmap;
};

// What two frames handed to the application's pair match are.
enum _MatchFlag : int32_t {
    MATCH_SEQUENTIAL = KESTOR_MATCH_SEQUENTIAL,  // last accepted frame and the new one
    MATCH_RELOCALIZE = KESTOR_MATCH_RELOCALIZE,  // a finished group's key frame and the new one
    MATCH_GROUP = KESTOR_MATCH_GROUP,            // the key frames of two groups
    MATCH_INNER = KESTOR_MATCH_INNER,            // two members of one group
};

// One frame. The block is cleared when taken, then filled by intake; `levels` has one entry per
// pyramid level (frameBytes of the instance covers them).
struct _Frame {
    RT_<double> pose;  // frame to world (the first frame's coordinates)
    uint32_t cacheState;
    uint64_t timeStamp;  // ms from the instance's start to the end of the fill
    uint64_t depthRecord, colorRecord, maskRecord;
    KESTORFrameInfo info;
    KESTORTrackInfo track;
    FrameLevel levels[];
};

// One measured relative pose: `from` in the coordinates of `to`.
struct GroupEdge {
    RT_<double> rt;
    double info[6][6];
    uint8_t weight;  // 255 tracked or relocalised, 127 found by search, 0 dropped
    int32_t from;    // member index in this group
    int32_t to;      // member index in this group, or another group's id for a loop edge
};

// Edge weights as the tracking, search and pruning steps set them.
constexpr uint8_t kTrackedWeight = 255;
constexpr uint8_t kSearchedWeight = 127;

// The points of one frame or group: gray values (only the point-map refinement fills them),
// colours, points and normals.
struct _PointCloud {
    std::vector<float> grays;
    std::vector<uint8_t> colors;  // 3 a point
    std::vector<float> points;    // 3 a point
    std::vector<float> normals;   // 3 a point
};

// A run of consecutive frames handled as one rigid unit once finished. The block is cleared and
// the record constructed in it; `levels` holds the key frame's pyramid once the group is finished.
struct _Group {
    int32_t keyIndex = 0;
    int32_t frameCount = 0;
    int32_t id = 0;
    double linkInfo[6][6] = {};
    std::vector<RT_<double>> frameRTs;  // member pose relative to the key frame
    KESTORFrameInfo image = {};         // never filled by the pipeline
    _PointCloud cloud;                  // never filled by the pipeline
    std::vector<_Frame*> frames;
    std::vector<GroupEdge> innerEdges;
    std::vector<GroupEdge> chainEdges;
    std::vector<GroupEdge> loopEdges;
    FrameLevel levels[];
};

}  // namespace kestor
