#pragma once
// Splits a fuzzer's bytes into the arguments of an export: small sizes, flags, floats that are
// often NaN, infinite, negative, zero or huge, cameras and poses. Buffers are always allocated
// as large as the sizes handed to the library say; everything else is the input's choice.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace kestor_fuzz {

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : bytes_(data, size) {}

    bool empty() { return bytes_.remaining_bytes() == 0; }
    bool flag() { return bytes_.ConsumeBool(); }
    int size(int lo, int hi) { return bytes_.ConsumeIntegralInRange<int>(lo, hi); }
    uint8_t byte() { return bytes_.ConsumeIntegral<uint8_t>(); }
    // Any int, with the borders of the int range and small negatives common.
    int anyInt(int lo, int hi) {
        switch (bytes_.ConsumeIntegralInRange<int>(0, 7)) {
        case 0: return std::numeric_limits<int>::min();
        case 1: return std::numeric_limits<int>::max();
        case 2: return -1;
        case 3: return 0;
        default: return bytes_.ConsumeIntegralInRange<int>(lo, hi);
        }
    }

    // A float in [lo, hi], or one of the values that break arithmetic.
    float value(float lo, float hi) {
        const uint8_t kind = bytes_.ConsumeIntegral<uint8_t>();
        switch (kind % 16) {
        case 0: return std::numeric_limits<float>::quiet_NaN();
        case 1: return std::numeric_limits<float>::infinity();
        case 2: return -std::numeric_limits<float>::infinity();
        case 3: return 0.0f;
        case 4: return -0.0f;
        case 5: return kind < 128 ? 3e38f : -3e38f;
        case 6: return kind < 128 ? 1e-40f : -1e-40f;
        default: return lo + (hi - lo) * bytes_.ConsumeProbability<float>();
        }
    }
    double number(double lo, double hi) {
        const uint8_t kind = bytes_.ConsumeIntegral<uint8_t>();
        switch (kind % 16) {
        case 0: return std::numeric_limits<double>::quiet_NaN();
        case 1: return std::numeric_limits<double>::infinity();
        case 2: return -std::numeric_limits<double>::infinity();
        case 3: return 0.0;
        case 4: return kind < 128 ? 1e300 : -1e300;
        default: return lo + (hi - lo) * bytes_.ConsumeProbability<double>();
        }
    }
    // Mostly plain values, now and then a breaking one: enough structure left for the solvers
    // to get past their first checks.
    float mostlyValue(float lo, float hi) {
        return bytes_.ConsumeIntegralInRange<int>(0, 7) == 0 ? value(lo, hi)
                                                            : lo + (hi - lo) * bytes_.ConsumeProbability<float>();
    }

    std::vector<float> floats(size_t count, float lo, float hi) {
        std::vector<float> out(count);
        for (float& v : out) v = mostlyValue(lo, hi);
        return out;
    }
    std::vector<uint8_t> bytes(size_t count) {
        std::vector<uint8_t> out(count);
        for (uint8_t& v : out) v = bytes_.ConsumeIntegral<uint8_t>();
        return out;
    }
    // A depth image: mostly a slanted plane at 0.5 to 3 m so that maps have neighbours, with
    // holes, negatives, NaN and infinities mixed in.
    std::vector<float> depth(int width, int height) {
        std::vector<float> out(size_t(width) * size_t(height));
        const float base = 0.5f + 2.5f * bytes_.ConsumeProbability<float>();
        const float slope = 0.01f * (bytes_.ConsumeProbability<float>() - 0.5f);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                float v = base + slope * float(x + y);
                if (bytes_.ConsumeIntegralInRange<int>(0, 5) == 0) v = value(-1.0f, 4.0f);
                out[size_t(y) * size_t(width) + size_t(x)] = v;
            }
        return out;
    }

    // A camera: plausible for a width x height image, or with broken numbers.
    std::vector<double> camera(int width, int height) {
        std::vector<double> K = {500, 0, 0.5 * width, 0, 500, 0.5 * height, 0, 0, 1};
        if (flag()) {
            K[0] = number(-1000, 1000);
            K[4] = number(-1000, 1000);
            K[2] = number(-width, 2.0 * width);
            K[5] = number(-height, 2.0 * height);
        }
        return K;
    }
    // A 3x4 pose: a small proper motion, or twelve arbitrary numbers (NaN, huge, degenerate).
    std::vector<double> pose() {
        std::vector<double> rt(12, 0.0);
        if (flag()) {
            const double a = number(-0.2, 0.2), b = number(-0.2, 0.2), c = number(-0.2, 0.2);
            const double ca = std::cos(a), sa = std::sin(a), cb = std::cos(b), sb = std::sin(b);
            const double cc = std::cos(c), sc = std::sin(c);
            const double R[9] = {cb * cc, sa * sb * cc - ca * sc, ca * sb * cc + sa * sc,
                                 cb * sc, sa * sb * sc + ca * cc, ca * sb * sc - sa * cc,
                                 -sb,     sa * cb,               ca * cb};
            for (int r = 0; r < 3; ++r) {
                for (int k = 0; k < 3; ++k) rt[r * 4 + k] = R[r * 3 + k];
                rt[r * 4 + 3] = number(-0.1, 0.1);
            }
        } else {
            for (double& v : rt) v = number(-2, 2);
        }
        return rt;
    }
    std::vector<double> poses(int count) {
        std::vector<double> out;
        for (int i = 0; i < count; ++i) {
            const std::vector<double> one = pose();
            out.insert(out.end(), one.begin(), one.end());
        }
        return out;
    }

private:
    FuzzedDataProvider bytes_;
};

}  // namespace kestor_fuzz
