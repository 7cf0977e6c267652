#pragma once
// Output files that appear complete or not at all: each is written under a temporary name in the
// same folder, then renamed over the final name.
#include <cstdint>
#include <string>

namespace kestor_cli {

// Creates the folder if needed and checks that a file can be made in it. Throws InputError
// naming the folder.
void prepareOutputFolder(const std::string& dir);

// Writes `text` to `path`. Throws InputError naming the file on failure.
void writeTextFile(const std::string& path, const std::string& text);

// Writes a binary PLY through the library's point writer. `rgb` is 3 bytes a point in R, G, B
// order, or null. Throws InputError naming the file on failure.
void writePlyFile(const std::string& path, const float* points, const float* normals,
                  const uint8_t* rgb, int count);

}  // namespace kestor_cli
