#include <algorithm>
#include <memory>

#include "multi/match_multi.h"
#include "multi/point_modes.h"
#include "pair/point_set_registration.h"

namespace kestor {

namespace {

using PointMode = bool (*)(const std::vector<PointFrame>&, std::vector<RT_<double>>&,
                           const MultiOptions&, const ProgressFunc&);

constexpr int kLeafSize = 10;

}  // namespace

void matchMultiPoints(const float* const* points, const float* const* normals,
                      const float* const* intensities, const int* sizes,
                      std::vector<RT_<double>>& poses, const MultiOptions& options,
                      const ProgressFunc& progress) {
    const int count = int(poses.size());
    if (points == nullptr || sizes == nullptr || count < 2) return;
    const bool colored = normals != nullptr && intensities != nullptr;
    std::vector<std::unique_ptr<PointIndex>> indexes(static_cast<size_t>(count));
    std::vector<std::vector<float>> gradients(static_cast<size_t>(count));
    std::vector<PointFrame> frames(static_cast<size_t>(count));
    for (int f = 0; f < count; ++f) {
        PointFrame& frame = frames[size_t(f)];
        frame.count = std::max(0, sizes[f]);
        frame.points = points[f];
        if (frame.count > 0 && frame.points == nullptr) return;
        if (normals != nullptr) {
            frame.normals = normals[f];
            if (frame.count > 0 && frame.normals == nullptr) return;
        }
        if (colored) {
            frame.intensities = intensities[f];
            if (frame.count > 0 && frame.intensities == nullptr) return;
        }
        // Built one after the other on this thread: the node pool takes no lock.
        indexes[size_t(f)] = std::make_unique<PointIndex>(frame.points, frame.count, kLeafSize);
        frame.index = indexes[size_t(f)].get();
        if (colored) {
            std::vector<float>& g = gradients[size_t(f)];
            g.assign(3 * size_t(frame.count), 0.0f);
            calcPointGradient(*frame.index, frame.normals, frame.intensities, g.data(),
                              frame.count, 2.0 * options.maxDistance, options.parallel);
            frame.gradients = g.data();
        }
    }
    const PointMode mode = normals == nullptr ? alignPoints
                           : colored          ? alignPointNormalsColored
                                              : alignPointNormals;
    std::vector<RT_<double>> local(poses);
    mode(frames, local, options, progress);
    for (size_t f = 0; f < poses.size(); ++f) {
        std::copy_n(local[f].rotation, 9, poses[f].rotation);
        std::copy_n(local[f].translation, 3, poses[f].translation);
    }
}

}  // namespace kestor
