#include "io/rgbd_sequence.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace kestor_io {

namespace {

bool fileExists(const std::string& path) { return std::ifstream(path).good(); }

void poseFromRow(const std::vector<std::string>& row, size_t first, double pose[12]) {
    const double t[3] = {std::stod(row[first]), std::stod(row[first + 1]), std::stod(row[first + 2])};
    poseFromQuaternion(t, std::stod(row[first + 3]), std::stod(row[first + 4]),
                       std::stod(row[first + 5]), std::stod(row[first + 6]), pose);
}

}  // namespace

std::vector<std::vector<std::string>> readRows(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot open " + path);
    std::vector<std::vector<std::string>> rows;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::vector<std::string> row;
        std::string f;
        while (fields >> f) row.push_back(f);
        if (!row.empty()) rows.push_back(row);
    }
    return rows;
}

// The files print about 7 digits, so their rotations are orthonormal only to about 1e-4, which
// alone would read as a degree of rotation error: Gram-Schmidt on the rows.
void orthonormalisePose(double pose[12]) {
    double* r[3] = {pose, pose + 4, pose + 8};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < i; ++j) {
            const double d = r[i][0] * r[j][0] + r[i][1] * r[j][1] + r[i][2] * r[j][2];
            for (int k = 0; k < 3; ++k) r[i][k] -= d * r[j][k];
        }
        const double n = std::sqrt(r[i][0] * r[i][0] + r[i][1] * r[i][1] + r[i][2] * r[i][2]);
        for (int k = 0; k < 3; ++k) r[i][k] /= n;
    }
}

void poseFromQuaternion(const double t[3], double qx, double qy, double qz, double qw,
                        double pose[12]) {
    const double n = std::sqrt(qx * qx + qy * qy + qz * qz + qw * qw);
    qx /= n, qy /= n, qz /= n, qw /= n;
    const double R[9] = {1 - 2 * (qy * qy + qz * qz), 2 * (qx * qy - qz * qw), 2 * (qx * qz + qy * qw),
                         2 * (qx * qy + qz * qw), 1 - 2 * (qx * qx + qz * qz), 2 * (qy * qz - qx * qw),
                         2 * (qx * qz - qy * qw), 2 * (qy * qz + qx * qw), 1 - 2 * (qx * qx + qy * qy)};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) pose[r * 4 + c] = R[r * 3 + c];
        pose[r * 4 + 3] = t[r];
    }
}

RgbdSequence readTumSequence(const std::string& dir) {
    RgbdSequence seq;
    if (fileExists(dir + "/intrinsics.txt")) {
        const auto rows = readRows(dir + "/intrinsics.txt");
        if (rows.empty() || rows[0].size() < 7) throw std::runtime_error("bad intrinsics in " + dir);
        seq.fx = std::stod(rows[0][0]);
        seq.fy = std::stod(rows[0][1]);
        seq.cx = std::stod(rows[0][2]);
        seq.cy = std::stod(rows[0][3]);
        seq.width = std::stoi(rows[0][4]);
        seq.height = std::stoi(rows[0][5]);
        seq.depthUnitsPerMetre = std::stod(rows[0][6]);
    }
    std::map<std::string, std::vector<std::string>> truth;
    if (fileExists(dir + "/groundtruth.txt"))
        for (auto& row : readRows(dir + "/groundtruth.txt"))
            if (row.size() >= 8) truth[row[0]] = row;
    for (const auto& row : readRows(dir + "/associations.txt")) {
        if (row.size() < 4) continue;
        RgbdFrame f;
        f.depthPath = dir + "/" + row[1];
        f.colorPath = dir + "/" + row[3];
        if (row.size() >= 12) {
            poseFromRow(row, 5, f.cameraToWorld);
            f.hasPose = true;
        } else if (truth.count(row[0])) {
            poseFromRow(truth[row[0]], 1, f.cameraToWorld);
            f.hasPose = true;
        }
        seq.frames.push_back(f);
    }
    return seq;
}

RgbdSequence readSevenScenes(const std::string& dir, int maxFrames) {
    RgbdSequence seq;
    seq.fx = seq.fy = 585.0;
    seq.cx = 320.0;
    seq.cy = 240.0;
    seq.depthUnitsPerMetre = 1000.0;
    for (int i = 0; i < maxFrames; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/frame-%06d", i);
        const std::string base = dir + name;
        if (!fileExists(base + ".depth.png")) break;
        RgbdFrame f;
        f.depthPath = base + ".depth.png";
        std::ifstream in(base + ".pose.txt");
        double m[16];
        for (double& v : m) in >> v;
        if (in) {
            for (int k = 0; k < 12; ++k) f.cameraToWorld[k] = m[k];
            orthonormalisePose(f.cameraToWorld);
            f.hasPose = true;
        }
        seq.frames.push_back(f);
    }
    return seq;
}

void relativePose(const double a[12], const double b[12], double out[12]) {
    // a^-1 = (R^T, -R^T t)
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            double s = 0;
            for (int k = 0; k < 3; ++k) s += a[k * 4 + r] * b[k * 4 + c];
            out[r * 4 + c] = s;
        }
        double s = 0;
        for (int k = 0; k < 3; ++k) s += a[k * 4 + r] * (b[k * 4 + 3] - a[k * 4 + 3]);
        out[r * 4 + 3] = s;
    }
}

void poseDifference(const double a[12], const double b[12], double& degrees, double& metres) {
    double d[12];
    relativePose(a, b, d);
    const double c = std::min(1.0, std::max(-1.0, (d[0] + d[5] + d[10] - 1.0) / 2.0));
    degrees = std::acos(c) * 180.0 / M_PI;
    metres = std::sqrt(d[3] * d[3] + d[7] * d[7] + d[11] * d[11]);
}

}  // namespace kestor_io
