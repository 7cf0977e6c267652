#pragma once
// Decodes a frame's images (OpenCV) straight into caller planes, checking the size.
#include <cstdint>
#include <string>

namespace kestor_cli {

// Size of a depth image, read from the file. Throws InputError naming the file if it cannot be
// decoded or is not a single-channel 16-bit image.
void depthImageSize(const std::string& path, int& width, int& height);

// 16-bit depth to metres: value / unitsPerMetre; 0 and 65535 (no measurement) become 0.
// `depth` holds width * height floats. Throws InputError naming the file on a decode failure,
// a wrong type or a size other than width x height.
void decodeDepth(const std::string& path, double unitsPerMetre, int width, int height,
                 float* depth);

// Colour (PNG or JPEG, 8-bit) to packed RGB, 3 bytes a pixel, width * height pixels. Throws
// InputError naming the file on a decode failure or a size other than width x height.
void decodeColor(const std::string& path, int width, int height, uint8_t* rgb);

}  // namespace kestor_cli
