#pragma once
// A short rendered sequence in the textured room with its maps, true poses relative to frame 0,
// and perturbed starting poses: the ground truth of the joint-alignment tests.
#include <vector>

#include "support/synthetic_scene.h"

namespace kestor_test {

struct RenderedSequence {
    Camera camera;
    std::vector<Pose> truth;       // frame k into frame 0
    std::vector<Frame> frames;
    std::vector<std::vector<float>> vmaps, nmaps, grays, gradXs, gradYs;

    // count frames on a small arc; the camera moves by about 3 cm and 1.5 degrees a frame.
    RenderedSequence(int count, int width, int height, double motion = 1.0);

    std::vector<double> truthRts() const;
    // Every frame but 0 moved off its truth by a few degrees and centimetres.
    std::vector<double> perturbedRts(double scale = 1.0) const;

    std::vector<const float*> pointers(const std::vector<std::vector<float>>& maps) const;
};

// Largest rotation (radians) and translation error of rts against the truth.
void poseErrors(const RenderedSequence& s, const std::vector<double>& rts, double& rotation,
                double& translation);

}  // namespace kestor_test
