#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kestor_io {

// An 8- or 16-bit PNG read into memory: `channels` samples a pixel, row-major, packed.
struct PngImage {
    int width = 0;
    int height = 0;
    int channels = 0;
    int bitDepth = 0;
    std::vector<uint16_t> samples16;  // filled for 16-bit images
    std::vector<uint8_t> samples8;    // filled for 8-bit images
};

// Reads a PNG file; throws std::runtime_error with the path on any failure.
PngImage readPng(const std::string& path);

// A 16-bit depth PNG as floats: raw value / unitsPerMetre, 0 stays 0 (no measurement).
std::vector<float> readDepthPng(const std::string& path, double unitsPerMetre, int& width,
                                int& height);

// An 8-bit RGB (or RGBA, alpha dropped) PNG as packed 3-byte pixels.
std::vector<uint8_t> readColorPng(const std::string& path, int& width, int& height);

}  // namespace kestor_io
