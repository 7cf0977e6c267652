#include "cli/sequence_folder.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "io/rgbd_sequence.h"

namespace kestor_cli {

namespace fs = std::filesystem;

namespace {

bool isFile(const std::string& path) {
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

double number(const std::string& text, const std::string& path) {
    try {
        size_t used = 0;
        const double v = std::stod(text, &used);
        if (used == text.size() && std::isfinite(v)) return v;
    } catch (const std::exception&) {
    }
    throw InputError("bad number '" + text + "' in " + path);
}

struct StampedPose {
    double t;
    double pose[12];
};

std::vector<StampedPose> readTumTruth(const std::string& path) {
    std::vector<StampedPose> out;
    for (const auto& row : kestor_io::readRows(path)) {
        if (row.size() < 8) throw InputError("expected 'time tx ty tz qx qy qz qw' in " + path);
        StampedPose p;
        p.t = number(row[0], path);
        const double t[3] = {number(row[1], path), number(row[2], path), number(row[3], path)};
        kestor_io::poseFromQuaternion(t, number(row[4], path), number(row[5], path),
                                      number(row[6], path), number(row[7], path), p.pose);
        out.push_back(p);
    }
    std::sort(out.begin(), out.end(), [](auto& a, auto& b) { return a.t < b.t; });
    return out;
}

// TUM's evaluation tools pair a stamp with the nearest ground truth no more than 20 ms away.
constexpr double kMaxStampDifference = 0.02;

void attachTruth(const std::vector<StampedPose>& truth, std::vector<SequenceFrame>& frames) {
    std::vector<double> frameStamps, truthStamps;
    for (const auto& f : frames) frameStamps.push_back(f.timestamp);
    for (const auto& p : truth) truthStamps.push_back(p.t);
    const std::vector<int> match = associateStamps(frameStamps, truthStamps, kMaxStampDifference);
    for (size_t i = 0; i < frames.size(); ++i) {
        if (match[i] < 0) continue;
        std::copy(truth[match[i]].pose, truth[match[i]].pose + 12, frames[i].truth);
        frames[i].hasTruth = true;
    }
}

void readTum(const std::string& dir, Sequence& seq) {
    const std::string assoc = dir + "/associations.txt";
    if (isFile(assoc)) {
        for (const auto& row : kestor_io::readRows(assoc)) {
            if (row.size() < 4)
                throw InputError("expected 'depth_time depth_file rgb_time rgb_file' in " + assoc);
            SequenceFrame f;
            f.timestamp = number(row[0], assoc);
            f.depthPath = dir + "/" + row[1];
            f.colorPath = dir + "/" + row[3];
            f.colorTimestamp = number(row[2], assoc);
            // Some association files carry the ground truth after the file names.
            if (row.size() >= 12) {
                const double t[3] = {number(row[5], assoc), number(row[6], assoc),
                                     number(row[7], assoc)};
                kestor_io::poseFromQuaternion(t, number(row[8], assoc), number(row[9], assoc),
                                              number(row[10], assoc), number(row[11], assoc),
                                              f.truth);
                f.hasTruth = true;
            }
            seq.frames.push_back(f);
        }
    } else {
        const std::string depthList = dir + "/depth.txt", colorList = dir + "/rgb.txt";
        std::vector<double> depthStamps, colorStamps;
        std::vector<std::string> depthFiles, colorFiles;
        for (const auto& row : kestor_io::readRows(depthList)) {
            if (row.size() < 2) throw InputError("expected 'time file' in " + depthList);
            depthStamps.push_back(number(row[0], depthList));
            depthFiles.push_back(row[1]);
        }
        for (const auto& row : kestor_io::readRows(colorList)) {
            if (row.size() < 2) throw InputError("expected 'time file' in " + colorList);
            colorStamps.push_back(number(row[0], colorList));
            colorFiles.push_back(row[1]);
        }
        const std::vector<int> match =
            associateStamps(depthStamps, colorStamps, kMaxStampDifference);
        for (size_t i = 0; i < depthStamps.size(); ++i) {
            if (match[i] < 0) continue;  // a depth image without colour is left out, as TUM does
            SequenceFrame f;
            f.timestamp = depthStamps[i];
            f.depthPath = dir + "/" + depthFiles[i];
            f.colorPath = dir + "/" + colorFiles[match[i]];
            f.colorTimestamp = colorStamps[size_t(match[i])];
            seq.frames.push_back(f);
        }
        std::stable_sort(seq.frames.begin(), seq.frames.end(),
                         [](auto& a, auto& b) { return a.timestamp < b.timestamp; });
    }
    if (isFile(dir + "/groundtruth.txt")) {
        for (auto& f : seq.frames) f.hasTruth = false;
        attachTruth(readTumTruth(dir + "/groundtruth.txt"), seq.frames);
    }
}

void readSevenScenes(const std::string& dir, Sequence& seq) {
    for (int i = 0;; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/frame-%06d", i);
        const std::string base = dir + name;
        if (!isFile(base + ".depth.png")) break;
        SequenceFrame f;
        f.timestamp = i / 30.0;
        f.depthPath = base + ".depth.png";
        if (isFile(base + ".color.png")) f.colorPath = base + ".color.png";
        else if (isFile(base + ".color.jpg")) f.colorPath = base + ".color.jpg";
        const std::string posePath = base + ".pose.txt";
        if (isFile(posePath)) {
            std::ifstream in(posePath);
            double m[16];
            for (double& v : m) in >> v;
            if (!in) throw InputError("expected a 4x4 matrix in " + posePath);
            std::copy(m, m + 12, f.truth);
            kestor_io::orthonormalisePose(f.truth);
            f.hasTruth = true;
        }
        seq.frames.push_back(f);
    }
}

// Camera values: the folder's, else the option's, else the layout's default.
void resolveCamera(const std::string& dir, const CameraOptions& options, Sequence& seq) {
    std::optional<double> folder[5];
    std::optional<int> width, height;
    const std::string tumFile = dir + "/intrinsics.txt", sevenFile = dir + "/camera-intrinsics.txt";
    if (seq.layout == Layout::Tum && isFile(tumFile)) {
        const auto rows = kestor_io::readRows(tumFile);
        if (rows.empty() || rows[0].size() < 4)
            throw InputError("expected 'fx fy cx cy [width height depth_scale]' in " + tumFile);
        for (int k = 0; k < 4; ++k) folder[k] = number(rows[0][k], tumFile);
        if (rows[0].size() >= 6) {
            width = int(number(rows[0][4], tumFile));
            height = int(number(rows[0][5], tumFile));
        }
        if (rows[0].size() >= 7) folder[4] = number(rows[0][6], tumFile);
    } else if (seq.layout == Layout::SevenScenes && isFile(sevenFile)) {
        const auto rows = kestor_io::readRows(sevenFile);
        if (rows.size() < 2 || rows[0].size() < 3 || rows[1].size() < 3)
            throw InputError("expected a 3x3 camera matrix in " + sevenFile);
        folder[0] = number(rows[0][0], sevenFile);
        folder[1] = number(rows[1][1], sevenFile);
        folder[2] = number(rows[0][2], sevenFile);
        folder[3] = number(rows[1][2], sevenFile);
    }
    const bool tum = seq.layout == Layout::Tum;
    const double defaults[5] = {tum ? 525.0 : 585.0, tum ? 525.0 : 585.0, tum ? 319.5 : 320.0,
                                tum ? 239.5 : 240.0, tum ? 5000.0 : 1000.0};
    const std::optional<double> given[5] = {options.fx, options.fy, options.cx, options.cy,
                                            options.depthUnitsPerMetre};
    double* target[5] = {&seq.camera.fx, &seq.camera.fy, &seq.camera.cx, &seq.camera.cy,
                         &seq.camera.depthUnitsPerMetre};
    seq.cameraSources.clear();
    for (int k = 0; k < 5; ++k) {
        const char* source = folder[k] ? "folder" : given[k] ? "option" : "default";
        *target[k] = folder[k] ? *folder[k] : given[k] ? *given[k] : defaults[k];
        seq.cameraSources.push_back(source);
        if (!(*target[k] > 0) && k != 2 && k != 3)
            throw InputError("camera value must be positive (from " + std::string(source) + ")");
    }
    seq.camera.width = width.value_or(0);
    seq.camera.height = height.value_or(0);
}

}  // namespace

bool Sequence::hasTruth() const {
    return std::any_of(frames.begin(), frames.end(), [](auto& f) { return f.hasTruth; });
}

bool Sequence::hasColor() const {
    return !frames.empty() &&
           std::all_of(frames.begin(), frames.end(), [](auto& f) { return !f.colorPath.empty(); });
}

bool Sequence::colorSynchronous() const {
    return hasColor() && std::all_of(frames.begin(), frames.end(), [](auto& f) {
               return f.colorTimestamp >= 0 && std::fabs(f.colorTimestamp - f.timestamp) < 1e-3;
           });
}

std::vector<int> associateStamps(const std::vector<double>& a, const std::vector<double>& b,
                                 double maxDifference) {
    struct Candidate {
        double difference;
        int i, j;
    };
    std::vector<int> order(b.size());
    for (size_t j = 0; j < b.size(); ++j) order[j] = int(j);
    std::sort(order.begin(), order.end(), [&](int x, int y) { return b[x] < b[y]; });
    std::vector<Candidate> candidates;
    for (size_t i = 0; i < a.size(); ++i) {
        auto lo = std::lower_bound(order.begin(), order.end(), a[i] - maxDifference,
                                   [&](int j, double v) { return b[j] < v; });
        for (; lo != order.end() && b[*lo] <= a[i] + maxDifference; ++lo)
            candidates.push_back({std::fabs(a[i] - b[*lo]), int(i), *lo});
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](auto& x, auto& y) { return x.difference < y.difference; });
    std::vector<int> match(a.size(), -1);
    std::vector<char> used(b.size(), 0);
    for (const Candidate& c : candidates) {
        if (match[c.i] >= 0 || used[c.j]) continue;
        match[c.i] = c.j;
        used[c.j] = 1;
    }
    return match;
}

Sequence openSequence(const std::string& dir, const CameraOptions& options, int maxFrames) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) throw InputError("no such folder: " + dir);
    Sequence seq;
    seq.dir = dir;
    if (isFile(dir + "/associations.txt") ||
        (isFile(dir + "/rgb.txt") && isFile(dir + "/depth.txt"))) {
        seq.layout = Layout::Tum;
        readTum(dir, seq);
    } else if (isFile(dir + "/frame-000000.depth.png")) {
        seq.layout = Layout::SevenScenes;
        readSevenScenes(dir, seq);
    } else {
        throw InputError("no RGB-D recording in " + dir +
                         " (expected associations.txt, rgb.txt and depth.txt, or "
                         "frame-000000.depth.png)");
    }
    if (maxFrames > 0 && int(seq.frames.size()) > maxFrames) seq.frames.resize(size_t(maxFrames));
    if (seq.frames.empty()) throw InputError("no frames listed in " + dir);
    for (const auto& f : seq.frames) {
        if (!isFile(f.depthPath)) throw InputError("missing depth image " + f.depthPath);
        if (!f.colorPath.empty() && !isFile(f.colorPath))
            throw InputError("missing colour image " + f.colorPath);
    }
    resolveCamera(dir, options, seq);
    return seq;
}

}  // namespace kestor_cli
