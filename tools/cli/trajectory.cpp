#include "cli/trajectory.h"

#include <Eigen/Dense>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "cli/sequence_folder.h"
#include "io/rgbd_sequence.h"

namespace kestor_cli {

namespace {

Eigen::Matrix4d toMatrix(const double p[12]) {
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) m(r, c) = p[r * 4 + c];
    return m;
}

// The rigid motion (no scale) that carries the columns of P closest onto those of Q in the least
// squares sense (Horn; Umeyama's sign correction keeps it a rotation).
void alignRigid(const Eigen::Matrix3Xd& P, const Eigen::Matrix3Xd& Q, Eigen::Matrix3d& R,
                Eigen::Vector3d& t) {
    const Eigen::Vector3d pMean = P.rowwise().mean(), qMean = Q.rowwise().mean();
    const Eigen::Matrix3d H = (Q.colwise() - qMean) * (P.colwise() - pMean).transpose();
    const Eigen::JacobiSVD<Eigen::Matrix3d> svd(H, Eigen::ComputeFullU | Eigen::ComputeFullV);
    Eigen::Matrix3d S = Eigen::Matrix3d::Identity();
    if (svd.matrixU().determinant() * svd.matrixV().determinant() < 0) S(2, 2) = -1;
    R = svd.matrixU() * S * svd.matrixV().transpose();
    t = qMean - R * pMean;
}

double rms(const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x * x;
    return v.empty() ? 0 : std::sqrt(s / double(v.size()));
}

}  // namespace

std::string formatTum(const std::vector<TimedPose>& poses) {
    std::string out = "# timestamp tx ty tz qx qy qz qw\n";
    char line[256];
    for (const TimedPose& p : poses) {
        Eigen::Matrix3d R;
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) R(r, c) = p.pose[r * 4 + c];
        Eigen::Quaterniond q(R);
        q.normalize();
        std::snprintf(line, sizeof line, "%.6f %.6f %.6f %.6f %.6f %.6f %.6f %.6f\n", p.timestamp,
                      p.pose[3], p.pose[7], p.pose[11], q.x(), q.y(), q.z(), q.w());
        out += line;
    }
    return out;
}

std::vector<TimedPose> readTum(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw InputError("cannot read " + path);
    std::vector<TimedPose> out;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        double v[8];
        for (double& x : v) fields >> x;
        if (!fields) throw InputError("expected 'time tx ty tz qx qy qz qw' in " + path);
        TimedPose p;
        p.timestamp = v[0];
        kestor_io::poseFromQuaternion(v + 1, v[4], v[5], v[6], v[7], p.pose);
        out.push_back(p);
    }
    return out;
}

TrajectoryErrors compareTrajectories(const std::vector<TimedPose>& estimate,
                                     const std::vector<TimedPose>& truth) {
    TrajectoryErrors e;
    std::vector<double> a, b;
    for (const auto& p : estimate) a.push_back(p.timestamp);
    for (const auto& p : truth) b.push_back(p.timestamp);
    const std::vector<int> match = associateStamps(a, b, 0.02);
    std::vector<int> used;
    for (size_t i = 0; i < estimate.size(); ++i)
        if (match[i] >= 0) used.push_back(int(i));
    e.compared = int(used.size());
    if (e.compared < 2) return e;

    Eigen::Matrix3Xd P(3, e.compared), Q(3, e.compared);
    for (int k = 0; k < e.compared; ++k) {
        const double* p = estimate[used[k]].pose;
        const double* q = truth[match[used[k]]].pose;
        P.col(k) << p[3], p[7], p[11];
        Q.col(k) << q[3], q[7], q[11];
    }
    Eigen::Matrix3d R;
    Eigen::Vector3d t;
    alignRigid(P, Q, R, t);
    const Eigen::Matrix3Xd aligned = (R * P).colwise() + t;
    std::vector<double> ate(size_t(e.compared));
    for (int k = 0; k < e.compared; ++k) {
        ate[k] = (aligned.col(k) - Q.col(k)).norm();
        for (int d = 0; d < 3; ++d) {
            e.alignedEstimate.push_back(aligned(d, k));
            e.truthPositions.push_back(Q(d, k));
        }
    }
    e.ateRmse = rms(ate);
    e.ateMax = *std::max_element(ate.begin(), ate.end());
    double sum = 0;
    for (double x : ate) sum += x;
    e.ateMean = sum / double(ate.size());
    std::vector<double> sorted = ate;
    std::sort(sorted.begin(), sorted.end());
    const size_t n = sorted.size();
    e.ateMedian = n % 2 ? sorted[n / 2] : 0.5 * (sorted[n / 2 - 1] + sorted[n / 2]);

    // Relative error of each step: (Q_i^-1 Q_j)^-1 (P_i^-1 P_j).
    std::vector<double> moved, turned;
    for (int k = 0; k + 1 < e.compared; ++k) {
        const Eigen::Matrix4d dp =
            toMatrix(estimate[used[k]].pose).inverse() * toMatrix(estimate[used[k + 1]].pose);
        const Eigen::Matrix4d dq = toMatrix(truth[match[used[k]]].pose).inverse() *
                                   toMatrix(truth[match[used[k + 1]]].pose);
        const Eigen::Matrix4d err = dq.inverse() * dp;
        moved.push_back(err.topRightCorner<3, 1>().norm());
        const double c = std::clamp((err.topLeftCorner<3, 3>().trace() - 1.0) / 2.0, -1.0, 1.0);
        turned.push_back(std::acos(c) * 180.0 / M_PI);
    }
    e.rpePairs = int(moved.size());
    e.rpeTranslationRmse = rms(moved);
    e.rpeRotationRmse = rms(turned);
    return e;
}

std::string formatReport(const std::string& name, const TrajectoryErrors& e) {
    char text[1024];
    std::snprintf(text, sizeof text,
                  "trajectory %s\n"
                  "poses compared with ground truth: %d\n"
                  "ATE RMSE (m): %.6f\n"
                  "ATE mean (m): %.6f\n"
                  "ATE median (m): %.6f\n"
                  "ATE max (m): %.6f\n"
                  "RPE frame-to-frame pairs: %d\n"
                  "RPE translation RMSE (m): %.6f\n"
                  "RPE rotation RMSE (deg): %.6f\n",
                  name.c_str(), e.compared, e.ateRmse, e.ateMean, e.ateMedian, e.ateMax,
                  e.rpePairs, e.rpeTranslationRmse, e.rpeRotationRmse);
    return text;
}

}  // namespace kestor_cli
