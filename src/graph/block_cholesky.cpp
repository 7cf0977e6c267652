// The factorisation runs on the caller's thread: Eigen's products here must not start an OpenMP
// team of their own.
#define EIGEN_DONT_PARALLELIZE
#include "graph/block_cholesky.h"

#include <Eigen/Cholesky>
#include <Eigen/OrderingMethods>
#include <algorithm>

namespace kestor {

namespace {

constexpr int kBlock = 6;

using Strided = Eigen::Map<Eigen::MatrixXd, 0, Eigen::OuterStride<>>;
using ConstStrided = Eigen::Map<const Eigen::MatrixXd, 0, Eigen::OuterStride<>>;

}  // namespace

void BlockCholesky::analyze(int blockCount, const std::vector<NodePair>& pairs) {
    const int n = blockCount;
    blockCount_ = n;
    std::vector<std::vector<int>> neighbours{size_t(n)};
    std::vector<Eigen::Triplet<double>> pattern;
    for (int k = 0; k < n; ++k) pattern.emplace_back(k, k, 1.0);
    for (const NodePair& p : pairs) {
        if (p.first < 0 || p.first >= n || p.second < 0 || p.second >= n || p.first == p.second)
            continue;
        neighbours[size_t(p.first)].push_back(p.second);
        neighbours[size_t(p.second)].push_back(p.first);
        pattern.emplace_back(p.first, p.second, 1.0);
        pattern.emplace_back(p.second, p.first, 1.0);
    }

    // Minimum-degree ordering of the poses; each block keeps its six unknowns together.
    Eigen::SparseMatrix<double> blocks(n, n);
    blocks.setFromTriplets(pattern.begin(), pattern.end());
    Eigen::PermutationMatrix<Eigen::Dynamic, Eigen::Dynamic, int> order;
    Eigen::AMDOrdering<int>()(blocks, order);
    oldOf_.assign(order.indices().data(), order.indices().data() + n);
    newOf_.assign(size_t(n), 0);
    for (int k = 0; k < n; ++k) newOf_[size_t(oldOf_[size_t(k)])] = k;

    // Rows of each column of the factor below the diagonal, and the elimination tree: a column's
    // rows are its own below the diagonal and those of its children, the parent is the first.
    std::vector<std::vector<int>> below{size_t(n)}, children{size_t(n)};
    std::vector<int> parent(size_t(n), -1);
    for (int j = 0; j < n; ++j) {
        std::vector<int>& s = below[size_t(j)];
        for (int o : neighbours[size_t(oldOf_[size_t(j)])])
            if (newOf_[size_t(o)] > j) s.push_back(newOf_[size_t(o)]);
        for (int c : children[size_t(j)])
            for (int r : below[size_t(c)])
                if (r > j) s.push_back(r);
        std::sort(s.begin(), s.end());
        s.erase(std::unique(s.begin(), s.end()), s.end());
        if (!s.empty()) {
            parent[size_t(j)] = s[0];
            children[size_t(s[0])].push_back(j);
        }
    }

    // Supernodes: runs of columns each of which is the parent of the one before. Their rows are
    // those of the last column, which hold the rows of the others, so merging stores some zeros;
    // a run grows while few enough of its entries are such zeros.
    supernodes_.clear();
    rows_.clear();
    supernodeOf_.assign(size_t(n), 0);
    size_t values = 0;
    for (int j = 0; j < n;) {
        int last = j;
        double nonzeros = double(below[size_t(j)].size() + 1);
        while (last + 1 < n && parent[size_t(last)] == last + 1) {
            const double columns = last + 2 - j;
            const double rows = columns + double(below[size_t(last + 1)].size());
            const double stored = columns * rows - columns * (columns - 1) / 2;
            const double grown = nonzeros + double(below[size_t(last + 1)].size() + 1);
            const double zeroShare = (stored - grown) / stored;
            if (!(columns <= 4 || (columns <= 16 && zeroShare < 0.1) || zeroShare < 0.05)) break;
            nonzeros = grown;
            ++last;
        }
        Supernode s;
        s.firstColumn = j;
        s.columnCount = last - j + 1;
        s.rowStart = int(rows_.size());
        for (int c = j; c <= last; ++c) {
            rows_.push_back(c);
            supernodeOf_[size_t(c)] = int(supernodes_.size());
        }
        rows_.insert(rows_.end(), below[size_t(last)].begin(), below[size_t(last)].end());
        s.rowCount = int(rows_.size()) - s.rowStart;
        s.valueStart = values;
        values += size_t(kBlock * s.rowCount) * size_t(kBlock * s.columnCount);
        supernodes_.push_back(s);
        j = last + 1;
    }
    values_.assign(values, 0.0);

    // Which later supernodes each one updates, through which of its rows.
    updates_.assign(supernodes_.size(), {});
    for (size_t d = 0; d < supernodes_.size(); ++d) {
        Supernode& s = supernodes_[d];
        const int* rows = rows_.data() + s.rowStart;
        for (int k = s.columnCount; k < s.rowCount;) {
            const int target = supernodeOf_[size_t(rows[k])];
            const int begin = k;
            while (k < s.rowCount && supernodeOf_[size_t(rows[k])] == target) ++k;
            updates_[size_t(target)].push_back({int(d), begin, k});
        }
    }
    positionOf_.assign(size_t(n), -1);
    permuted_.resize(kBlock * n);
    mapped_ = false;
}

void BlockCholesky::mapEntries(const Eigen::SparseMatrix<double>& hessian) {
    const int* outer = hessian.outerIndexPtr();
    const int* inner = hessian.innerIndexPtr();
    destination_.assign(size_t(hessian.nonZeros()), -1);
    diagonal_.assign(size_t(kBlock * blockCount_), -1);
    std::fill(positionOf_.begin(), positionOf_.end(), -1);
    for (const Supernode& s : supernodes_) {
        const int* rows = rows_.data() + s.rowStart;
        for (int k = 0; k < s.rowCount; ++k) positionOf_[size_t(rows[k])] = k;
        const int64_t ld = kBlock * s.rowCount;
        for (int c = 0; c < s.columnCount; ++c) {
            const int block = s.firstColumn + c;
            for (int a = 0; a < kBlock; ++a) {
                const int column = kBlock * oldOf_[size_t(block)] + a;
                for (int p = outer[column]; p < outer[column + 1]; ++p) {
                    const int row = inner[p];
                    const int rowBlock = newOf_[size_t(row / kBlock)];
                    if (rowBlock < block || positionOf_[size_t(rowBlock)] < 0) continue;
                    const int64_t at = kBlock * positionOf_[size_t(rowBlock)] + row % kBlock +
                                       ld * (kBlock * c + a);
                    destination_[size_t(p)] = at;
                    if (row == column) diagonal_[size_t(column)] = at;
                }
            }
        }
        for (int k = 0; k < s.rowCount; ++k) positionOf_[size_t(rows[k])] = -1;
    }
    mapped_ = true;
}

bool BlockCholesky::factorize(const Eigen::SparseMatrix<double>& hessian, double damping) {
    if (!mapped_) mapEntries(hessian);
    std::fill(positionOf_.begin(), positionOf_.end(), -1);
    const int* outer = hessian.outerIndexPtr();
    const double* entries = hessian.valuePtr();
    Eigen::MatrixXd update;
    for (const Supernode& s : supernodes_) {
        const int* rows = rows_.data() + s.rowStart;
        for (int k = 0; k < s.rowCount; ++k) positionOf_[size_t(rows[k])] = k;
        const int ld = kBlock * s.rowCount, width = kBlock * s.columnCount;
        Strided L(values_.data() + s.valueStart, ld, width, Eigen::OuterStride<>(ld));

        // The lower part of the damped matrix in this supernode's columns, zeros elsewhere
        // (cleared here rather than all at once, so that they are still in the cache).
        double* L0 = values_.data() + s.valueStart;
        std::fill(L0, L0 + size_t(ld) * size_t(width), 0.0);
        for (int c = 0; c < s.columnCount; ++c) {
            const int old = oldOf_[size_t(s.firstColumn + c)];
            for (int p = outer[kBlock * old]; p < outer[kBlock * old + kBlock]; ++p) {
                const int64_t at = destination_[size_t(p)];
                if (at >= 0) L0[at] = entries[p];
            }
            for (int a = 0; a < kBlock; ++a) {
                // An unknown without a diagonal entry keeps a zero pivot.
                const int64_t at = diagonal_[size_t(kBlock * old + a)];
                if (at >= 0) L0[at] += damping * L0[at];
            }
        }

        // Minus the products of the earlier supernodes that reach these columns.
        for (const Update& u : updates_[size_t(&s - supernodes_.data())]) {
            const Supernode& d = supernodes_[size_t(u.source)];
            const int ldd = kBlock * d.rowCount;
            const ConstStrided D(values_.data() + d.valueStart, ldd, kBlock * d.columnCount,
                                 Eigen::OuterStride<>(ldd));
            const int tailRows = d.rowCount - u.rowBegin, headRows = u.rowEnd - u.rowBegin;
            const auto tail = D.middleRows(kBlock * u.rowBegin, kBlock * tailRows);
            const auto head = D.middleRows(kBlock * u.rowBegin, kBlock * headRows);
            // Small products are cheaper coefficient by coefficient than through the blocked
            // kernel, which prepares packed copies of both sides first. Of the square part
            // that lands on the diagonal only the lower triangle is needed.
            if (tailRows * headRows * d.columnCount <= 64) {
                update.noalias() = tail.lazyProduct(head.transpose());
            } else {
                const int h = kBlock * headRows, t = kBlock * tailRows;
                update.resize(t, h);
                update.topRows(h).setZero();
                update.topRows(h).selfadjointView<Eigen::Lower>().rankUpdate(head);
                if (t > h) update.bottomRows(t - h).noalias() = tail.bottomRows(t - h) * head.transpose();
            }
            const int* dRows = rows_.data() + d.rowStart + u.rowBegin;
            for (int bj = 0; bj < headRows; ++bj) {
                const int column = kBlock * (dRows[bj] - s.firstColumn);
                for (int bi = bj; bi < tailRows; ++bi) {
                    const int position = positionOf_[size_t(dRows[bi])];
                    L.block<kBlock, kBlock>(kBlock * position, column) -=
                        update.block<kBlock, kBlock>(kBlock * bi, kBlock * bj);
                }
            }
        }

        Eigen::Ref<Eigen::MatrixXd> diagonal = L.topRows(width);
        Eigen::LLT<Eigen::Ref<Eigen::MatrixXd>> llt(diagonal);
        if (llt.info() != Eigen::Success) return false;
        if (ld > width) {
            diagonal.triangularView<Eigen::Lower>().transpose().solveInPlace<Eigen::OnTheRight>(
                L.bottomRows(ld - width));
        }
        for (int k = 0; k < s.rowCount; ++k) positionOf_[size_t(rows[k])] = -1;
    }
    return true;
}

void BlockCholesky::solve(const Eigen::VectorXd& b, Eigen::VectorXd& x) const {
    for (int o = 0; o < blockCount_; ++o)
        permuted_.segment<kBlock>(kBlock * newOf_[size_t(o)]) = b.segment<kBlock>(kBlock * o);
    Eigen::VectorXd gathered;
    // L y = b, supernode by supernode.
    for (const Supernode& s : supernodes_) {
        const int ld = kBlock * s.rowCount, width = kBlock * s.columnCount;
        const ConstStrided L(values_.data() + s.valueStart, ld, width, Eigen::OuterStride<>(ld));
        auto y = permuted_.segment(kBlock * s.firstColumn, width);
        L.topRows(width).triangularView<Eigen::Lower>().solveInPlace(y);
        if (ld == width) continue;
        gathered.noalias() = L.bottomRows(ld - width) * y;
        const int* rows = rows_.data() + s.rowStart;
        for (int k = s.columnCount; k < s.rowCount; ++k)
            permuted_.segment<kBlock>(kBlock * rows[k]) -= gathered.segment<kBlock>(kBlock * (k - s.columnCount));
    }
    // L' x = y, in reverse.
    for (auto it = supernodes_.rbegin(); it != supernodes_.rend(); ++it) {
        const Supernode& s = *it;
        const int ld = kBlock * s.rowCount, width = kBlock * s.columnCount;
        const ConstStrided L(values_.data() + s.valueStart, ld, width, Eigen::OuterStride<>(ld));
        auto y = permuted_.segment(kBlock * s.firstColumn, width);
        if (ld > width) {
            gathered.resize(ld - width);
            const int* rows = rows_.data() + s.rowStart;
            for (int k = s.columnCount; k < s.rowCount; ++k)
                gathered.segment<kBlock>(kBlock * (k - s.columnCount)) = permuted_.segment<kBlock>(kBlock * rows[k]);
            y.noalias() -= L.bottomRows(ld - width).transpose() * gathered;
        }
        L.topRows(width).triangularView<Eigen::Lower>().transpose().solveInPlace(y);
    }
    x.resize(kBlock * blockCount_);
    for (int o = 0; o < blockCount_; ++o)
        x.segment<kBlock>(kBlock * o) = permuted_.segment<kBlock>(kBlock * newOf_[size_t(o)]);
}

}  // namespace kestor
