#pragma once
#include <functional>

namespace kestor {

// body(begin, end, slot): one block of the range, and the slot that indexes the caller's
// per-thread accumulators.
using LoopBody = std::function<void(int begin, int end, int slot)>;

// The range in one block per OpenMP thread, blocks of ceil(n / T) items, thread k taking block k
// as slot k. Ranges of at most one item, and a team of one, run on the calling thread in slot 0.
void parallelFor(int begin, int end, const LoopBody& body);

// The whole range once, in slot 0, on the calling thread.
void serialFor(int begin, int end, const LoopBody& body);

// The runner that a `parallel` flag picks; both run the same body.
inline void runLoop(bool parallel, int begin, int end, const LoopBody& body) {
    if (parallel)
        parallelFor(begin, end, body);
    else
        serialFor(begin, end, body);
}

// How many accumulator slots a loop run with this flag can touch.
int loopSlots(bool parallel);

}  // namespace kestor
