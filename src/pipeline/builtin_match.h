#pragma once
#include "core/fusion_instance.h"

namespace kestor {

// The engine's own pair match of two pyramids (first fixed, second moving), coarse to fine with
// the instance's iterations and distances per level, serial and silent. `rt` is the start and, on
// success only, the result (second into first); `info` receives the information matrix. Uses
// the photometric term when the instance has gray maps and colour and every level of both sides
// has its gray map. Fails with device memory, missing maps or an empty geometry.
bool builtInMatch(const RGBDFusionImpl& instance, const FrameLevel* first,
                  const FrameLevel* second, RT_<double>& rt, double info[6][6]);

}  // namespace kestor
