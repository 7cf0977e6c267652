#pragma once
#include <functional>
#include <utility>

#include "kestor.h"

namespace kestor {

// What the key-point matchers report: (source index, target index) pairs and their number.
using MatchesFunc = std::function<void(const std::pair<int, int>* pairs, int count)>;

// Binds a caller's function pointer and context; a null pointer gives an empty callable, which
// the matchers take as "no report wanted".
inline MatchesFunc wrapMatches(KESTORMatchesFunc func, void* context) {
    if (func == nullptr) return MatchesFunc();
    return [func, context](const std::pair<int, int>* pairs, int count) {
        func(pairs, count, context);
    };
}

// Collects (s, matches[s]) for every s whose match is not -1, in ascending s, and hands them to
// onMatches (also when there are none). A number other than `expected` is logged as a warning.
void reportMatches(const int* matches, int sourceCount, int expected,
                   const MatchesFunc& onMatches);

}  // namespace kestor
