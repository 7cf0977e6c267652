#pragma once
// Short rendered sequences in the textured room with their maps, true poses relative to frame 0
// and perturbed starting poses: the ground truth of the joint-alignment tests, plus the calls and
// checks the test files share.
#include <vector>

#include "kestor.h"
#include "support/synthetic_scene.h"

namespace kestor_test {

// The maps a run is given besides the vertices; Colored is all of them.
enum Mode : unsigned { Point = 0, Normals = 1, Gray = 2, GradX = 4, GradY = 8, Plane = 1, Colored = 15 };

// The data of each vector, or of one member of each element.
template <typename T>
std::vector<const T*> pointers(const std::vector<std::vector<T>>& all) {
    std::vector<const T*> out;
    for (const auto& v : all) out.push_back(v.data());
    return out;
}
template <typename E, typename T>
std::vector<const T*> pointers(const std::vector<E>& all, std::vector<T> E::*member) {
    std::vector<const T*> out;
    for (const auto& e : all) out.push_back((e.*member).data());
    return out;
}

struct RenderedSequence {
    Camera camera;
    std::vector<Pose> truth;  // frame k into frame 0
    std::vector<Frame> frames;
    std::vector<std::vector<float>> vmaps, nmaps, grays, gradXs, gradYs;

    // count frames on a small arc; the camera moves by about 3 cm and 1.5 degrees a frame
    // (times motion).
    RenderedSequence(int count, int width, int height, double motion = 1.0);

    // Every frame but 0 moved off its truth by a few degrees and centimetres (times scale).
    std::vector<double> perturbedRts(double scale = 1.0) const;
    std::vector<const float*> depths() const { return pointers(frames, &Frame::depth); }
    std::vector<const unsigned char*> colors() const { return pointers(frames, &Frame::color); }
};


// 80x60 sequences, rendered once per test binary.
const RenderedSequence& rendered(int count, double motion = 1.0);

// KESTORMatchMultiVmapNmap on the sequence's maps in the given mode; expects status 0.
std::vector<double> runVmapNmap(const RenderedSequence& s, unsigned mode, std::vector<double> rts,
                                bool parallel, int iterations = 30);

// Frame 0 bit for bit as it started, every frame within the bounds of the truth.
void expectRecovered(const RenderedSequence& s, const std::vector<double>& start,
                     const std::vector<double>& out, double maxRotation, double maxTranslation);
void expectNear(const std::vector<double>& a, const std::vector<double>& b, double tolerance);

}  // namespace kestor_test
