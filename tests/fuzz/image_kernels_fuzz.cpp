// The image kernels on small images of any shape, with broken depths, cameras, poses, sigmas,
// positions and pyramid levels past the image's size.
#include <vector>

#include "fuzz_input.h"
#include "kestor.h"

using kestor_fuzz::FuzzInput;

namespace {

void ignorePoints(const float*, const float*, const uint8_t*, int, void*) {}

// Buffers of every level of a pyramid, each as large as that level (width >> l by height >> l).
struct LevelBuffers {
    std::vector<std::vector<float>> storage;
    std::vector<float*> pointers;
    LevelBuffers(int width, int height, int levels, int channels) {
        for (int l = 0; l < levels; ++l) {
            const size_t w = l < 31 ? size_t(width >> l) : 0, h = l < 31 ? size_t(height >> l) : 0;
            storage.emplace_back(w * h * size_t(channels) + 1);
        }
        for (auto& level : storage) pointers.push_back(level.data());
    }
    float** data() { return pointers.data(); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const int op = in.size(0, 5);
    const int width = in.size(1, 24), height = in.size(1, 24);
    const size_t pixels = size_t(width) * size_t(height);
    const std::vector<double> K = in.camera(width, height);
    std::vector<float> depth = in.depth(width, height);
    std::vector<uint8_t> color = in.bytes(pixels * 3), mask = in.bytes(pixels);
    const bool useColor = in.flag(), useMask = in.flag(), parallel = in.flag();
    const uint8_t* colorArg = useColor ? color.data() : nullptr;
    const uint8_t* maskArg = useMask ? mask.data() : nullptr;

    switch (op) {
    case 0: {
        std::vector<float> vmap(pixels * 3), nmap(pixels * 3);
        KESTORDepthToVmapNmap(K.data(), depth.data(), maskArg, vmap.data(),
                              in.flag() ? nmap.data() : nullptr, width, height);
        break;
    }
    case 1: {
        const int levels = in.size(1, 40);
        LevelBuffers vmaps(width, height, levels, 3), nmaps(width, height, levels, 3),
            grays(width, height, levels, 1), gradXs(width, height, levels, 1),
            gradYs(width, height, levels, 1);
        KESTORCalcPyramidVmapNmap(K.data(), depth.data(), colorArg, maskArg, vmaps.data(),
                                  nmaps.data(), in.flag() ? grays.data() : nullptr,
                                  in.flag() ? gradXs.data() : nullptr,
                                  in.flag() ? gradYs.data() : nullptr, width, height, levels,
                                  in.flag());
        break;
    }
    case 2: {
        std::vector<float> gray(pixels), gx(pixels), gy(pixels);
        const double sigma = in.number(-2.0, 4.0);
        KESTORCalcGrayAndGradient(color.data(), gray.data(), gx.data(), gy.data(), width, height,
                                  sigma, in.flag(), parallel);
        break;
    }
    case 3: {
        KESTORDepthToMask(depth.data(), mask.data(), width, height);
        break;
    }
    case 4: {
        const int count = in.size(1, 32);
        std::vector<float> uv(size_t(count) * 2);
        for (float& v : uv) v = in.value(-2.0f, float(width > height ? width : height) + 2.0f);
        std::vector<float> points(size_t(count) * 3), normals(size_t(count) * 3);
        KESTORCvtUVToPointFromDepth(K.data(), depth.data(), width, height, uv.data(),
                                    points.data(), normals.data(), count, parallel);
        break;
    }
    case 5: {
        const std::vector<double> rt = in.pose();
        KESTORColorDepthToPoints(depth.data(), colorArg, maskArg, width, height, K.data(),
                                 rt.data(), ignorePoints, nullptr);
        break;
    }
    }
    return 0;
}
