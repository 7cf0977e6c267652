// A short run of the whole engine for memcheck: small frames of a textured room corner seen by
// a camera that slides sideways, four workers, a spill file, joint alignment in groups and
// the group graph, then every point map export. Prints the cycle count and the instance block's
// size, the only memory meant to stay.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/fusion_instance.h"
#include "kestor.h"

namespace {

constexpr int kWidth = 44, kHeight = 36, kFrames = 24;  // rows of lanes and single pixels
const double K[9] = {40, 0, 21.5, 0, 40, 17.5, 0, 0, 1};

// Frame k: the corner of a room (back wall z = 2, side wall x = 0.8, floor y = 0.6) seen from
// (0.01 k, 0, 0), each surface textured by position.
bool fill(KESTORFrameInfo* frame, void*) {
    const double shift = 0.01 * frame->id;
    for (int v = 0; v < kHeight; ++v) {
        for (int u = 0; u < kWidth; ++u) {
            const double rx = (u - K[2]) / K[0], ry = (v - K[5]) / K[4];
            // The nearest of the three planes along the ray (shift, 0, 0) + t (rx, ry, 1).
            double t = 2.0;
            if (rx > 0) t = std::min(t, (0.8 - shift) / rx);
            if (ry > 0) t = std::min(t, 0.6 / ry);
            const double x = shift + t * rx, y = t * ry;
            const int i = v * kWidth + u;
            frame->depth[i] = float(t);
            const double shade = 0.5 + 0.25 * std::sin(23 * x + 3 * t) * std::cos(19 * y - 5 * t);
            for (int c = 0; c < 3; ++c) frame->color[3 * i + c] = uint8_t(200 * shade + 20 * c);
        }
    }
    return true;
}

bool pairMatch(const KESTORFrameInfo*, const KESTORFrameInfo*, double rt[3][4], int kind, void*) {
    rt[0][0] = rt[1][1] = rt[2][2] = 1;
    return kind == KESTOR_MATCH_SEQUENTIAL;
}

void cloud(const KESTORPointCloud*, void*) {}

}  // namespace

int main(int argc, char** argv) {
    const std::string cache = argc > 1 ? argv[1] : "/tmp/kestor_memcheck_engine_cache.bin";
    const double distances[3] = {0.05, 0.1, 0.2};
    const int iterations[3] = {3, 3, 3};
    void* instance = nullptr;
    if (KESTORCreateInstance(&instance, K, kWidth, kHeight, distances, iterations, 3, 5,
                             KESTOR_FLAG_NO_MASK | KESTOR_FLAG_GRAY) != 0)
        return 1;
    KESTORPara para;
    KESTORGetPara(instance, &para);
    para.verbose = 0;
    para.groupIterations = 2;
    KESTORSetPara(instance, &para);
    KESTORSetPairMatchFunc(instance, pairMatch, nullptr);
    KESTORSetCachePath(instance, cache.c_str());
    KESTORStart(instance, 4);
    for (int k = 0; k < kFrames; ++k) KESTORAddFrame(instance, fill, nullptr);
    KESTORStop(instance);
    int accepted = 0;
    KESTORGetFrameNum(instance, &accepted);
    KESTORGetPointsPerFrame(instance, cloud, nullptr, nullptr);
    KESTORFusePointsMap(instance, cloud, nullptr, nullptr);
    KESTOROptimizePointsMap(instance, 0.02, 2, 1, cloud, nullptr, nullptr);
    KESTORDestroyInstance(instance);
    std::remove(cache.c_str());
    if (accepted < kFrames / 2) {
        std::fprintf(stderr, "only %d of %d frames accepted\n", accepted, kFrames);
        return 1;
    }
    std::printf("cycles 1 block %zu\n", sizeof(kestor::RGBDFusionImpl));
    return 0;
}
