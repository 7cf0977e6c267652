#pragma once
#include "core/fusion_instance.h"

namespace kestor {

// Finishes a closed group: aligns its members among themselves as groupMode says, settles
// frameRTs and the key frame, computes the link information towards the next group, moves the
// key frame's pyramid to the group and does the reduce step for every member but a full group's
// shared last one. Runs without the instance lock (taken for each reduce step); the caller
// raises finishedGroups afterwards.
void finishGroup(RGBDFusionImpl& instance, _Group& group);

}  // namespace kestor
