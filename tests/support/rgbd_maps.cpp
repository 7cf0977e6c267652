#include "support/rgbd_maps.h"

#include "image/vertex_normal_maps.h"

namespace kestor_test {

using kestor::ImageView;

kestor::Intrinsics intrinsicsOf(const Camera& c) {
    return kestor::Intrinsics{float(c.fx), float(c.fy), float(c.cx), float(c.cy)};
}

namespace {

void centralGradients(LevelMaps& m) {
    const int w = m.width, h = m.height;
    m.gradX.assign(m.gray.size(), 0.0f);
    m.gradY.assign(m.gray.size(), 0.0f);
    auto g = [&](int x, int y) { return m.gray[size_t(y) * size_t(w) + size_t(x)]; };
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t i = size_t(y) * size_t(w) + size_t(x);
            m.gradX[i] = x == 0       ? 2 * (g(1, y) - g(0, y))
                         : x == w - 1 ? 2 * (g(w - 1, y) - g(w - 2, y))
                                      : g(x + 1, y) - g(x - 1, y);
            m.gradY[i] = y == 0       ? 2 * (g(x, 1) - g(x, 0))
                         : y == h - 1 ? 2 * (g(x, h - 1) - g(x, h - 2))
                                      : g(x, y + 1) - g(x, y - 1);
        }
    }
}

}  // namespace

std::vector<LevelMaps> buildLevels(const Camera& camera, const Frame& frame, int levels) {
    std::vector<LevelMaps> out(static_cast<size_t>(levels));
    LevelMaps& base = out[0];
    base.width = frame.width;
    base.height = frame.height;
    const size_t n = size_t(frame.width) * size_t(frame.height);
    base.vmap.resize(n);
    base.nmap.resize(n);
    base.gray.resize(n);
    kestor::depthToVmap(intrinsicsOf(camera), kestor::packedView(frame.depth.data(), base.width, base.height),
                        ImageView<const uint8_t>{},
                        kestor::packedView(base.vmap.data(), base.width, base.height));
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* c = &frame.color[i * 3];
        base.gray[i] = (c[0] * 0.299f + c[1] * 0.587f + c[2] * 0.114f) / 255.0f;
    }
    for (int l = 1; l < levels; ++l) {
        const LevelMaps& fine = out[size_t(l - 1)];
        LevelMaps& m = out[size_t(l)];
        m.width = fine.width / 2;
        m.height = fine.height / 2;
        m.vmap.resize(size_t(m.width) * size_t(m.height));
        m.nmap.resize(m.vmap.size());
        m.gray.resize(m.vmap.size());
        for (int y = 0; y < m.height; ++y) {
            for (int x = 0; x < m.width; ++x) {
                const size_t from = size_t(2 * y) * size_t(fine.width) + size_t(2 * x);
                m.vmap[size_t(y) * size_t(m.width) + size_t(x)] = fine.vmap[from];
                m.gray[size_t(y) * size_t(m.width) + size_t(x)] = fine.gray[from];
            }
        }
    }
    for (LevelMaps& m : out) {
        m.nmap.resize(m.vmap.size());
        kestor::vmapToNmap(m.vertices(), kestor::packedView(m.nmap.data(), m.width, m.height));
        centralGradients(m);
    }
    return out;
}

std::vector<double> relativePose(const Pose& cameraToWorld1, const Pose& cameraToWorld2) {
    return (cameraToWorld1.inverse() * cameraToWorld2).matrix();
}

}  // namespace kestor_test
