#pragma once

namespace kestor {

// The thread count of the library's parallel loops, one value for the whole process. OpenMP
// keeps its count per thread, so threads the library starts itself would not see a count set on
// the caller's thread; every parallel region asks here instead.
void setLoopThreadCount(int threads);

// The count last set if it was above 0, else what the OpenMP runtime says for this thread.
int loopThreadCount();

}  // namespace kestor
