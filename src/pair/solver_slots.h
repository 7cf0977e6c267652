#pragma once
#include <cstdint>
#include <cstring>
#include <vector>

namespace kestor {

// One slot's share of the Gauss-Newton system of a pair solver. Only the upper triangle of the
// hessian is summed per pair; the lower one is mirrored once the slots are reduced.
struct NormalEquations {
    double hessian[36];
    double gradient[6];
    double errorSum;
    int32_t matchCount;
};

// Sums over the accepted pairs of one slot, from which the photometric term takes the means and
// deviations of both kinds of residual.
struct ResidualStats {
    double sumSquaresG;
    double sumSquaresC;
    double sumG;
    double sumC;
    int32_t count;
};

// Everything one thread accumulates, on its own cache lines so that slots do not share them.
struct alignas(64) SolverSlot {
    NormalEquations equations;
    ResidualStats stats;
    double trialError;
};

inline void clearSlots(std::vector<SolverSlot>& slots) {
    std::memset(static_cast<void*>(slots.data()), 0, slots.size() * sizeof(SolverSlot));
}

// Adds every slot into slot 0, in slot order, and mirrors the hessian's upper triangle.
inline void reduceEquations(std::vector<SolverSlot>& slots) {
    NormalEquations& total = slots[0].equations;
    for (size_t s = 1; s < slots.size(); ++s) {
        const NormalEquations& e = slots[s].equations;
        for (int i = 0; i < 36; ++i) total.hessian[i] += e.hessian[i];
        for (int i = 0; i < 6; ++i) total.gradient[i] += e.gradient[i];
        total.errorSum += e.errorSum;
        total.matchCount += e.matchCount;
    }
    for (int r = 1; r < 6; ++r)
        for (int c = 0; c < r; ++c) total.hessian[r * 6 + c] = total.hessian[c * 6 + r];
}

inline void reduceStats(std::vector<SolverSlot>& slots) {
    ResidualStats& total = slots[0].stats;
    for (size_t s = 1; s < slots.size(); ++s) {
        const ResidualStats& e = slots[s].stats;
        total.sumSquaresG += e.sumSquaresG;
        total.sumSquaresC += e.sumSquaresC;
        total.sumG += e.sumG;
        total.sumC += e.sumC;
        total.count += e.count;
    }
}

inline double reduceTrialError(const std::vector<SolverSlot>& slots) {
    double sum = 0.0;
    for (const SolverSlot& s : slots) sum += s.trialError;
    return sum;
}

// Adds J J^T to the upper triangle and J r to the gradient, each product formed in double.
inline void addRow(NormalEquations& ne, const float* J, float r) {
    double j[6];
    for (int i = 0; i < 6; ++i) j[i] = double(J[i]);
    for (int i = 0; i < 6; ++i) {
        for (int k = i; k < 6; ++k) ne.hessian[i * 6 + k] += j[i] * j[k];
        ne.gradient[i] += j[i] * double(r);
    }
}

}  // namespace kestor
