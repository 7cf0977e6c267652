#pragma once
#include <vector>

#include "pair/projective_association.h"
#include "pair/solver_slots.h"

namespace kestor {

// The arrays of one pair-solver run. A thread keeps one set between runs, so that a tracking
// thread matching frame after frame reuses memory it already touched instead of allocating (and
// page-faulting in) some tens of megabytes per frame.
struct PairWorkspace {
    CompactSource source;
    PairArrays pairs;
    std::vector<Float3> movedPoints, movedNormals;
    std::vector<SolverSlot> slots;
};

// The calling thread's workspace for the length of a run. A run started on a thread whose
// workspace is in use (from inside a progress callback, say) gets a fresh one of its own.
class PairWorkspaceLease {
public:
    PairWorkspaceLease();
    ~PairWorkspaceLease();
    PairWorkspaceLease(const PairWorkspaceLease&) = delete;
    PairWorkspaceLease& operator=(const PairWorkspaceLease&) = delete;
    PairWorkspace& get() { return *workspace_; }

private:
    PairWorkspace* workspace_;
    bool owned_;
};

}  // namespace kestor
