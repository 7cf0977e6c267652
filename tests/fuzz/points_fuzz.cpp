// The voxel filter and the point writers: NaN and infinite points, extents so large that voxel
// numbers overflow, any voxel size; files written to a private temporary folder.
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "kestor.h"

using kestor_fuzz::FuzzInput;

namespace {

struct Kept {
    int count = -1;
    int sum = 0;
};

void readIndices(const int* indices, int count, void* user) {
    Kept& kept = *static_cast<Kept*>(user);
    kept.count = count;
    for (int i = 0; i < count; ++i) kept.sum += indices[i];
}

const std::string& scratchFolder() {
    static const std::string folder = [] {
        char name[] = "/tmp/kestor-fuzz-XXXXXX";
        const char* made = mkdtemp(name);
        if (made == nullptr) std::abort();
        return std::string(made);
    }();
    return folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const int op = in.size(0, 2);
    const int count = in.size(1, 300);
    // Points in a box whose size the input picks, from a millimetre to beyond float range.
    const float extent = in.flag() ? in.value(-1e30f, 1e30f) : in.mostlyValue(1e-3f, 100.0f);
    std::vector<float> points(size_t(count) * 3);
    for (float& v : points) v = in.size(0, 15) == 0 ? in.value(-1.0f, 1.0f) : extent * in.mostlyValue(-1.0f, 1.0f);

    switch (op) {
    case 0: {
        Kept kept;
        const double voxel = in.flag() ? in.number(-1.0, 1.0) : in.number(1e-6, 0.5);
        KESTORVoxelFilter(points.data(), count, voxel, in.flag() ? readIndices : nullptr, &kept);
        if (kept.count >= count) std::abort();  // the last voxel never gives a point
        break;
    }
    case 1: {
        static const char* const extensions[] = {".ply", ".PLY", ".asc", ".txt", "", ".Ply"};
        const std::string path =
            scratchFolder() + "/points" + extensions[in.size(0, 5)];
        const std::vector<float> normals = in.floats(size_t(count) * 3, -1.0f, 1.0f);
        const std::vector<uint8_t> colors = in.bytes(size_t(count) * 3);
        KESTORWritePoints(path.c_str(), points.data(), in.flag() ? normals.data() : nullptr,
                          in.flag() ? colors.data() : nullptr, count);
        unlink(path.c_str());
        break;
    }
    case 2: {
        const int width = in.size(1, 16), height = in.size(1, 16);
        const size_t pixels = size_t(width) * size_t(height);
        const std::vector<double> K = in.camera(width, height), rt = in.pose();
        const std::vector<float> depth = in.depth(width, height);
        const std::vector<uint8_t> color = in.bytes(pixels * 3), mask = in.bytes(pixels);
        const std::string path = scratchFolder() + (in.flag() ? "/cloud.ply" : "/cloud.asc");
        KESTORWriteColorDepthToPoints(path.c_str(), depth.data(),
                                      in.flag() ? color.data() : nullptr,
                                      in.flag() ? mask.data() : nullptr, width, height, K.data(),
                                      rt.data());
        unlink(path.c_str());
        break;
    }
    }
    return 0;
}
