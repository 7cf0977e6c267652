#include "multi/rendered_frames.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>

#include "core/image_view.h"
#include "image/gray_gradient.h"
#include "image/vertex_normal_maps.h"

namespace kestor_test {

RenderedSequence::RenderedSequence(int count, int width, int height, double motion) {
    using namespace kestor;
    camera = Camera().scaled(width, height);
    // A wide view, so that floor, ceiling and side walls all constrain the poses.
    camera.fx *= 0.6;
    camera.fy *= 0.6;
    const Scene scene = Scene::texturedRoom();
    const Pose start = Pose::fromAxisAngle({0.2, 1, 0}, 0.05, {0.1, -0.1, 0.2});
    const Intrinsics k{float(camera.fx), float(camera.fy), float(camera.cx), float(camera.cy)};
    const size_t pixels = size_t(width * height);
    for (int f = 0; f < count; ++f) {
        const Pose world = Pose::fromAxisAngle({0.3, 1, 0.1}, -0.025 * f * motion,
                                               motion * Eigen::Vector3d(0.03 * f, 0.01 * f, 0.02 * f)) * start;
        frames.push_back(scene.render(camera, world));
        truth.push_back(f == 0 ? Pose() : start.inverse() * world);
        for (auto* maps : {&vmaps, &nmaps, &grays, &gradXs, &gradYs})
            maps->emplace_back(maps == &vmaps || maps == &nmaps ? 3 * pixels : pixels);
        auto view = [&](std::vector<std::vector<float>>& maps) { return packedView(maps.back().data(), width, height); };
        auto view3 = [&](std::vector<std::vector<float>>& maps) {
            return packedView(reinterpret_cast<Float3*>(maps.back().data()), width, height);
        };
        depthToVmap(k, packedView<const float>(frames.back().depth.data(), width, height), {}, view3(vmaps));
        vmapToNmap(constView(view3(vmaps)), view3(nmaps));
        calcGrayAndGradient(packedView(reinterpret_cast<const Byte3*>(frames.back().color.data()), width, height),
                            view(grays), view(gradXs), view(gradYs), 1.0, false, false);
    }
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

const RenderedSequence& rendered(int count, double motion) {
    static std::map<std::pair<int, double>, std::unique_ptr<RenderedSequence>> cache;
    auto& entry = cache[{count, motion}];
    if (!entry) entry = std::make_unique<RenderedSequence>(count, 80, 60, motion);
    return *entry;
}

std::vector<double> runVmapNmap(const RenderedSequence& s, unsigned mode, std::vector<double> rts,
                                bool parallel, int iterations) {
    auto v = pointers(s.vmaps), n = pointers(s.nmaps), g = pointers(s.grays),
         gx = pointers(s.gradXs), gy = pointers(s.gradYs);
    const std::vector<double> K = s.camera.matrix();
    EXPECT_EQ(KESTORMatchMultiVmapNmap(v.data(), mode & Normals ? n.data() : nullptr, mode & Gray ? g.data() : nullptr,
                                       mode & GradX ? gx.data() : nullptr, mode & GradY ? gy.data() : nullptr, 80,
                                       60, K.data(), rts.data(), int(s.truth.size()), iterations, 0.2, 0.5, 0.2,
                                       0.3, 0, parallel, false, nullptr, nullptr),
              KESTOR_STATUS_OK);
    return rts;
}

void expectRecovered(const RenderedSequence& s, const std::vector<double>& start,
                     const std::vector<double>& out, double maxRotation, double maxTranslation) {
    EXPECT_EQ(std::memcmp(start.data(), out.data(), 12 * sizeof(double)), 0) << "frame 0 moved";
    for (size_t k = 0; k < s.truth.size(); ++k) {
        const Pose p = Pose::fromMatrix(&out[12 * k]);
        EXPECT_LT(rotationError(p, s.truth[k]), maxRotation) << "frame " << k;
        EXPECT_LT(translationError(p, s.truth[k]), maxTranslation) << "frame " << k;
    }
}

void expectNear(const std::vector<double>& a, const std::vector<double>& b, double tolerance) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t e = 0; e < a.size(); ++e) EXPECT_NEAR(a[e], b[e], tolerance) << "element " << e;
}

}  // namespace kestor_test
