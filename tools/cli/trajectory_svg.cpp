#include "cli/trajectory_svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kestor_cli {

namespace {

constexpr double kSize = 640, kMargin = 50;

std::string polyline(const std::vector<double>& xyz, int u, int v, double lo[2], double scale,
                     const char* colour, double width) {
    std::string points;
    char xy[64];
    for (size_t k = 0; k + 2 < xyz.size(); k += 3) {
        std::snprintf(xy, sizeof xy, "%.2f,%.2f ", kMargin + (xyz[k + u] - lo[0]) * scale,
                      kSize - kMargin - (xyz[k + v] - lo[1]) * scale);
        points += xy;
    }
    char head[160];
    std::snprintf(head, sizeof head,
                  "<polyline fill=\"none\" stroke=\"%s\" stroke-width=\"%.1f\" points=\"", colour,
                  width);
    return head + points + "\"/>\n";
}

}  // namespace

std::string trajectorySvg(const std::string& title, const TrajectoryErrors& e) {
    const std::vector<double>& q = e.truthPositions;
    if (q.size() < 6) return {};
    double lo[3], hi[3];
    for (int d = 0; d < 3; ++d) {
        lo[d] = hi[d] = q[d];
        for (size_t k = d; k < q.size(); k += 3) {
            lo[d] = std::min({lo[d], q[k], e.alignedEstimate[k]});
            hi[d] = std::max({hi[d], q[k], e.alignedEstimate[k]});
        }
    }
    // The two axes of largest extent; the one of least extent is the viewing direction.
    int axes[3] = {0, 1, 2};
    std::sort(axes, axes + 3, [&](int a, int b) { return hi[a] - lo[a] > hi[b] - lo[b]; });
    const int u = std::min(axes[0], axes[1]), v = std::max(axes[0], axes[1]);
    const double span = std::max({hi[u] - lo[u], hi[v] - lo[v], 1e-3});
    const double scale = (kSize - 2 * kMargin) / span;
    double corner[2] = {lo[u], lo[v]};

    // A scale bar of a round length near a fifth of the drawing.
    const double raw = span / 5;
    const double step = std::pow(10.0, std::floor(std::log10(raw)));
    const double bar = raw >= 5 * step ? 5 * step : raw >= 2 * step ? 2 * step : step;
    const char* axisName = "xyz";

    char text[2048];
    std::string svg;
    std::snprintf(text, sizeof text,
                  "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
                  "viewBox=\"0 0 %d %d\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n"
                  "<text x=\"10\" y=\"22\" font-family=\"sans-serif\" font-size=\"15\">%s</text>\n"
                  "<text x=\"10\" y=\"42\" font-family=\"sans-serif\" font-size=\"13\">ATE RMSE "
                  "%.2f mm over %d poses; RPE %.2f mm, %.3f deg per frame; view onto the %c%c "
                  "plane</text>\n",
                  int(kSize), int(kSize), int(kSize), int(kSize), title.c_str(), e.ateRmse * 1e3,
                  e.compared, e.rpeTranslationRmse * 1e3, e.rpeRotationRmse, axisName[u],
                  axisName[v]);
    svg += text;
    svg += polyline(q, u, v, corner, scale, "#222222", 2.5);
    svg += polyline(e.alignedEstimate, u, v, corner, scale, "#d62728", 1.5);
    const double sx = kMargin + (q[u] - corner[0]) * scale;
    const double sy = kSize - kMargin - (q[v] - corner[1]) * scale;
    std::snprintf(text, sizeof text,
                  "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"5\" fill=\"none\" stroke=\"#222222\"/>\n"
                  "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"black\" "
                  "stroke-width=\"3\"/>\n"
                  "<text x=\"%.1f\" y=\"%.1f\" font-family=\"sans-serif\" font-size=\"12\">%g "
                  "m</text>\n"
                  "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#222222\" "
                  "stroke-width=\"2.5\"/><text x=\"%.1f\" y=\"%.1f\" font-family=\"sans-serif\" "
                  "font-size=\"12\">ground truth (circle: start)</text>\n"
                  "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#d62728\" "
                  "stroke-width=\"1.5\"/><text x=\"%.1f\" y=\"%.1f\" font-family=\"sans-serif\" "
                  "font-size=\"12\">estimate, rigidly aligned</text>\n</svg>\n",
                  sx, sy, kMargin, kSize - 20, kMargin + bar * scale, kSize - 20,
                  kMargin + bar * scale + 8, kSize - 16, bar, kSize - 230, kSize - 38,
                  kSize - 200, kSize - 38, kSize - 194, kSize - 34, kSize - 230, kSize - 20,
                  kSize - 200, kSize - 20, kSize - 194, kSize - 16);
    svg += text;
    return svg;
}

}  // namespace kestor_cli
