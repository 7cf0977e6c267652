#pragma once
// Ray-cast rendering of simple scenes (planes, rectangles, boxes) from known camera poses, so
// tests can check the library against exact geometry instead of copied numbers.
#include <Eigen/Core>
#include <Eigen/Geometry>
#include <cstdint>
#include <limits>
#include <vector>

namespace kestor_test {

struct Camera {
    double fx = 525.0, fy = 525.0, cx = 319.5, cy = 239.5;
    int width = 640, height = 480;
    // The interface form: row-major 3x3.
    std::vector<double> matrix() const { return {fx, 0, cx, 0, fy, cy, 0, 0, 1}; }
    Camera scaled(int width_, int height_) const;  // same field of view at another size
};

// Camera-to-world rigid transform: world = R * camera + t.
struct Pose {
    Eigen::Matrix3d R = Eigen::Matrix3d::Identity();
    Eigen::Vector3d t = Eigen::Vector3d::Zero();
    Pose inverse() const;
    Pose operator*(const Pose& b) const;  // this after b
    // The interface form: 12 doubles, row-major 3x4.
    std::vector<double> matrix() const;
    static Pose fromMatrix(const double* m12);
    // Rotation from axis-angle (radians) and a translation.
    static Pose fromAxisAngle(const Eigen::Vector3d& axis, double angle, const Eigen::Vector3d& t);
};

// Rotation angle (radians) and translation length of a * b^-1: how far two poses are apart.
double rotationError(const Pose& a, const Pose& b);
double translationError(const Pose& a, const Pose& b);

// A plane through `point` with unit normal `normal`, limited to |u| <= halfU and |v| <= halfV
// along two in-plane axes (infinite by default).
struct Plane {
    Eigen::Vector3d point, normal, axisU, axisV;
    double halfU = std::numeric_limits<double>::infinity();
    double halfV = std::numeric_limits<double>::infinity();
};

struct Box {
    Eigen::Vector3d min, max;
};

struct Frame {
    int width = 0, height = 0;
    std::vector<float> depth;    // 0 where the ray hits nothing
    std::vector<uint8_t> color;  // 3 bytes a pixel, a smooth texture of the world position
};

class Scene {
public:
    void addPlane(const Eigen::Vector3d& point, const Eigen::Vector3d& normal, double halfU = -1,
                  double halfV = -1);
    void addBox(const Eigen::Vector3d& min, const Eigen::Vector3d& max);
    // Depth along the optical axis of the nearest hit at every pixel centre; maxDepth clips.
    Frame render(const Camera& camera, const Pose& cameraToWorld, double maxDepth = 20.0) const;

    // A closed room (floor, ceiling, four walls) with a few boxes inside: the textured scene of
    // the registration tests. The camera should stay inside, within 1 m of the origin.
    static Scene texturedRoom();

private:
    std::vector<Plane> planes_;
    std::vector<Box> boxes_;
};

// The texture: three smooth sinusoids of the world position, one per channel.
void textureAt(const Eigen::Vector3d& world, uint8_t* rgb);

}  // namespace kestor_test
