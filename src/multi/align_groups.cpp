// The in-group alignment: groups first by themselves on their image maps, then as clouds.
#include "multi/align_groups.h"

#include <map>

#include "core/image_view.h"
#include "core/log.h"
#include "image/color_points.h"
#include "image/gray_gradient.h"
#include "image/vertex_normal_maps.h"
#include "multi/match_multi.h"
#include "multi/pair_pose.h"
#include "pointmap/voxel_filter.h"

namespace kestor {

namespace {

// The maps of every frame, packed, width x height. Pointers a form does not have are null.
struct GroupInputs {
    std::vector<const float*> vmaps, nmaps, grays, gradXs, gradYs;
    std::vector<const unsigned char*> masks;
    int width = 0, height = 0;
    bool normals = false, colored = false;
};

struct AlignGroup {
    std::vector<int> members;  // frame positions in input order
    std::vector<float> intensities;
    std::vector<Float3> points, normals;
};

// Hands a run's percentages on as (int)(percent * scale + offset), with a cancel byte of its own
// that is copied back to the run, and remembers whether it was set.
struct MappedProgress {
    const ProgressFunc& outer;
    double scale, offset;
    bool cancelled = false;

    ProgressFunc func() {
        return [this](int percent, bool& cancel) {
            if (outer) outer(int(double(percent) * scale + offset), cancelled);
            cancel = cancelled;
        };
    }
};

// The valid elements of one frame in row order: vertex z above 0, normal not all zero where
// normals are given, mask byte not zero where a mask is given.
void collectFramePoints(const GroupInputs& in, int f, std::vector<Float3>& points,
                        std::vector<Float3>& normals, std::vector<float>& grays) {
    const size_t pixels = size_t(in.width) * size_t(in.height);
    const Float3* v = reinterpret_cast<const Float3*>(in.vmaps[size_t(f)]);
    const Float3* n = in.normals ? reinterpret_cast<const Float3*>(in.nmaps[size_t(f)]) : nullptr;
    const float* g = in.grays.empty() ? nullptr : in.grays[size_t(f)];
    const unsigned char* mask = in.masks.empty() ? nullptr : in.masks[size_t(f)];
    for (size_t e = 0; e < pixels; ++e) {
        if (!(v[e].z > 0.0f)) continue;
        if (n != nullptr && n[e].x == 0.0f && n[e].y == 0.0f && n[e].z == 0.0f) continue;
        if (mask != nullptr && mask[e] == 0) continue;
        points.push_back(v[e]);
        if (n != nullptr) normals.push_back(n[e]);
        if (g != nullptr) grays.push_back(g[e]);
    }
}

template <typename T>
std::vector<T> gather(const std::vector<T>& all, const std::vector<int>& members) {
    std::vector<T> out;
    if (all.empty()) return out;
    for (int f : members) out.push_back(all[size_t(f)]);
    return out;
}

// Stage 2 for one group: its joint run, its poses written back, then its cloud. False when the
// run was cancelled.
bool alignOneGroup(const GroupInputs& in, const Intrinsics& k, std::vector<RT_<double>>& poses,
                   AlignGroup& group, const MultiOptions& options, MappedProgress& progress) {
    std::vector<RT_<double>> memberPoses = gather(poses, group.members);
    const auto vmaps = gather(in.vmaps, group.members), nmaps = gather(in.nmaps, group.members),
               grays = gather(in.grays, group.members), gradXs = gather(in.gradXs, group.members),
               gradYs = gather(in.gradYs, group.members);
    if (memberPoses.size() >= 2)
        matchMultiVmap(vmaps.data(), in.normals ? nmaps.data() : nullptr,
                       in.colored ? grays.data() : nullptr, in.colored ? gradXs.data() : nullptr,
                       in.colored ? gradYs.data() : nullptr, in.width, in.height, k, memberPoses,
                       options, progress.func());
    if (progress.cancelled) return false;
    for (size_t m = 0; m < group.members.size(); ++m)
        poses[size_t(group.members[m])] = memberPoses[m];

    for (size_t m = 0; m < group.members.size(); ++m) {
        std::vector<Float3> points, normals;
        std::vector<float> grays;
        collectFramePoints(in, group.members[m], points, normals, grays);
        KESTOR_LOG("point num: %d, normal : %d\n", int(points.size()), int(normals.size()));
        const RT_<float> pose = castRT<float>(memberPoses[m]);
        float* p = reinterpret_cast<float*>(points.data());
        float* n = reinterpret_cast<float*>(normals.data());
        transformPoints(pose, p, p, int(points.size()));
        rotateNormals(pose, n, n, int(normals.size()));
        group.points.insert(group.points.end(), points.begin(), points.end());
        group.normals.insert(group.normals.end(), normals.begin(), normals.end());
        group.intensities.insert(group.intensities.end(), grays.begin(), grays.end());
    }
    voxelFilterCloud(options.maxDistance / 3.0, group.points, group.normals, group.intensities);
    return true;
}

void matchGroups(const GroupInputs& in, const Intrinsics& k, std::vector<RT_<double>>& poses,
                 const int* groupIds, MultiOptions options, const ProgressFunc& progress) {
    options.refreshInterval = 0;
    // Ascending ids; members in input order.
    std::map<int, AlignGroup> byId;
    for (size_t f = 0; f < poses.size(); ++f)
        if (groupIds[f] >= 0) byId[groupIds[f]].members.push_back(int(f));
    if (byId.empty()) return;
    std::vector<AlignGroup> groups;
    for (auto& entry : byId) groups.push_back(std::move(entry.second));
    const int count = int(groups.size());
    const double share = 0.8 / count;

    for (int g = 0; g < count; ++g) {
        MappedProgress mapped{progress, share, double(int(100.0 * share * g))};
        if (!alignOneGroup(in, k, poses, groups[size_t(g)], options, mapped)) return;
    }

    std::vector<const float*> points, normals, intensities;
    std::vector<int> sizes;
    for (int g = 0; g < count; ++g) {
        const AlignGroup& group = groups[size_t(g)];
        KESTOR_LOG("%d : cloud point num: %d, normal num: %d\n", g, int(group.points.size()),
                   int(group.normals.size()));
        points.push_back(reinterpret_cast<const float*>(group.points.data()));
        normals.push_back(reinterpret_cast<const float*>(group.normals.data()));
        intensities.push_back(group.intensities.data());
        sizes.push_back(int(group.points.size()));
    }
    std::vector<RT_<double>> groupPoses(size_t(count), RT_<double>::identity());
    MappedProgress mapped{progress, 0.2, 80.0};
    matchMultiPoints(points.data(), in.normals ? normals.data() : nullptr,
                     in.colored ? intensities.data() : nullptr, sizes.data(), groupPoses,
                     options, mapped.func());
    if (mapped.cancelled) return;

    for (int g = 0; g < count; ++g)
        for (int f : groups[size_t(g)].members)
            composeRT(groupPoses[size_t(g)], poses[size_t(f)], poses[size_t(f)]);
    bool cancel = false;
    if (progress) progress(100, cancel);
}

bool allPresent(const float* const* maps, int count) {
    for (int f = 0; f < count; ++f)
        if (maps[f] == nullptr) return false;
    return true;
}

}  // namespace

void matchGroupsVmap(const float* const* vmaps, const float* const* nmaps,
                     const float* const* grays, const float* const* gradXs,
                     const float* const* gradYs, int width, int height, const Intrinsics& k,
                     std::vector<RT_<double>>& poses, const int* groupIds,
                     const MultiOptions& options, const ProgressFunc& progress) {
    const int count = int(poses.size());
    GroupInputs in;
    in.width = width;
    in.height = height;
    in.normals = nmaps != nullptr;
    in.colored = nmaps && grays && gradXs && gradYs;
    // A frame whose map the chosen mode reads is missing: nothing to align.
    if (!allPresent(vmaps, count) || (in.normals && !allPresent(nmaps, count))) return;
    if (in.colored && !(allPresent(grays, count) && allPresent(gradXs, count) &&
                        allPresent(gradYs, count)))
        return;
    in.vmaps.assign(vmaps, vmaps + count);
    if (in.normals) in.nmaps.assign(nmaps, nmaps + count);
    if (in.colored) {
        in.grays.assign(grays, grays + count);
        in.gradXs.assign(gradXs, gradXs + count);
        in.gradYs.assign(gradYs, gradYs + count);
    }
    matchGroups(in, k, poses, groupIds, options, progress);
}

void matchGroupsDepth(const float* const* depths, const unsigned char* const* colors,
                      const unsigned char* const* masks, int width, int height,
                      const Intrinsics& k, std::vector<RT_<double>>& poses, const int* groupIds,
                      const MultiOptions& options, const ProgressFunc& progress) {
    const int count = int(poses.size());
    if (!allPresent(depths, count)) return;
    for (int f = 0; colors != nullptr && f < count; ++f)
        if (colors[f] == nullptr) return;
    const size_t pixels = size_t(width) * size_t(height);
    std::vector<std::vector<Float3>> vmaps(static_cast<size_t>(count)), nmaps(static_cast<size_t>(count));
    std::vector<std::vector<float>> grays, gradXs, gradYs;
    GroupInputs in;
    in.width = width;
    in.height = height;
    in.normals = true;
    in.colored = colors != nullptr;
    for (int f = 0; f < count; ++f) {
        std::vector<Float3>& v = vmaps[size_t(f)];
        std::vector<Float3>& n = nmaps[size_t(f)];
        v.resize(pixels);
        n.resize(pixels);
        const unsigned char* mask = masks ? masks[f] : nullptr;
        const auto vview = packedView(v.data(), width, height);
        depthToVmapNmap(k, packedView(depths[f], width, height),
                        mask ? packedView(mask, width, height) : ImageView<const uint8_t>{}, vview,
                        packedView(n.data(), width, height));
        in.vmaps.push_back(reinterpret_cast<const float*>(v.data()));
        in.nmaps.push_back(reinterpret_cast<const float*>(n.data()));
        if (masks) in.masks.push_back(mask);
    }
    if (in.colored) {
        grays.assign(size_t(count), std::vector<float>(pixels));
        gradXs.assign(size_t(count), std::vector<float>(pixels));
        gradYs.assign(size_t(count), std::vector<float>(pixels));
        for (int f = 0; f < count; ++f) {
            calcGrayAndGradient(packedView(reinterpret_cast<const Byte3*>(colors[f]), width, height),
                                packedView(grays[size_t(f)].data(), width, height),
                                packedView(gradXs[size_t(f)].data(), width, height),
                                packedView(gradYs[size_t(f)].data(), width, height), 1.6, false,
                                options.parallel);
            in.grays.push_back(grays[size_t(f)].data());
            in.gradXs.push_back(gradXs[size_t(f)].data());
            in.gradYs.push_back(gradYs[size_t(f)].data());
        }
    }
    matchGroups(in, k, poses, groupIds, options, progress);
}

}  // namespace kestor
