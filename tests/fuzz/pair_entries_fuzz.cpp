// The pair entries and match measures on tiny maps and point sets: NaN and huge poses, frames
// that do not overlap at all, one-pixel images, broken gates and cancelling progress callbacks.
#include <vector>

#include "fuzz_input.h"
#include "kestor.h"

using kestor_fuzz::FuzzInput;

namespace {

void cancelAt(int percent, bool* cancel, void* user) {
    if (percent >= *static_cast<int*>(user)) *cancel = true;
}

// A vertex map of the given depth image with its normal map, gray and gradients, as a caller
// would have them from the image kernels (the kernels themselves are fuzzed elsewhere).
struct Frame {
    std::vector<float> vmap, nmap, gray, gradX, gradY;
    Frame(FuzzInput& in, const double* K, int width, int height) {
        const size_t pixels = size_t(width) * size_t(height);
        std::vector<float> depth = in.depth(width, height);
        if (in.flag())  // no overlap: the other frame's depth is far behind this one
            for (float& d : depth) d += 50.0f;
        vmap.resize(pixels * 3);
        nmap.resize(pixels * 3);
        KESTORDepthToVmapNmap(K, depth.data(), nullptr, vmap.data(), nmap.data(), width, height);
        gray = in.floats(pixels, 0.0f, 1.0f);
        gradX = in.floats(pixels, -1.0f, 1.0f);
        gradY = in.floats(pixels, -1.0f, 1.0f);
        if (in.flag())  // some garbage in the maps themselves
            for (int i = in.size(0, 3); i > 0; --i) vmap[in.size(0, int(pixels * 3) - 1)] = in.value(-5, 5);
    }
};

template <typename T>
const T* maybe(FuzzInput& in, const std::vector<T>& v) {
    return in.flag() ? v.data() : nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const int op = in.size(0, 6);
    const int width = in.size(1, 12), height = in.size(1, 12);
    const size_t pixels = size_t(width) * size_t(height);
    const std::vector<double> K = in.camera(width, height);
    Frame target(in, K.data(), width, height), source(in, K.data(), width, height);
    std::vector<double> rt = in.pose(), info(36);
    double* infoArg = in.flag() ? info.data() : nullptr;
    const int iterations = in.size(-1, 4);
    const double maxDistance = in.number(0.0, 0.5), maxAngle = in.number(0.0, 3.2);
    const double minScore = in.number(-0.5, 1.0), colorWeight = in.number(-0.5, 1.5);
    const bool parallel = in.flag(), verbose = false;
    int cancelPercent = in.size(0, 120);
    KESTORProgressFunc progress = in.flag() ? cancelAt : nullptr;

    switch (op) {
    case 0: {  // maps with a camera
        const int sizes[2] = {width, height};
        KESTORMatchPair(target.vmap.data(), maybe(in, target.nmap), maybe(in, target.gray),
                        source.vmap.data(), maybe(in, source.nmap), maybe(in, source.gray), sizes,
                        K.data(), rt.data(), infoArg, iterations, maxDistance, maxAngle, minScore,
                        colorWeight, parallel, verbose, progress, &cancelPercent);
        break;
    }
    case 1: {  // point sets: any counts up to the map sizes, duplicates and NaN included
        const int sizes[2] = {in.size(1, int(pixels)), in.size(1, int(pixels))};
        KESTORMatchPair(target.vmap.data(), maybe(in, target.nmap), maybe(in, target.gray),
                        source.vmap.data(), maybe(in, source.nmap), maybe(in, source.gray), sizes,
                        nullptr, rt.data(), infoArg, iterations, maxDistance, maxAngle, minScore,
                        colorWeight, parallel, verbose, progress, &cancelPercent);
        break;
    }
    case 2: {
        const std::vector<float> depth1 = in.depth(width, height), depth2 = in.depth(width, height);
        const std::vector<uint8_t> color1 = in.bytes(pixels * 3), color2 = in.bytes(pixels * 3);
        const std::vector<uint8_t> mask1 = in.bytes(pixels), mask2 = in.bytes(pixels);
        KESTORMatchPairDepth(depth1.data(), maybe(in, color1), maybe(in, mask1), depth2.data(),
                             maybe(in, color2), maybe(in, mask2), width, height, K.data(),
                             rt.data(), infoArg, iterations, maxDistance, maxAngle, minScore,
                             colorWeight, parallel, verbose, progress, &cancelPercent);
        break;
    }
    case 3:
        KESTORMatchPairVmapNmap(target.vmap.data(), maybe(in, target.nmap), maybe(in, target.gray),
                                maybe(in, target.gradX), maybe(in, target.gradY),
                                source.vmap.data(), maybe(in, source.nmap), maybe(in, source.gray),
                                width, height, K.data(), rt.data(), infoArg, iterations,
                                maxDistance, maxAngle, minScore, colorWeight, parallel, verbose,
                                progress, &cancelPercent);
        break;
    case 4: {  // pyramids: levels past the image size are the export's to refuse
        const int levels = in.size(1, 6);
        std::vector<std::vector<float>> store[8];
        std::vector<const float*> ptr[8];
        const std::vector<float>* level0[8] = {&target.vmap, &target.nmap, &target.gray,
                                               &target.gradX, &target.gradY, &source.vmap,
                                               &source.nmap, &source.gray};
        for (int m = 0; m < 8; ++m) {
            const size_t channels = level0[m]->size() / pixels;
            for (int l = 0; l < levels; ++l) {
                const size_t w = size_t(width >> l), h = size_t(height >> l);
                std::vector<float> level(w * h * channels + 1);
                for (size_t i = 0; i + 1 < level.size() && i < level0[m]->size(); ++i)
                    level[i] = (*level0[m])[i];
                store[m].push_back(std::move(level));
            }
            for (auto& level : store[m]) ptr[m].push_back(level.data());
        }
        std::vector<int> iterationsPerLevel(levels);
        std::vector<double> distancePerLevel(levels);
        for (int l = 0; l < levels; ++l) {
            iterationsPerLevel[l] = in.size(-1, 3);
            distancePerLevel[l] = in.number(0.0, 0.5);
        }
        auto arg = [&](int m, bool required) { return required || in.flag() ? ptr[m].data() : nullptr; };
        KESTORMatchPairVmapNmapPyramid(arg(0, true), arg(1, false), arg(2, false), arg(3, false),
                                       arg(4, false), arg(5, true), arg(6, false), arg(7, false),
                                       width, height, K.data(), rt.data(), infoArg,
                                       iterationsPerLevel.data(), distancePerLevel.data(), levels,
                                       maxAngle, minScore, colorWeight, parallel, verbose,
                                       progress, &cancelPercent);
        break;
    }
    case 5: {
        const int count1 = in.size(1, int(pixels)), count2 = in.size(1, int(pixels));
        KESTORCalcPointMatchInfo(target.vmap.data(), maybe(in, target.nmap), count1,
                                 source.vmap.data(), maybe(in, source.nmap), count2, rt.data(),
                                 info.data(), maxDistance, maxAngle, minScore);
        break;
    }
    case 6:
        if (in.flag())
            KESTORCalcVmapMatchInfo(target.vmap.data(), maybe(in, target.nmap), source.vmap.data(),
                                    maybe(in, source.nmap), width, height, K.data(), rt.data(),
                                    info.data(), maxDistance, maxAngle, minScore);
        else
            KESTORCalcVmapSelfMatchInfo(source.vmap.data(), width, height, rt.data(), info.data());
        break;
    }
    return 0;
}
