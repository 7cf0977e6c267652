#include "keypoint/absolute_orientation.h"

#include <algorithm>
#include <limits>

#include <Eigen/Eigenvalues>

namespace kestor {

void calcAbsoluteOrientation(const float* targetPoints, const float* sourcePoints, int count,
                             float result[12]) {
    float cs[3] = {0, 0, 0}, ct[3] = {0, 0, 0};
    for (int k = 0; k < count; ++k) {
        for (int i = 0; i < 3; ++i) {
            cs[i] += sourcePoints[k * 3 + i];
            ct[i] += targetPoints[k * 3 + i];
        }
    }
    for (int i = 0; i < 3; ++i) {
        cs[i] /= float(count);
        ct[i] /= float(count);
    }

    // S[a][b] = sum of p_a * q_b over the centred pairs.
    float S[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    for (int k = 0; k < count; ++k) {
        float p[3], q[3];
        for (int i = 0; i < 3; ++i) {
            p[i] = sourcePoints[k * 3 + i] - cs[i];
            q[i] = targetPoints[k * 3 + i] - ct[i];
        }
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 3; ++b) S[a][b] += p[a] * q[b];
    }
    const float Sxx = S[0][0], Sxy = S[0][1], Sxz = S[0][2];
    const float Syx = S[1][0], Syy = S[1][1], Syz = S[1][2];
    const float Szx = S[2][0], Szy = S[2][1], Szz = S[2][2];

    Eigen::Matrix<float, 4, 4, Eigen::RowMajor> N;
    N << Sxx + Syy + Szz, Syz - Szy, Szx - Sxz, Sxy - Syx,
         Syz - Szy, Sxx - Syy - Szz, Sxy + Syx, Szx + Sxz,
         Szx - Sxz, Sxy + Syx, -Sxx + Syy - Szz, Syz + Szy,
         Sxy - Syx, Szx + Sxz, Syz + Szy, -Sxx - Syy + Szz;

    // The general solver, as the matrix is small; its unit eigenvector of the largest eigenvalue
    // is the rotation quaternion (w, x, y, z). The first of equal eigenvalues wins.
    Eigen::EigenSolver<Eigen::Matrix<float, 4, 4, Eigen::RowMajor>> solver(N, true);
    // NaN or infinite points leave the solver without eigenvectors: the result is NaN.
    if (solver.info() != Eigen::Success) {
        std::fill(result, result + 12, std::numeric_limits<float>::quiet_NaN());
        return;
    }
    const auto values = solver.eigenvalues();
    int best = 0;
    for (int i = 1; i < 4; ++i)
        if (values(i).real() > values(best).real()) best = i;
    // eigenvectors() returns a temporary: the column is copied out of it at once.
    const Eigen::Vector4cf v = solver.eigenvectors().col(best);
    const float w = v(0).real(), x = v(1).real(), y = v(2).real(), z = v(3).real();

    float* R = result;
    R[0] = w * w + x * x - y * y - z * z;
    R[1] = 2 * (x * y - w * z);
    R[2] = 2 * (x * z + w * y);
    R[3] = 2 * (x * y + w * z);
    R[4] = w * w - x * x + y * y - z * z;
    R[5] = 2 * (y * z - w * x);
    R[6] = 2 * (x * z - w * y);
    R[7] = 2 * (y * z + w * x);
    R[8] = w * w - x * x - y * y + z * z;
    for (int i = 0; i < 3; ++i)
        result[9 + i] = ct[i] - (R[i * 3 + 0] * cs[0] + R[i * 3 + 1] * cs[1] + R[i * 3 + 2] * cs[2]);
}

}  // namespace kestor
