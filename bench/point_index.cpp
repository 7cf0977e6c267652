// PointIndex against nanoflann (leaf size 10 on both) on surface clouds of 100k and 1M points:
// the build, and one nearest-neighbour query per point of a second sampling of the surface,
// within a radius of three grid steps. nanoflann answers with its 1-nearest search, whose bound
// shrinks as it goes; ours keeps the radius as its bound.
#include <benchmark/benchmark.h>

// nanoflann is a benchmark-only package (scripts/install-deps.sh --bench); without it only our
// side is built.
#if __has_include(<nanoflann.hpp>)
#include <nanoflann.hpp>
#define KESTOR_HAVE_NANOFLANN 1
#endif

#include <map>

#include "pair/point_index.h"
#include "surface_cloud.h"

namespace {

struct Clouds {
    bench_data::Cloud target, queries;
    float radiusSq;
};

const Clouds& clouds(int n) {
    static std::map<int, Clouds> cache;
    auto it = cache.find(n);
    if (it == cache.end()) {
        Clouds c;
        c.target = bench_data::sample(n, 0.0, 1, bench_data::makeMotion(0, 0, 0, 0, 0, 0));
        c.queries = bench_data::sample(n, 0.5, 2, bench_data::makeMotion(0.01, 0.02, 0.0, 0.003, 0.0, 0.002));
        const float step = 2.0f / float(n - 1);
        c.radiusSq = 9.0f * step * step;
        it = cache.emplace(n, std::move(c)).first;
    }
    return it->second;
}

int sideFor(int64_t points) { return points == 100000 ? 317 : 1000; }

#ifdef KESTOR_HAVE_NANOFLANN
struct NanoCloud {
    const std::vector<float>* points;
    size_t kdtree_get_point_count() const { return points->size() / 3; }
    float kdtree_get_pt(size_t i, size_t dim) const { return (*points)[3 * i + dim]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const { return false; }
};
using NanoTree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, NanoCloud>,
                                                     NanoCloud, 3, uint32_t>;
#endif

void BM_PointIndexBuild(benchmark::State& state) {
    const Clouds& c = clouds(sideFor(state.range(0)));
    for (auto _ : state) {
        kestor::PointIndex index(c.target.points.data(), c.target.count(), 10);
        benchmark::DoNotOptimize(index.root());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * c.target.count());
}

void BM_PointIndexNearestWithin(benchmark::State& state) {
    const Clouds& c = clouds(sideFor(state.range(0)));
    const kestor::PointIndex index(c.target.points.data(), c.target.count(), 10);
    int64_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (int i = 0; i < c.queries.count(); ++i)
            found += index.nearestWithin(&c.queries.points[3 * size_t(i)], c.radiusSq) >= 0;
        benchmark::DoNotOptimize(found);
    }
    state.counters["found"] = double(found) / c.queries.count();
    state.SetItemsProcessed(int64_t(state.iterations()) * c.queries.count());
}

BENCHMARK(BM_PointIndexBuild)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PointIndexNearestWithin)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

#ifdef KESTOR_HAVE_NANOFLANN
void BM_NanoflannBuild(benchmark::State& state) {
    const Clouds& c = clouds(sideFor(state.range(0)));
    const NanoCloud cloud{&c.target.points};
    for (auto _ : state) {
        NanoTree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
        benchmark::DoNotOptimize(&tree);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * c.target.count());
}

void BM_NanoflannNearest(benchmark::State& state) {
    const Clouds& c = clouds(sideFor(state.range(0)));
    const NanoCloud cloud{&c.target.points};
    const NanoTree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    int64_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (int i = 0; i < c.queries.count(); ++i) {
            uint32_t position;
            float distanceSq;
            nanoflann::KNNResultSet<float, uint32_t> result(1);
            result.init(&position, &distanceSq);
            tree.findNeighbors(result, &c.queries.points[3 * size_t(i)], nanoflann::SearchParams());
            found += distanceSq < c.radiusSq;
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["found"] = double(found) / c.queries.count();
    state.SetItemsProcessed(int64_t(state.iterations()) * c.queries.count());
}

BENCHMARK(BM_NanoflannBuild)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NanoflannNearest)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
