#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "core/normal_rows.h"
#include "core/row_block.h"

using namespace kestor;

// Rows pushed one at a time and eight at a time, in an order that crosses the block's capacity
// at every offset, must give the sums of adding each row on its own. Every row length in use is
// run, since each sums its entries in sweeps of its own shape. A block of unit residuals must
// give the sums of rows whose residuals are one, and leave the sum of squares alone.
template <int N, bool kUnit = false>
void expectRowByRowSums() {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> value(-2.0f, 2.0f);
    for (int singlesFirst : {0, 1, 3, 7, 63, 64, 65}) {
        RowBlock<N, kUnit> block;
        double h[N * N] = {}, g[N] = {}, e = 0.0;
        double rh[N * N] = {}, rg[N] = {}, re = 0.0;
        auto single = [&] {
            float row[N];
            for (float& v : row) v = value(random);
            const float r = kUnit ? 1.0f : value(random);
            block.push(row, kUnit ? -3.0f : r, h, g, &e);
            addNormalRow<N>(rh, rg, row, r);
            if (!kUnit) re += double(r) * double(r);
        };
        for (int i = 0; i < singlesFirst; ++i) single();
        for (int k = 0; k < 24; ++k) {
            alignas(32) float lanes[N][8], r[8];
            for (int l = 0; l < 8; ++l) {
                float row[N];
                for (int a = 0; a < N; ++a) row[a] = lanes[a][l] = value(random);
                r[l] = kUnit ? 1.0f : value(random);
                addNormalRow<N>(rh, rg, row, r[l]);
                if (!kUnit) re += double(r[l]) * double(r[l]);
            }
            __m256 columns[N];
            for (int a = 0; a < N; ++a) columns[a] = _mm256_load_ps(lanes[a]);
            block.push8(columns, kUnit ? _mm256_set1_ps(-3.0f) : _mm256_load_ps(r), h, g, &e);
            if (k % 8 == 7) single();  // with no singles first, the block is full here
        }
        block.flush(h, g, &e);
        for (int a = 0; a < N; ++a) {
            for (int b = a; b < N; ++b) EXPECT_NEAR(h[a * N + b], rh[a * N + b], 1e-9) << N << " " << singlesFirst;
            EXPECT_NEAR(g[a], rg[a], 1e-9) << N;
        }
        EXPECT_NEAR(e, re, 1e-9);
    }
}

TEST(RowBlock, MixedPushesGiveTheRowByRowSums) {
    expectRowByRowSums<6>();
    expectRowByRowSums<7>();
    expectRowByRowSums<12>();
    expectRowByRowSums<7, true>();
}
