#pragma once
// Vertex, normal, gray and gradient maps of rendered frames, level by level, for the registration
// tests. Vertices and normals come from the library; gray is the luminance of the colour and the
// gradients are central differences without the halving, as the library's pyramid makes them.
#include <vector>

#include "core/image_view.h"
#include "core/intrinsics.h"
#include "support/synthetic_scene.h"

namespace kestor_test {

struct LevelMaps {
    int width = 0, height = 0;
    std::vector<kestor::Float3> vmap, nmap;
    std::vector<float> gray, gradX, gradY;

    kestor::ImageView<const kestor::Float3> vertices() const { return view(vmap); }
    kestor::ImageView<const kestor::Float3> normals() const { return view(nmap); }
    kestor::ImageView<const float> grayView() const { return view(gray); }
    kestor::ImageView<const float> gradXView() const { return view(gradX); }
    kestor::ImageView<const float> gradYView() const { return view(gradY); }
    template <typename T>
    kestor::ImageView<const T> view(const std::vector<T>& plane) const {
        return kestor::packedView(plane.data(), width, height);
    }
};

kestor::Intrinsics intrinsicsOf(const Camera& camera);

// Level 0 from the frame, each coarser level sampled 2:1 from the one before.
std::vector<LevelMaps> buildLevels(const Camera& camera, const Frame& frame, int levels);

// The pose that maps frame 2's camera coordinates into frame 1's, as 12 interface doubles.
std::vector<double> relativePose(const Pose& cameraToWorld1, const Pose& cameraToWorld2);

}  // namespace kestor_test
