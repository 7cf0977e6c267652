#include "pointmap/point_map_refinement.h"

#include <algorithm>
#include <vector>

#include "core/intrinsics.h"
#include "core/log.h"
#include "multi/match_multi.h"
#include "pipeline/pipeline_threads.h"
#include "pointmap/group_cloud.h"
#include "pointmap/member_slots.h"

namespace kestor {

namespace {

// Members of a group that are its own: a full group's shared last frame is member 0 of the next.
int ownMembers(const RGBDFusionImpl& instance, const _Group& group) {
    return std::max(0, std::min(group.frameCount, instance.groupSize));
}

// The camera of a pyramid level, scaled by the true ratio of the image sizes.
Intrinsics levelCamera(const RGBDFusionImpl& instance, int levelWidth, int levelHeight) {
    const double sx = double(instance.width) / levelWidth;
    const double sy = double(instance.height) / levelHeight;
    const double K[9] = {instance.fx / sx, 0, instance.cx / sx, 0, instance.fy / sy,
                         instance.cy / sy, 0, 0, 1};
    return intrinsicsFromMatrix(K);
}

// Joint alignment of a group's members at one level, starting from the group's own relative
// poses. The key frame keeps its pose and the others follow it, also when no alignment ran.
void refineGroup(RGBDFusionImpl& instance, _Group& group, const MemberSlots& slots, int members,
                 int level, int iterations, const bool& cancel) {
    // An unfinished group has no relative poses to start from.
    if (members < 1 || int(group.frameRTs.size()) < members) return;
    const KESTORPara& para = instance.para;
    std::vector<RT_<double>> rts(static_cast<size_t>(members));
    const RT_<double> firstInverse = inverseOf(group.frameRTs[0]);
    for (int k = 0; k < members; ++k) rts[size_t(k)] = compose(firstInverse, group.frameRTs[size_t(k)]);
    rts[0] = RT_<double>::identity();

    const int levelWidth = levelExtent(instance.width, level);
    const int levelHeight = levelExtent(instance.height, level);
    if (!instance.deviceMemory && members >= 2 && levelWidth >= 1 && levelHeight >= 1) {
        std::vector<const float*> vmaps, nmaps, grays, gradXs, gradYs;
        for (int k = 0; k < members; ++k) {
            const FrameLevel& maps = slots.slot(k).levels[level];
            vmaps.push_back(maps.vmap);
            nmaps.push_back(maps.nmap);
            grays.push_back(maps.gray);
            gradXs.push_back(maps.gradX);
            gradYs.push_back(maps.gradY);
        }
        const bool photometric = instance.hasGray && instance.hasColor;
        // Two fewer iterations exactly when the engine's own group setting is 2.
        const int limit = para.groupIterations == 2 ? iterations - 2 : iterations;
        const MultiOptions options =
            multiOptions(limit, instance.levelDistances[size_t(level)], para.angleThreshold, 0.01,
                         para.colorWeight, 1, true, para.verbose != 0);
        // The stage reports nothing; it only passes a cancel on.
        const ProgressFunc passCancel = [&cancel](int, bool& own) { own = cancel; };
        matchMultiVmap(vmaps.data(), nmaps.data(), photometric ? grays.data() : nullptr,
                       photometric ? gradXs.data() : nullptr, photometric ? gradYs.data() : nullptr,
                       levelWidth, levelHeight, levelCamera(instance, levelWidth, levelHeight), rts,
                       options, passCancel);
    }
    const int key = std::min(group.keyIndex, members - 1);
    const RT_<double> delta =
        compose(group.frames[size_t(key)]->pose, inverseOf(rts[size_t(key)]));
    for (int k = 0; k < members; ++k)
        group.frames[size_t(k)]->pose = compose(delta, rts[size_t(k)]);
}

// The groups' thinned clouds aligned as rigid point sets, each starting at the identity; the
// stage's progress is mapped onto 70..99.
std::vector<RT_<double>> alignGroupClouds(const RGBDFusionImpl& instance,
                                          const std::vector<_PointCloud>& clouds, double voxelSize,
                                          int iterations, const ProgressFunc& progress) {
    const KESTORPara& para = instance.para;
    std::vector<RT_<double>> poses(clouds.size(), RT_<double>::identity());
    std::vector<const float*> points, normals, grays;
    std::vector<int> sizes;
    for (const _PointCloud& c : clouds) {
        points.push_back(c.points.data());
        normals.push_back(c.normals.data());
        grays.push_back(c.grays.data());
        sizes.push_back(int(c.points.size() / 3));
    }
    const MultiOptions options = multiOptions(iterations, voxelSize + voxelSize,
                                              para.angleThreshold, 0.01, para.colorWeight, 1,
                                              true, para.verbose != 0);
    // 101 and not 100: the stage ends at 99, and only the closing call reports 100.
    const ProgressFunc stage = [&progress](int percent, bool& cancel) {
        if (progress) progress(70 + (percent * 30) / 101, cancel);
    };
    matchMultiPoints(points.data(), normals.data(), instance.hasGray ? grays.data() : nullptr,
                     sizes.data(), poses, options, stage);
    return poses;
}

}  // namespace

void optimizePointsMap(RGBDFusionImpl& instance, double voxelSize, int iterations, int level,
                       const GroupCloudFunc& cloud, const ProgressFunc& progress) {
    stopPipeline(instance);
    bool cancel = false;
    if (progress) progress(0, cancel);
    if (cancel || instance.groups.empty()) return;

    const bool verbose = instance.para.verbose != 0;
    const int groupCount = int(instance.groups.size());
    const bool alignWithinGroups = level >= 0 && level < instance.levels;
    MemberSlots slots(instance);
    std::vector<_PointCloud> clouds(static_cast<size_t>(groupCount));
    RT_<double> firstInverse = RT_<double>::identity();

    for (int g = 0; g < groupCount; ++g) {
        if (progress) progress(g * 70 / groupCount + 1, cancel);
        if (cancel) break;
        _Group& group = *instance.groups[size_t(g)];
        if (verbose) KESTOR_LOG("Group ID: %d, Num: %d\n", group.id, group.frameCount);
        const int members = ownMembers(instance, group);
        for (int k = 0; k < members; ++k) slots.load(k, *group.frames[size_t(k)]);
        if (alignWithinGroups) refineGroup(instance, group, slots, members, level, iterations, cancel);
        if (g == 0 && group.frameCount > 0) firstInverse = inverseOf(group.frames[0]->pose);

        _PointCloud& groupCloud = clouds[size_t(g)];
        // Device planes cannot be read here: every pixel counts as empty.
        if (!instance.deviceMemory && instance.levels >= 1) {
            for (int k = 0; k < members; ++k) {
                const RT_<float> pose =
                    castRT<float>(compose(firstInverse, group.frames[size_t(k)]->pose));
                appendMemberPoints(instance, slots.slot(k).levels[0], slots.slot(k).info.color,
                                   pose, groupCloud);
            }
        }
        if (cloud) cloud(g, group, groupCloud);
        thinCloud(groupCloud, voxelSize);
    }

    if (!cancel && progress) progress(70, cancel);
    if (!cancel) {
        if (verbose) KESTOR_LOG("optimize point cloud starting...\n");
        const std::vector<RT_<double>> groupPoses =
            alignGroupClouds(instance, clouds, voxelSize, iterations, progress);
        // Every frame rebased on the first group's first frame, then moved with its group.
        for (int g = 0; g < groupCount; ++g) {
            _Group& group = *instance.groups[size_t(g)];
            for (int k = 0; k < ownMembers(instance, group); ++k) {
                RT_<double>& pose = group.frames[size_t(k)]->pose;
                pose = compose(groupPoses[size_t(g)], compose(firstInverse, pose));
            }
        }
    }
    if (progress) progress(100, cancel);
    slots.release();
    if (verbose) KESTOR_LOG("Optimize point cloud finished.\n");
}

}  // namespace kestor
