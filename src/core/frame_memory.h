#pragma once
// A frame's memory: its image planes and pyramid laid out in pool blocks, its release, and its
// reduction once the trace and group stages are done with it. Every function here expects the
// caller to hold the instance lock (construction and teardown aside).
#include "core/fusion_instance.h"

namespace kestor {

// Points depth, colour and mask of `info` into one image block: depth first, colour next if the
// instance has colour, mask last if it has a mask; absent planes become null.
void layoutImage(const RGBDFusionImpl& instance, uint8_t* block, KESTORFrameInfo& info);

// Points the level records into one pyramid block, finest level first; per level of n pixels
// vmap (12n bytes), nmap (12n) and, with gray maps, gray, gradX, gradY (4n each). A null block
// gives null records.
void layoutPyramid(const RGBDFusionImpl& instance, uint8_t* block, FrameLevel* levels);

// Gives a frame that never entered the frame list back: image block (with `attach` handed to the
// attach release), pyramid block, then the frame block itself.
void releaseFrame(RGBDFusionImpl& instance, _Frame* frame);

// One of the two calls a finished frame gets, from the trace stage and from the group stage.
// The first only notes itself; the second drops the pyramid and, with the spill cache open,
// moves the image planes to the file. A third call logs a complaint and changes nothing.
void reduceFrame(RGBDFusionImpl& instance, _Frame* frame);

// A new group with this id: a cleared block from the group pool with the record constructed in
// it, and room for groupSize + 1 members. It owns no image and no pyramid.
_Group* newGroup(RGBDFusionImpl& instance, int32_t id);

// Gives a group back: the pyramid it holds, its lists, its block.
void releaseGroup(RGBDFusionImpl& instance, _Group* group);

}  // namespace kestor
