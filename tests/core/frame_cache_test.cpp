#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/frame_cache.h"
#include "core/fusion_records.h"

using kestor::FrameCache;
using kestor::kNoRecord;

namespace {

std::string tempPath(const char* name) {
    return testing::TempDir() + "kestor_cache_" + name + ".bin";
}

std::vector<uint8_t> fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

uint64_t u64At(const std::vector<uint8_t>& bytes, size_t position) {
    uint64_t v = 0;
    std::memcpy(&v, bytes.data() + position, 8);
    return v;
}

}  // namespace

TEST(FrameCache, WritesCountHeaderThenLengthPrefixedRecords) {
    const std::string path = tempPath("layout");
    FrameCache cache;
    EXPECT_EQ(cache.append("x", 1), kNoRecord);  // closed: nothing written, no number
    ASSERT_TRUE(cache.open(path.c_str()));
    const uint8_t a[3] = {1, 2, 3}, b[2] = {9, 8};
    EXPECT_EQ(cache.append(a, 3), 0u);
    EXPECT_EQ(cache.append(nullptr, 5), 1u);  // a null plane is an empty record
    EXPECT_EQ(cache.append(b, 2), 2u);
    EXPECT_EQ(cache.offsets(), std::vector<uint64_t>({8, 19, 27, 37}));
    cache.close();
    const std::vector<uint8_t> expected = {3, 0, 0, 0, 0, 0, 0, 0,  // count
                                           3, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3,
                                           0, 0, 0, 0, 0, 0, 0, 0,
                                           2, 0, 0, 0, 0, 0, 0, 0, 9, 8};
    EXPECT_EQ(fileBytes(path), expected);
    std::remove(path.c_str());
}

TEST(FrameCache, ReadsBackOnlyWithTheRightSize) {
    const std::string path = tempPath("read");
    FrameCache cache;
    ASSERT_TRUE(cache.open(path.c_str()));
    const float plane[4] = {1.5f, -2, 3, 4};
    cache.append(plane, sizeof(plane));
    cache.append(nullptr, 0);
    float back[4] = {0, 0, 0, 0};
    EXPECT_TRUE(cache.read(0, sizeof(plane), back));
    EXPECT_EQ(std::memcmp(back, plane, sizeof(plane)), 0);
    float untouched[4] = {7, 7, 7, 7};
    EXPECT_FALSE(cache.read(0, 12, untouched));  // wrong expected size: nothing read
    EXPECT_FALSE(cache.read(0, 16, nullptr));
    EXPECT_FALSE(cache.read(2, 16, untouched));  // not below the count
    EXPECT_FALSE(cache.read(kNoRecord, 16, untouched));
    for (float v : untouched) EXPECT_EQ(v, 7);
    EXPECT_TRUE(cache.read(1, 0, untouched));
    cache.close();
    EXPECT_FALSE(cache.read(0, 16, back));  // closed
    std::remove(path.c_str());
}

TEST(FrameCache, ASecondPathClosesTheFirstWithItsCountAndKeepsTheOffsets) {
    const std::string first = tempPath("first"), second = tempPath("second");
    FrameCache cache;
    ASSERT_TRUE(cache.open(first.c_str()));
    cache.append("abcd", 4);
    cache.append("ef", 2);
    ASSERT_TRUE(cache.open(second.c_str()));
    EXPECT_EQ(u64At(fileBytes(first), 0), 2u);
    EXPECT_EQ(cache.recordCount(), 0u);
    EXPECT_EQ(cache.append("g", 1), 0u);  // numbers restart, positions go on from the old tail
    EXPECT_EQ(cache.offsets(), std::vector<uint64_t>({8, 20, 30, 39}));
    // An unwritable path closes the good file and leaves the cache off.
    EXPECT_FALSE(cache.open("/nonexistent-dir/kestor/cache.bin"));
    EXPECT_FALSE(cache.isOpen());
    EXPECT_EQ(u64At(fileBytes(second), 0), 1u);
    EXPECT_EQ(cache.append("h", 1), kNoRecord);
    std::remove(first.c_str());
    std::remove(second.c_str());
}
