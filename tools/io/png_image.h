#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kestor_io {

// Both readers throw std::runtime_error with the path on any failure.

// A 16-bit depth PNG as floats: raw value / unitsPerMetre, 0 stays 0 (no measurement).
std::vector<float> readDepthPng(const std::string& path, double unitsPerMetre, int& width,
                                int& height);

// An 8-bit RGB (or RGBA, alpha dropped) PNG as packed 3-byte pixels.
std::vector<uint8_t> readColorPng(const std::string& path, int& width, int& height);

}  // namespace kestor_io
