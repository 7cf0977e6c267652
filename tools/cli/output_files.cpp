#include "cli/output_files.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "cli/sequence_folder.h"
#include "kestor.h"

namespace kestor_cli {

namespace fs = std::filesystem;

namespace {

// A name next to the final one, unique to this process, with the same extension (the library's
// writer chooses the format by the extension).
std::string temporaryName(const std::string& path) {
    const fs::path p(path);
    return (p.parent_path() / ("." + p.stem().string() + ".part" + std::to_string(getpid()) +
                               p.extension().string()))
        .string();
}

void commit(const std::string& temporary, const std::string& path) {
    std::error_code ec;
    fs::rename(temporary, path, ec);
    if (ec) {
        fs::remove(temporary, ec);
        throw InputError("cannot write " + path);
    }
}

}  // namespace

void prepareOutputFolder(const std::string& dir) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (!fs::is_directory(dir, ec)) throw InputError("cannot create output folder " + dir);
    const std::string probe = temporaryName(dir + "/probe.txt");
    {
        std::ofstream out(probe);
        if (!out) throw InputError("output folder is not writable: " + dir);
    }
    fs::remove(probe, ec);
}

void writeTextFile(const std::string& path, const std::string& text) {
    const std::string temporary = temporaryName(path);
    {
        std::ofstream out(temporary, std::ios::binary);
        out << text;
        out.flush();
        if (!out) {
            std::error_code ec;
            fs::remove(temporary, ec);
            throw InputError("cannot write " + path);
        }
    }
    commit(temporary, path);
}

void writePlyFile(const std::string& path, const float* points, const float* normals,
                  const uint8_t* rgb, int count) {
    // The library's PLY writer stores a pixel's bytes in reverse order (red from byte 2), so the
    // colours go in as B, G, R to come out as R, G, B.
    std::vector<uint8_t> bgr;
    if (rgb) {
        bgr.resize(size_t(count) * 3);
        for (size_t i = 0; i < size_t(count); ++i) {
            bgr[3 * i] = rgb[3 * i + 2];
            bgr[3 * i + 1] = rgb[3 * i + 1];
            bgr[3 * i + 2] = rgb[3 * i];
        }
    }
    const std::string temporary = temporaryName(path);
    if (KESTORWritePoints(temporary.c_str(), points, normals, rgb ? bgr.data() : nullptr, count) !=
        KESTOR_STATUS_OK) {
        std::error_code ec;
        fs::remove(temporary, ec);
        throw InputError("cannot write " + path);
    }
    commit(temporary, path);
}

}  // namespace kestor_cli
