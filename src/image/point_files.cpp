#include "image/point_files.h"

#include <cctype>
#include <cstdio>
#include <string>

#include "core/log.h"
#include "image/color_points.h"

namespace kestor {

bool writePoints(const char* path, const float* points, const float* normals,
                 const uint8_t* colors, int count) {
    const std::string text(path);
    const size_t dot = text.rfind('.');
    std::string extension = dot == std::string::npos ? text : text.substr(dot + 1);
    for (char& c : extension) c = char(std::tolower(static_cast<unsigned char>(c)));
    if (extension == "asc") return writeTextPoints(path, points, normals, colors, count);
    if (extension == "ply") return writePly(path, points, normals, colors, count, nullptr, 0);
    return false;
}

bool writePly(const char* path, const float* points, const float* normals, const uint8_t* colors,
              int count, const int32_t* faces, int faceCount) {
    FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return false;
    std::fputs("ply\nformat binary_little_endian 1.0\ncomment made by KESTOR\n", file);
    std::fprintf(file, "element vertex %d\n", count);
    std::fputs("property float x\nproperty float y\nproperty float z\n", file);
    if (normals != nullptr)
        std::fputs("property float nx\nproperty float ny\nproperty float nz\n", file);
    if (colors != nullptr)
        std::fputs("property uchar red\nproperty uchar green\nproperty uchar blue\n", file);
    const bool withFaces = faces != nullptr && faceCount >= 1;
    if (withFaces) {
        std::fprintf(file, "element face %d\n", faceCount);
        std::fputs("property list uchar int vertex_index\n", file);
    }
    std::fputs("end_header\n", file);

    for (int i = 0; i < count; ++i) {
        std::fwrite(points + 3 * size_t(i), sizeof(float), 3, file);
        if (normals != nullptr) std::fwrite(normals + 3 * size_t(i), sizeof(float), 3, file);
        if (colors != nullptr) {
            const uint8_t* c = colors + 3 * size_t(i);
            const uint8_t rgb[3] = {c[2], c[1], c[0]};
            std::fwrite(rgb, 1, 3, file);
        }
    }
    if (withFaces) {
        for (int i = 0; i < faceCount; ++i) {
            const uint8_t corners = 3;
            std::fwrite(&corners, 1, 1, file);
            std::fwrite(faces + 3 * size_t(i), sizeof(int32_t), 3, file);
        }
    }
    std::fclose(file);
    return true;
}

bool writeTextPoints(const char* path, const float* points, const float* normals,
                     const uint8_t* colors, int count) {
    FILE* file = std::fopen(path, "w");
    if (file == nullptr) return false;
    for (int i = 0; i < count; ++i) {
        const float* p = points + 3 * size_t(i);
        if (normals == nullptr) {
            logToStream(file, "%f %f %f\n", p[0], p[1], p[2]);
            continue;
        }
        const float* n = normals + 3 * size_t(i);
        if (colors == nullptr) {
            logToStream(file, "%f %f %f %f %f %f\n", p[0], p[1], p[2], n[0], n[1], n[2]);
            continue;
        }
        const uint8_t* c = colors + 3 * size_t(i);
        logToStream(file, "%f %f %f %f %f %f %d %d %d\n", p[0], p[1], p[2], n[0], n[1], n[2],
                    int(c[2]), int(c[1]), int(c[0]));
    }
    std::fflush(file);
    return std::fclose(file) == 0;
}

bool writeColorDepthToPoints(const char* path, const ImageView<const float>& depth,
                             const ImageView<const Byte3>& color,
                             const ImageView<const uint8_t>& mask, const Intrinsics& k,
                             const RT_<float>& rt) {
    bool written = false;
    colorDepthToPoints(k, depth, color, mask, rt,
                       [&](const float* points, const float* normals, const uint8_t* colors,
                           int count) { written = writePoints(path, points, normals, colors, count); });
    return written;
}

}  // namespace kestor
