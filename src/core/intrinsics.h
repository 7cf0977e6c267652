#pragma once

namespace kestor {

// Camera numbers as the workers take them, narrowed from the interface doubles.
struct Intrinsics {
    float fx, fy, cx, cy;
};

// The interface camera is a row-major 3x3 matrix; only fx, fy, cx, cy are read, in that order.
inline Intrinsics intrinsicsFromMatrix(const double* K) {
    Intrinsics k;
    k.fx = float(K[0]);
    k.fy = float(K[4]);
    k.cx = float(K[2]);
    k.cy = float(K[5]);
    return k;
}

// The camera of pyramid level l: every number times 1 / 2^l, with no half-pixel correction.
inline Intrinsics scaledIntrinsics(const Intrinsics& k, int level) {
    const float s = 1.0f / float(1 << level);
    return Intrinsics{k.fx * s, k.fy * s, k.cx * s, k.cy * s};
}

}  // namespace kestor
