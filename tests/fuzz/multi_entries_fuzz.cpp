// The joint alignment entries on a few tiny frames: NaN and huge starting poses, frames that do
// not overlap, one-pixel images, point sets of any count, group ids of any value.
#include <vector>

#include "fuzz_input.h"
#include "kestor.h"

using kestor_fuzz::FuzzInput;

namespace {

void cancelAt(int percent, bool* cancel, void* user) {
    if (percent >= *static_cast<int*>(user)) *cancel = true;
}

// Per frame: depth, colour, mask, and the maps made from the depth; pointer arrays over them.
struct Frames {
    std::vector<std::vector<float>> depth, vmap, nmap, gray, gradX, gradY;
    std::vector<std::vector<uint8_t>> color, mask;
    Frames(FuzzInput& in, const double* K, int count, int width, int height) {
        const size_t pixels = size_t(width) * size_t(height);
        for (int f = 0; f < count; ++f) {
            depth.push_back(in.depth(width, height));
            if (in.flag())  // pushed far away: no overlap with the others
                for (float& d : depth.back()) d += 40.0f;
            color.push_back(in.bytes(pixels * 3));
            mask.push_back(in.bytes(pixels));
            vmap.emplace_back(pixels * 3);
            nmap.emplace_back(pixels * 3);
            KESTORDepthToVmapNmap(K, depth.back().data(), nullptr, vmap.back().data(),
                                  nmap.back().data(), width, height);
            gray.push_back(in.floats(pixels, 0.0f, 1.0f));
            gradX.push_back(in.floats(pixels, -1.0f, 1.0f));
            gradY.push_back(in.floats(pixels, -1.0f, 1.0f));
        }
    }
};

template <typename T>
std::vector<const T*> pointers(std::vector<std::vector<T>>& frames) {
    std::vector<const T*> out;
    for (auto& f : frames) out.push_back(f.data());
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const int op = in.size(0, 4);
    const int count = in.size(2, 4);
    const int width = in.size(1, 8), height = in.size(1, 8);
    const int pixels = width * height;
    const std::vector<double> K = in.camera(width, height);
    Frames frames(in, K.data(), count, width, height);
    std::vector<double> rts = in.poses(count);
    const int iterations = in.size(-1, 3);
    const double maxDistance = in.number(0.0, 0.5), maxAngle = in.number(0.0, 3.2);
    const double minScore = in.number(-0.5, 1.0), colorWeight = in.number(-0.5, 1.5);
    const int refreshInterval = in.anyInt(-2, 3);
    const bool parallel = in.flag(), log = false;
    int cancelPercent = in.size(0, 120);
    KESTORProgressFunc progress = in.flag() ? cancelAt : nullptr;

    auto depths = pointers(frames.depth);
    auto colors = pointers(frames.color), masks = pointers(frames.mask);
    auto vmaps = pointers(frames.vmap), nmaps = pointers(frames.nmap), grays = pointers(frames.gray);
    auto gradXs = pointers(frames.gradX), gradYs = pointers(frames.gradY);
    // Optional arrays of pointers: absent, or present.
    auto opt = [&](auto& v) { return in.flag() ? v.data() : nullptr; };
    std::vector<int> groupIds(count);
    for (int& g : groupIds) g = in.anyInt(-1, 3);

    switch (op) {
    case 0: {
        const bool withCamera = in.flag();
        std::vector<int> sizes;
        if (withCamera)
            sizes = {width, height};
        else
            for (int f = 0; f < count; ++f) sizes.push_back(in.size(0, pixels));
        KESTORMatchMulti(vmaps.data(), opt(nmaps), opt(grays), sizes.data(),
                         withCamera ? K.data() : nullptr, rts.data(), count, iterations,
                         maxDistance, maxAngle, minScore, colorWeight, refreshInterval, parallel,
                         log, progress, &cancelPercent);
        break;
    }
    case 1:
        if (in.flag()) depths[size_t(in.size(0, count - 1))] = nullptr;  // a missing frame
        KESTORMatchMultiDepth(depths.data(), opt(colors), opt(masks), width, height, K.data(),
                              rts.data(), count, iterations, maxDistance, maxAngle, minScore,
                              colorWeight, refreshInterval, parallel, log, progress,
                              &cancelPercent);
        break;
    case 2:
        KESTORMatchMultiVmapNmap(vmaps.data(), opt(nmaps), opt(grays), opt(gradXs), opt(gradYs),
                                 width, height, K.data(), rts.data(), count, iterations,
                                 maxDistance, maxAngle, minScore, colorWeight, refreshInterval,
                                 parallel, log, progress, &cancelPercent);
        break;
    case 3:
        KESTORMatchMultiDepthInGroup(depths.data(), opt(colors), opt(masks), width, height,
                                     K.data(), rts.data(), groupIds.data(), count, iterations,
                                     maxDistance, maxAngle, minScore, colorWeight, parallel, log,
                                     progress, &cancelPercent);
        break;
    case 4:
        KESTORMatchMultiVmapNmapInGroup(vmaps.data(), opt(nmaps), opt(grays), opt(gradXs),
                                        opt(gradYs), width, height, K.data(), rts.data(),
                                        groupIds.data(), count, iterations, maxDistance, maxAngle,
                                        minScore, colorWeight, parallel, log, progress,
                                        &cancelPercent);
        break;
    }
    return 0;
}
