#pragma once
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/normal_rows.h"
#include "pair/residual_scale.h"

namespace kestor {

// One slot's share of the Gauss-Newton system of a pair solver. Only the upper triangle of the
// hessian is summed per pair; the lower one is mirrored once the slots are reduced.
struct NormalEquations {
    double hessian[36];
    double gradient[6];
    double errorSum;
    int32_t matchCount;
};

// Everything one thread accumulates (its ResidualStats are the sums over its accepted pairs, from
// which the photometric term takes the means and deviations of both kinds of residual), on its own cache lines so that slots do not share them.
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
    mirrorUpper<6>(total.hessian);
}

inline void reduceStats(std::vector<SolverSlot>& slots) {
    ResidualStats& total = slots[0].stats;
    for (size_t s = 1; s < slots.size(); ++s) addStats(total, slots[s].stats);
}

inline double reduceTrialError(const std::vector<SolverSlot>& slots) {
    double sum = 0.0;
    for (const SolverSlot& s : slots) sum += s.trialError;
    return sum;
}

// Adds J J^T to the upper triangle and J r to the gradient, each product formed in double.
inline void addRow(NormalEquations& ne, const float* J, float r) {
    addNormalRow<6>(ne.hessian, ne.gradient, J, r);
}

}  // namespace kestor
