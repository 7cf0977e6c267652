// The exports that build point indexes, run on several threads at once: each must give exactly
// what it gives alone, and the shared node store must end empty.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "kestor.h"
#include "pair/node_pool.h"
#include "pair/surface_samples.h"

using namespace kestor_test;

namespace {

struct Problem {
    SampledSurface target = sampleSurface(40, 0.2, 1);
    SampledSurface source = sampleSurface(40, 0.3, 2, makeMotion(0.02, -0.01, 0.03, 0.02, 0.01, -0.01));
};

// The three index users, serial inside so that results are exact; all outputs in one vector.
std::vector<double> runAll(const Problem& p) {
    std::vector<double> out;
    const int sizes[2] = {p.target.count(), p.source.count()};
    // From a start off the identity: the two-sided point-set loop is singular exactly there.
    std::vector<double> rt = makeMotion(0.01, 0.0, 0.0, 0.0, 0.0, 0.0).matrix();
    double info[36];
    KESTORMatchPair(p.target.points.data(), p.target.normals.data(), nullptr,
                    p.source.points.data(), p.source.normals.data(), nullptr, sizes, nullptr,
                    rt.data(), info, 10, 0.1, 1.0, 0.0, 0.0, false, false, nullptr, nullptr);
    out.insert(out.end(), rt.begin(), rt.end());
    out.insert(out.end(), info, info + 36);

    const float* points[2] = {p.target.points.data(), p.source.points.data()};
    const float* normals[2] = {p.target.normals.data(), p.source.normals.data()};
    std::vector<double> rts = Pose().matrix();
    const std::vector<double> start = makeMotion(0.01, 0.0, 0.0, 0.0, 0.0, 0.0).matrix();
    rts.insert(rts.end(), start.begin(), start.end());
    KESTORMatchMulti(points, normals, nullptr, sizes, nullptr, rts.data(), 2, 5, 0.1, 1.0, 0.0,
                     0.0, 1, false, false, nullptr, nullptr);
    out.insert(out.end(), rts.begin(), rts.end());

    const std::vector<double> pose = Pose().matrix();
    double measure[36];
    const int status = KESTORCalcPointMatchInfo(p.target.points.data(), p.target.normals.data(),
                                                sizes[0], p.source.points.data(),
                                                p.source.normals.data(), sizes[1], pose.data(),
                                                measure, 0.05, 1.0, 0.0);
    out.push_back(status);
    out.insert(out.end(), measure, measure + 36);
    return out;
}

}  // namespace

TEST(ConcurrentIndex, ExportsThatBuildIndexesAgreeWithTheirSerialRunsOnManyThreads) {
    const Problem problem;
    const std::vector<double> alone = runAll(problem);
    ASSERT_EQ(kestor::nodePoolBlockCount(), 0u);
    constexpr int kThreads = 8, kRounds = 12;
    std::vector<int> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRounds; ++r)
                mismatches[size_t(t)] += std::memcmp(runAll(problem).data(), alone.data(),
                                                     alone.size() * sizeof(double)) != 0;
        });
    for (std::thread& t : threads) t.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[size_t(t)], 0) << t;
    EXPECT_EQ(kestor::nodePoolBlockCount(), 0u);  // every node back, every block freed
}
