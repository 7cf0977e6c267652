#pragma once
// Small helpers for the image-kernel tests: random images, thread-count scopes, sentinels.
#include <omp.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kestor.h"

namespace kestor_test {

inline std::vector<float> randomImage(int width, int height, unsigned seed, float lo = 0.0f,
                                      float hi = 1.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> image(size_t(width) * size_t(height));
    for (float& v : image) v = dist(rng);
    return image;
}

inline std::vector<uint8_t> randomColor(int width, int height, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> color(size_t(width) * size_t(height) * 3);
    for (uint8_t& c : color) c = uint8_t(rng() & 0xFF);
    return color;
}

// Sets the library's loop thread count for a scope.
struct ThreadScope {
    explicit ThreadScope(int n) : saved(KESTORGetThreadNum()) { KESTORSetThreadNum(n); }
    ~ThreadScope() { KESTORSetThreadNum(saved); }
    int saved;
};

inline bool bitwiseEqual(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// A float whose bit pattern no kernel produces by accident.
constexpr float kSentinel = -12345.678f;

}  // namespace kestor_test
