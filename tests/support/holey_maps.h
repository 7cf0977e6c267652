#pragma once
// Small vertex, normal and gray maps, 19 pixels wide (two blocks of eight and a tail), with every
// kind of hole a compaction must tell apart at shifting lanes: z of 0, negative and NaN, a normal
// of (0, 0, 0) beside normals with one or two zero components, and a whole empty block.
#include <cmath>
#include <vector>

#include "core/image_view.h"

namespace kestor_test {

struct HoleyMaps {
    static constexpr int W = 19, H = 3;
    std::vector<kestor::Float3> vmap = std::vector<kestor::Float3>(W * H);
    std::vector<kestor::Float3> nmap = std::vector<kestor::Float3>(W * H);
    std::vector<float> gray = std::vector<float>(W * H);

    HoleyMaps() {
        for (int i = 0; i < W * H; ++i) {
            vmap[size_t(i)] = kestor::Float3{float(i), -float(i), 1.0f + float(i)};
            nmap[size_t(i)] = kestor::Float3{0.0f, float(i % 2), -1.0f};
            gray[size_t(i)] = 0.5f * float(i);
        }
        for (int i : {0, 5, 11, 16, 30, 45, 56}) vmap[size_t(i)].z = 0.0f;
        for (int i : {7, 33}) vmap[size_t(i)].z = -1.0f;
        vmap[8].z = std::nanf("");
        for (int i : {3, 13, 17, 40}) nmap[size_t(i)] = kestor::Float3{0, 0, 0};
        for (int i = W; i < W + 8; ++i) vmap[size_t(i)].z = 0.0f;  // the first block of row 1
    }

    // The first `rows` rows as views.
    kestor::ImageView<const kestor::Float3> vertices(int rows = H) const { return kestor::packedView(vmap.data(), W, rows); }
    kestor::ImageView<const kestor::Float3> normals(int rows = H) const { return kestor::packedView(nmap.data(), W, rows); }
    kestor::ImageView<const float> grays(int rows = H) const { return kestor::packedView(gray.data(), W, rows); }

    bool zeroNormal(int i) const {
        const kestor::Float3& n = nmap[size_t(i)];
        return n.x == 0.0f && n.y == 0.0f && n.z == 0.0f;
    }
};

}  // namespace kestor_test
