#include "multi/align_frames.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "core/log.h"
#include "core/parallel_for.h"
#include "pair/solve_dense.h"

namespace kestor {

namespace {

struct PairTerms {
    PairBlock hessianII, hessianIJ, hessianJJ;
    PairVector gradientI, gradientJ;
};

// Everything one run keeps between its steps.
class JointSystem {
public:
    JointSystem(const PairLinearize& linearize, const PairEvaluate& evaluate, int frameCount,
                bool parallel)
        : linearize_(linearize), evaluate_(evaluate), order_(6 * (frameCount - 1)),
          parallel_(parallel) {
        for (int i = 1; i < frameCount; ++i)
            for (int j = 0; j < i; ++j) pairs_.emplace_back(i, j);
        active_.assign(pairs_.size(), 1);
        errors_.assign(pairs_.size(), 0.0);
        terms_.resize(pairs_.size());
        hessian_.resize(size_t(order_) * size_t(order_));
        gradient_.resize(size_t(order_));
    }

    void announce(const PairsChanged& pairsChanged) const {
        if (pairsChanged) pairsChanged(pairs_.data(), active_.data(), int(pairs_.size()));
    }

    void linearizeAll(const RT_<double>* poses) {
        runLoop(parallel_, 0, int(pairs_.size()), [&](int begin, int end, int) {
            for (int k = begin; k < end; ++k) {
                PairTerms& t = terms_[size_t(k)];
                std::memset(&t, 0, sizeof(t));
                if (!active_[size_t(k)]) continue;
                const int i = pairs_[size_t(k)].first, j = pairs_[size_t(k)].second;
                const double error = linearize_(i, j, poses[i], poses[j], t.hessianII,
                                                t.hessianIJ, t.hessianJJ, t.gradientI,
                                                t.gradientJ);
                if (!std::isfinite(error))
                    active_[size_t(k)] = 0;
                else
                    errors_[size_t(k)] = error;
            }
        });
    }

    // Adds the active pairs' blocks into the dense system; returns their summed error.
    double assemble() {
        std::fill(hessian_.begin(), hessian_.end(), 0.0);
        std::fill(gradient_.begin(), gradient_.end(), 0.0);
        double cost = 0.0;
        for (size_t k = 0; k < pairs_.size(); ++k) {
            if (!active_[k]) continue;
            cost += errors_[k];
            const PairTerms& t = terms_[k];
            const int i = pairs_[k].first, j = pairs_[k].second;
            addBlock(i, i, t.hessianII, false);
            addSegment(i, t.gradientI);
            if (j >= 1) {
                addBlock(j, j, t.hessianJJ, false);
                addSegment(j, t.gradientJ);
                addBlock(i, j, t.hessianIJ, false);
                addBlock(j, i, t.hessianIJ, true);
            }
        }
        return cost;
    }

    // Erases the pairs that are not active; what remains is all active.
    void dropInactive() {
        size_t kept = 0;
        for (size_t k = 0; k < pairs_.size(); ++k) {
            if (!active_[k]) continue;
            pairs_[kept] = pairs_[k];
            errors_[kept] = errors_[k];
            terms_[kept] = terms_[k];
            ++kept;
        }
        pairs_.resize(kept);
        errors_.resize(kept);
        terms_.resize(kept);
        active_.assign(kept, 1);
    }

    void reactivateAll() { std::fill(active_.begin(), active_.end(), 1); }

    // Errors of the active pairs at the candidate poses, summed in pair order.
    double evaluateAll(const RT_<double>* candidates) {
        runLoop(parallel_, 0, int(pairs_.size()), [&](int begin, int end, int) {
            for (int k = begin; k < end; ++k) {
                if (!active_[size_t(k)]) continue;
                const int i = pairs_[size_t(k)].first, j = pairs_[size_t(k)].second;
                errors_[size_t(k)] = evaluate_(i, j, candidates[i], candidates[j]);
            }
        });
        double sum = 0.0;
        for (size_t k = 0; k < pairs_.size(); ++k)
            if (active_[k]) sum += errors_[k];
        return sum;
    }

    int order() const { return order_; }
    const std::vector<double>& hessian() const { return hessian_; }
    const std::vector<double>& gradient() const { return gradient_; }

private:
    // Frame 0 has no place in the system; frame k >= 1 owns rows and columns 6(k-1) .. 6k-1.
    void addBlock(int row, int col, const PairBlock& block, bool transposed) {
        const size_t r0 = size_t(6 * (row - 1)), c0 = size_t(6 * (col - 1));
        for (size_t a = 0; a < 6; ++a)
            for (size_t b = 0; b < 6; ++b)
                hessian_[(r0 + a) * size_t(order_) + c0 + b] +=
                    transposed ? block[b][a] : block[a][b];
    }
    void addSegment(int frame, const PairVector& v) {
        for (int a = 0; a < 6; ++a) gradient_[size_t(6 * (frame - 1) + a)] += v[a];
    }

    const PairLinearize& linearize_;
    const PairEvaluate& evaluate_;
    const int order_;
    const bool parallel_;
    std::vector<FramePair> pairs_;
    std::vector<unsigned char> active_;
    std::vector<double> errors_;
    std::vector<PairTerms> terms_;
    std::vector<double> hessian_, gradient_;
};

// The correction of one frame from its six solved values: the angles and translations negated,
// the rotation built exactly from the angles.
RT_<double> correctionOf(const double* s) {
    RT_<double> d;
    eulerToRotation(-s[0], -s[1], -s[2], d.rotation);
    d.translation[0] = -s[3];
    d.translation[1] = -s[4];
    d.translation[2] = -s[5];
    return d;
}

}  // namespace

bool alignFrames(const PairLinearize& linearize, const PairEvaluate& evaluate, RT_<double>* poses,
                 int frameCount, int iterations, int refreshInterval, bool log, bool onRight,
                 const ProgressFunc& progress, const PairsChanged& pairsChanged, bool parallel) {
    if (poses == nullptr || frameCount < 2 || iterations < 1) return false;
    bool cancel = false;
    auto report = [&](int percent) {
        if (progress) progress(percent, cancel);
        return cancel;
    };
    if (report(0)) return false;

    JointSystem system(linearize, evaluate, frameCount, parallel);
    system.announce(pairsChanged);
    system.linearizeAll(poses);
    double cost = system.assemble();
    if (refreshInterval == 0) system.dropInactive();

    const int n = system.order();
    const std::vector<double>& hessian = system.hessian();
    const std::vector<double>& gradient = system.gradient();
    std::vector<double> damped(hessian.size()), step(static_cast<size_t>(n));
    std::vector<RT_<double>> candidates(static_cast<size_t>(frameCount));
    double mu = 1e-6, nu = 2.0;
    bool done = false;
    for (int iteration = 0; !done && iteration < iterations; ++iteration) {
        if (report((100 * iteration) / iterations)) return false;
        damped = hessian;
        for (int d = 0; d < n; ++d) damped[size_t(d) * size_t(n + 1)] *= 1.0 + mu;
        solveDense(damped.data(), gradient.data(), step.data(), n);
        double gain = 0.0;
        for (int d = 0; d < n; ++d) {
            const double h = hessian[size_t(d) * size_t(n + 1)];
            gain += step[size_t(d)] * (gradient[size_t(d)] - mu * h * step[size_t(d)]);
        }
        if (std::isnan(gain)) return false;
        if (std::abs(gain) < 1e-6) break;

        candidates[0] = poses[0];
        for (int k = 1; k < frameCount; ++k) {
            const RT_<double> d = correctionOf(&step[size_t(6 * (k - 1))]);
            if (onRight)
                composeRT(poses[k], d, candidates[size_t(k)]);
            else
                composeRT(d, poses[k], candidates[size_t(k)]);
        }
        const double newCost = system.evaluateAll(candidates.data());
        const double drop = cost - newCost;
        const double rho = drop / std::abs(gain);
        double scale;
        if (rho > 0) {
            nu = 2.0;
            const double c = 2.0 * rho - 1.0;
            scale = std::max(1.0 / 3.0, std::min(2.0 / 3.0, 1.0 - c * c * c));
            done = cost * 1e-6 >= drop;
            if (log)
                KESTOR_LOG("%04d Iter: %14.7lf %14.7lf %14.7lf %14.7lf\n", iteration, cost,
                           newCost, drop, gain);
            if (iteration != 0 && refreshInterval > 0 && iteration % refreshInterval == 0)
                system.reactivateAll();
            std::copy(candidates.begin(), candidates.end(), poses);
            system.announce(pairsChanged);
            system.linearizeAll(poses);
            cost = system.assemble();
        } else {
            if (log) KESTOR_LOG("%04d Iter: %14.7lf %14.7lf %14.7lf\n", iteration, cost, newCost, drop);
            scale = nu;
            nu *= 2.0;
        }
        mu *= scale;
    }
    return !report(100);
}

}  // namespace kestor
