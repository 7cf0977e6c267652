#include "support/synthetic_scene.h"

#include <algorithm>
#include <cmath>

namespace kestor_test {

Camera Camera::scaled(int width_, int height_) const {
    Camera c = *this;
    const double s = double(width_) / double(width);
    c.fx *= s;
    c.fy *= s;
    c.cx = (cx + 0.5) * s - 0.5;
    c.cy = (cy + 0.5) * s - 0.5;
    c.width = width_;
    c.height = height_;
    return c;
}

Pose Pose::inverse() const {
    Pose p;
    p.R = R.transpose();
    p.t = -(p.R * t);
    return p;
}

Pose Pose::operator*(const Pose& b) const {
    Pose p;
    p.R = R * b.R;
    p.t = R * b.t + t;
    return p;
}

std::vector<double> Pose::matrix() const {
    std::vector<double> m(12);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) m[size_t(r * 4 + c)] = R(r, c);
        m[size_t(r * 4 + 3)] = t(r);
    }
    return m;
}

Pose Pose::fromMatrix(const double* m12) {
    Pose p;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) p.R(r, c) = m12[r * 4 + c];
        p.t(r) = m12[r * 4 + 3];
    }
    return p;
}

Pose Pose::fromAxisAngle(const Eigen::Vector3d& axis, double angle, const Eigen::Vector3d& t) {
    Pose p;
    if (axis.norm() > 0) p.R = Eigen::AngleAxisd(angle, axis.normalized()).toRotationMatrix();
    p.t = t;
    return p;
}

double rotationError(const Pose& a, const Pose& b) {
    const Eigen::Matrix3d d = a.R * b.R.transpose();
    const double c = std::clamp((d.trace() - 1.0) / 2.0, -1.0, 1.0);
    return std::acos(c);
}

double translationError(const Pose& a, const Pose& b) { return (a.t - b.t).norm(); }

void Scene::addPlane(const Eigen::Vector3d& point, const Eigen::Vector3d& normal, double halfU,
                     double halfV) {
    Plane p;
    p.point = point;
    p.normal = normal.normalized();
    const Eigen::Vector3d helper =
        std::abs(p.normal.x()) < 0.9 ? Eigen::Vector3d::UnitX() : Eigen::Vector3d::UnitY();
    p.axisU = p.normal.cross(helper).normalized();
    p.axisV = p.normal.cross(p.axisU);
    if (halfU > 0) p.halfU = halfU;
    if (halfV > 0) p.halfV = halfV;
    planes_.push_back(p);
}

void Scene::addBox(const Eigen::Vector3d& min, const Eigen::Vector3d& max) {
    boxes_.push_back(Box{min, max});
}

namespace {

// Distance along the ray to the plane, or infinity when it misses.
double hitPlane(const Plane& p, const Eigen::Vector3d& origin, const Eigen::Vector3d& dir) {
    const double denom = p.normal.dot(dir);
    if (std::abs(denom) < 1e-12) return INFINITY;
    const double t = p.normal.dot(p.point - origin) / denom;
    if (t <= 1e-9) return INFINITY;
    const Eigen::Vector3d local = origin + t * dir - p.point;
    if (std::abs(local.dot(p.axisU)) > p.halfU || std::abs(local.dot(p.axisV)) > p.halfV)
        return INFINITY;
    return t;
}

// Slab test against an axis-aligned box, from outside or inside.
double hitBox(const Box& b, const Eigen::Vector3d& origin, const Eigen::Vector3d& dir) {
    double near = -INFINITY, far = INFINITY;
    for (int i = 0; i < 3; ++i) {
        if (std::abs(dir(i)) < 1e-15) {
            if (origin(i) < b.min(i) || origin(i) > b.max(i)) return INFINITY;
            continue;
        }
        double t0 = (b.min(i) - origin(i)) / dir(i);
        double t1 = (b.max(i) - origin(i)) / dir(i);
        if (t0 > t1) std::swap(t0, t1);
        near = std::max(near, t0);
        far = std::min(far, t1);
    }
    if (near > far || far <= 1e-9) return INFINITY;
    return near > 1e-9 ? near : far;
}

}  // namespace

void textureAt(const Eigen::Vector3d& w, uint8_t* rgb) {
    const double r = 128 + 90 * std::sin(4.1 * w.x() + 1.3 * w.z()) * std::cos(3.3 * w.y());
    const double g = 128 + 90 * std::sin(3.7 * w.y() + 2.9 * w.z() + 0.5);
    const double b = 128 + 90 * std::cos(4.7 * w.x() - 3.1 * w.y() + 2.3 * w.z());
    rgb[0] = uint8_t(std::clamp(r, 0.0, 255.0));
    rgb[1] = uint8_t(std::clamp(g, 0.0, 255.0));
    rgb[2] = uint8_t(std::clamp(b, 0.0, 255.0));
}

Frame Scene::render(const Camera& camera, const Pose& cameraToWorld, double maxDepth) const {
    Frame f;
    f.width = camera.width;
    f.height = camera.height;
    f.depth.assign(size_t(f.width) * size_t(f.height), 0.0f);
    f.color.assign(f.depth.size() * 3, 0);
    const Eigen::Vector3d origin = cameraToWorld.t;
    for (int v = 0; v < f.height; ++v) {
        for (int u = 0; u < f.width; ++u) {
            // Ray through the pixel centre with unit z in the camera, so hit distance = depth.
            const Eigen::Vector3d rayCamera((u - camera.cx) / camera.fx, (v - camera.cy) / camera.fy,
                                            1.0);
            const Eigen::Vector3d dir = cameraToWorld.R * rayCamera;
            double best = INFINITY;
            for (const Plane& p : planes_) best = std::min(best, hitPlane(p, origin, dir));
            for (const Box& b : boxes_) best = std::min(best, hitBox(b, origin, dir));
            if (!(best < maxDepth)) continue;
            const size_t i = size_t(v) * size_t(f.width) + size_t(u);
            f.depth[i] = float(best);
            textureAt(origin + best * dir, &f.color[i * 3]);
        }
    }
    return f;
}

Scene Scene::texturedRoom() {
    Scene s;
    s.addPlane({0, 1.5, 0}, {0, -1, 0});   // floor (y down in the camera convention)
    s.addPlane({0, -1.5, 0}, {0, 1, 0});   // ceiling
    s.addPlane({0, 0, 3.0}, {0, 0, -1});   // far wall
    s.addPlane({0, 0, -3.0}, {0, 0, 1});   // back wall
    s.addPlane({-2.5, 0, 0}, {1, 0, 0});   // left wall
    s.addPlane({2.5, 0, 0}, {-1, 0, 0});   // right wall
    s.addBox({-0.8, 0.6, 1.6}, {-0.1, 1.5, 2.3});
    s.addBox({0.4, 0.2, 1.9}, {1.1, 1.5, 2.6});
    s.addBox({-1.6, -0.4, 2.2}, {-1.0, 0.3, 2.9});
    return s;
}

}  // namespace kestor_test
