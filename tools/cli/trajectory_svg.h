#pragma once
// A picture of an estimated trajectory against the ground truth, seen from above, as SVG.
#include <string>

#include "cli/trajectory.h"

namespace kestor_cli {

// Draws the aligned estimate and the ground truth of `errors` on the two axes along which the
// ground truth spreads most (the top view of a hand-held or walking recording), with a scale bar
// and the ATE in the caption. Empty when there is nothing to draw.
std::string trajectorySvg(const std::string& title, const TrajectoryErrors& errors);

}  // namespace kestor_cli
