#include "multi/rendered_frames.h"

#include <algorithm>
#include <cmath>

#include "core/image_view.h"
#include "image/vertex_normal_maps.h"

namespace kestor_test {

namespace {

// Gray as the library weighs the bytes, lightly smoothed, and its slope per pixel.
void grayAndGradient(const Frame& f, std::vector<float>& gray, std::vector<float>& gx,
                     std::vector<float>& gy) {
    const int w = f.width, h = f.height;
    std::vector<float> raw(size_t(w * h));
    for (int i = 0; i < w * h; ++i) {
        const uint8_t* c = &f.color[size_t(3 * i)];
        raw[size_t(i)] = (c[0] * 0.299f + c[1] * 0.587f + c[2] * 0.114f) / 255.0f;
    }
    gray.assign(size_t(w * h), 0.0f);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float sum = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx)
                    sum += raw[size_t(std::clamp(y + dy, 0, h - 1) * w + std::clamp(x + dx, 0, w - 1))];
            gray[size_t(y * w + x)] = sum / 9.0f;
        }
    gx.assign(size_t(w * h), 0.0f);
    gy.assign(size_t(w * h), 0.0f);
    for (int y = 1; y < h - 1; ++y)
        for (int x = 1; x < w - 1; ++x) {
            gx[size_t(y * w + x)] = 0.5f * (gray[size_t(y * w + x + 1)] - gray[size_t(y * w + x - 1)]);
            gy[size_t(y * w + x)] = 0.5f * (gray[size_t((y + 1) * w + x)] - gray[size_t((y - 1) * w + x)]);
        }
}

}  // namespace

RenderedSequence::RenderedSequence(int count, int width, int height, double motion) {
    camera = Camera().scaled(width, height);
    // A wide view, so that floor, ceiling and side walls all constrain the poses.
    camera.fx *= 0.6;
    camera.fy *= 0.6;
    const Scene scene = Scene::texturedRoom();
    const Pose start = Pose::fromAxisAngle({0.2, 1, 0}, 0.05, {0.1, -0.1, 0.2});
    for (int k = 0; k < count; ++k) {
        const Pose world = Pose::fromAxisAngle({0.3, 1, 0.1}, -0.025 * k * motion,
                                               motion * Eigen::Vector3d(0.03 * k, 0.01 * k, 0.02 * k)) * start;
        frames.push_back(scene.render(camera, world));
        truth.push_back(k == 0 ? Pose() : start.inverse() * world);
    }
    const kestor::Intrinsics k{float(camera.fx), float(camera.fy), float(camera.cx), float(camera.cy)};
    for (const Frame& f : frames) {
        std::vector<float> v(size_t(3 * width * height)), n(v.size());
        auto vview = kestor::packedView(reinterpret_cast<kestor::Float3*>(v.data()), width, height);
        kestor::depthToVmap(k, kestor::packedView(f.depth.data(), width, height),
                            kestor::ImageView<const uint8_t>{}, vview);
        kestor::vmapToNmap(kestor::constView(vview),
                           kestor::packedView(reinterpret_cast<kestor::Float3*>(n.data()), width, height));
        vmaps.push_back(std::move(v));
        nmaps.push_back(std::move(n));
        std::vector<float> g, gx, gy;
        grayAndGradient(f, g, gx, gy);
        grays.push_back(std::move(g));
        gradXs.push_back(std::move(gx));
        gradYs.push_back(std::move(gy));
    }
}

std::vector<double> RenderedSequence::truthRts() const {
    std::vector<double> rts;
    for (const Pose& p : truth) {
        const std::vector<double> m = p.matrix();
        rts.insert(rts.end(), m.begin(), m.end());
    }
    return rts;
}

std::vector<double> RenderedSequence::perturbedRts(double scale) const {
    std::vector<double> rts;
    for (size_t k = 0; k < truth.size(); ++k) {
        Pose p = truth[k];
        if (k > 0) {
            const double sign = (k % 2) ? 1.0 : -1.0;
            p = Pose::fromAxisAngle({1, sign * 0.5, 0.3}, scale * 0.035,
                                    {scale * 0.03 * sign, -scale * 0.02, scale * 0.025}) * p;
        }
        const std::vector<double> m = p.matrix();
        rts.insert(rts.end(), m.begin(), m.end());
    }
    return rts;
}

std::vector<const float*> RenderedSequence::pointers(const std::vector<std::vector<float>>& maps) const {
    std::vector<const float*> out;
    for (const auto& m : maps) out.push_back(m.data());
    return out;
}

void poseErrors(const RenderedSequence& s, const std::vector<double>& rts, double& rotation,
                double& translation) {
    rotation = translation = 0;
    for (size_t k = 0; k < s.truth.size(); ++k) {
        const Pose p = Pose::fromMatrix(&rts[12 * k]);
        rotation = std::max(rotation, rotationError(p, s.truth[k]));
        translation = std::max(translation, translationError(p, s.truth[k]));
    }
}

}  // namespace kestor_test
