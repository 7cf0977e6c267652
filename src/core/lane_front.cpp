#include "core/lane_front.h"

namespace kestor {

namespace {

constexpr std::array<std::array<int32_t, 8>, 256> frontOrders() {
    std::array<std::array<int32_t, 8>, 256> table{};
    for (int bits = 0; bits < 256; ++bits) {
        size_t next = 0;
        for (int lane = 0; lane < 8; ++lane)
            if (bits & (1 << lane)) table[size_t(bits)][next++] = lane;
    }
    return table;
}

}  // namespace

alignas(32) const std::array<std::array<int32_t, 8>, 256> kFrontOrders = frontOrders();

}  // namespace kestor
