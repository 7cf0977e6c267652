// Reading map elements into lanes: the load-and-transpose read gives what the gathers give, for
// every lane pattern, up to the map's last element, without reading past the map's end (the
// maps here end exactly with their last element, so a read past it shows under ASan).
#include <gtest/gtest.h>

#include <vector>

#include "core/float3_lanes.h"
#include "core/image_view.h"

using namespace kestor;

TEST(LaneReads, LoadsGiveTheGatheredComponentsUpToTheLastElement) {
    struct Shape {
        int width, height, strideFloats;  // 0: rows packed
    };
    for (const Shape s : {Shape{5, 4, 0}, Shape{3, 3, 11}, Shape{1, 1, 0}, Shape{2, 1, 0}}) {
        const int rowFloats = s.strideFloats ? s.strideFloats : 3 * s.width;
        std::vector<float> values(size_t(rowFloats) * size_t(s.height - 1) + size_t(3 * s.width));
        for (size_t i = 0; i < values.size(); ++i) values[i] = float(i) + 0.5f;
        const ImageView<const Float3> view{reinterpret_cast<const Float3*>(values.data()),
                                           s.strideFloats * 4, s.width, s.height};
        const LaneMap map = laneMap(view);
        const int last = s.width * s.height - 1;
        for (int pattern = 0; pattern < 256; pattern += 37) {
            alignas(32) int u[8], v[8];
            alignas(32) float lanes[8];
            for (int l = 0; l < 8; ++l) {
                const int pixel = l == 7 ? last : (pattern * 7 + l * 5) % (last + 1);
                u[l] = pixel % s.width;
                v[l] = pixel / s.width;
                lanes[l] = (pattern >> l) & 1 ? -1.0f : 0.0f;  // all bits set, or none
            }
            const __m256i offsets = laneOffsets(map, _mm256_load_si256(reinterpret_cast<__m256i*>(u)),
                                                _mm256_load_si256(reinterpret_cast<__m256i*>(v)));
            const __m256 mask = _mm256_cmp_ps(_mm256_load_ps(lanes), _mm256_setzero_ps(), _CMP_NEQ_OQ);
            for (const __m256 m : {mask, _mm256_andnot_ps(_mm256_castsi256_ps(_mm256_setr_epi32(
                                                              0, 0, 0, 0, 0, 0, 0, -1)), mask)}) {
                alignas(32) Float3 loaded[8], gathered[8];
                storeLanes(loaded, loadLanes3(map, offsets, m));
                storeLanes(gathered, gatherLanes3(map, offsets, m));
                for (int l = 0; l < 8; ++l) {
                    EXPECT_EQ(loaded[l].x, gathered[l].x) << s.width << "x" << s.height << " " << l;
                    EXPECT_EQ(loaded[l].y, gathered[l].y);
                    EXPECT_EQ(loaded[l].z, gathered[l].z);
                }
            }
        }
    }
}
