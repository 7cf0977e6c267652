// Demo of the library on the bundled real sample: reads a depth frame, builds its vertex and
// normal maps through the public interface, and prints what it found.
#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "io/png_image.h"
#include "kestor.h"

namespace {

// First frame's depth file of a TUM-style associations list.
std::string firstDepthFile(const std::string& dir) {
    std::ifstream in(dir + "/associations.txt");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string stamp, depthFile;
        fields >> stamp >> depthFile;
        return dir + "/" + depthFile;
    }
    throw std::runtime_error("no frames listed in " + dir + "/associations.txt");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string dir = argc > 1 ? argv[1] : KESTOR_SAMPLE_DIR;
        const std::string depthPath = firstDepthFile(dir);
        int width = 0, height = 0;
        const std::vector<float> depth = kestor_io::readDepthPng(depthPath, 5000.0, width, height);
        const double K[9] = {525.0, 0, 319.5, 0, 525.0, 239.5, 0, 0, 1};

        std::vector<float> vmap(size_t(width) * size_t(height) * 3);
        std::vector<float> nmap(vmap.size());
        const int status = KESTORDepthToVmapNmap(K, depth.data(), nullptr, vmap.data(),
                                                 nmap.data(), width, height);
        std::printf("kestor %s\n", KESTORVersion());
        std::printf("frame: %s (%d x %d)\n", depthPath.c_str(), width, height);
        if (status != KESTOR_STATUS_OK) {
            std::printf("KESTORDepthToVmapNmap returned %d\n", status);
            return 1;
        }

        size_t valid = 0, withNormal = 0;
        float nearest = INFINITY, farthest = 0.0f;
        double meanFacing = 0.0;
        for (size_t i = 0; i < size_t(width) * size_t(height); ++i) {
            const float z = vmap[i * 3 + 2];
            if (z == 0.0f) continue;
            ++valid;
            nearest = std::fmin(nearest, z);
            farthest = std::fmax(farthest, z);
            const float* n = &nmap[i * 3];
            if (n[0] != 0.0f || n[1] != 0.0f || n[2] != 0.0f) {
                ++withNormal;
                meanFacing += -n[2];
            }
        }
        const double pixels = double(width) * double(height);
        std::printf("valid pixels: %zu of %.0f (%.1f%%)\n", valid, pixels, 100.0 * valid / pixels);
        if (valid > 0) std::printf("depth range: %.3f m to %.3f m\n", nearest, farthest);
        std::printf("normals made: %zu (%.1f%% of valid pixels)\n", withNormal,
                    valid > 0 ? 100.0 * withNormal / valid : 0.0);
        if (withNormal > 0)
            std::printf("mean facing cosine (-n.z): %.3f\n", meanFacing / double(withNormal));
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestor-demo: %s\n", e.what());
        return 1;
    }
}
