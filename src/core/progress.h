#pragma once
#include <functional>

#include "kestor.h"

namespace kestor {

// What the long-running workers take: progress in percent, and a flag they may set to cancel.
using ProgressFunc = std::function<void(int percent, bool& cancel)>;

// Binds a caller's function pointer and user argument. The pointer is tested at each call, so a
// null one gives a callable that reports nowhere and never cancels.
inline ProgressFunc wrapProgress(KESTORProgressFunc func, void* user) {
    return [func, user](int percent, bool& cancel) {
        if (func != nullptr) func(percent, &cancel, user);
    };
}

}  // namespace kestor
