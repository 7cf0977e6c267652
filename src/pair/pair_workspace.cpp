#include "pair/pair_workspace.h"

namespace kestor {

namespace {

struct ThreadWorkspace {
    PairWorkspace workspace;
    bool inUse = false;
};

thread_local ThreadWorkspace threadWorkspace;

}  // namespace

PairWorkspaceLease::PairWorkspaceLease() {
    if (threadWorkspace.inUse) {
        workspace_ = new PairWorkspace();
        owned_ = true;
    } else {
        threadWorkspace.inUse = true;
        workspace_ = &threadWorkspace.workspace;
        owned_ = false;
    }
}

PairWorkspaceLease::~PairWorkspaceLease() {
    if (owned_)
        delete workspace_;
    else
        threadWorkspace.inUse = false;
}

}  // namespace kestor
