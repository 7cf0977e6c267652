// kestor: reconstructs an RGB-D recording with the library's online engine.
//
//   kestor reconstruct SEQUENCE_DIR -o OUT_DIR [options]
//
// Writes OUT_DIR/trajectory.txt (final poses, TUM format), trajectory_tracked.txt (poses at
// tracking time), map.ply (fused coloured points, thinned on a voxel grid), and with ground truth
// in the folder report.txt (ATE, RPE) and trajectory.svg (top view against the ground truth).
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "cli/reconstruct.h"
#include "cli/trajectory.h"
#include "kestor.h"

namespace {

// OpenMP threads that finish a loop early spin until the rest are done, by default. The engine
// runs more threads than a small machine has cores, and a spinning thread then holds the core
// that the thread it waits for needs: on two loaded cores a parallel pair match took three times
// as long as with passive waiting. The runtime reads the setting once, as it loads, so the
// program sets it and starts itself again; an explicit setting is left alone.
void preferPassiveWaiting(char** argv) {
    if (std::getenv("OMP_WAIT_POLICY") != nullptr) return;
    setenv("OMP_WAIT_POLICY", "passive", 1);
    execv("/proc/self/exe", argv);  // returns only if the restart failed: run as we are
}

}  // namespace

int main(int argc, char** argv) {
    preferPassiveWaiting(argv);
    CLI::App app{"kestor: RGB-D reconstruction with the kestor online engine"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string(KESTORVersion()));

    kestor_cli::ReconstructOptions o;
    CLI::App* rec = app.add_subcommand(
        "reconstruct", "Track, group, close loops and fuse a recording (TUM RGB-D, 7-Scenes or "
                       "the synthetic folders' layout)");
    rec->add_option("SEQUENCE_DIR", o.sequenceDir, "Recording folder")->required();
    rec->add_option("-o,--output", o.outputDir, "Output folder (created if missing)")->required();
    rec->add_option("--max-frames", o.maxFrames, "Use only the first N frames (0: all)")
        ->check(CLI::NonNegativeNumber);
    rec->add_option("--group-size", o.groupSize, "Frames per group")
        ->check(CLI::PositiveNumber)->capture_default_str();
    rec->add_option("--group-mode", o.groupMode,
                    "Alignment inside a closed group: 1 pair matches and pose graph, 2 joint "
                    "alignment, 0 none")
        ->check(CLI::Range(0, 2))->capture_default_str();
    rec->add_option("--global-mode", o.globalMode,
                    "Background optimisation: 0 none (no loop closing), 1 pose graph over groups, "
                    "2 over frames")
        ->check(CLI::Range(0, 2))->capture_default_str();
    rec->add_option("--levels", o.levels, "Pyramid levels of the dense match")
        ->check(CLI::Range(1, 6))->capture_default_str();
    rec->add_option("--match-distance", o.matchDistance,
                    "Largest point distance of the dense match at the finest level, metres "
                    "(doubled per coarser level, at most four times)")
        ->check(CLI::PositiveNumber)->capture_default_str();
    rec->add_option("--iterations", o.iterations, "Dense match iterations per level")
        ->check(CLI::PositiveNumber)->capture_default_str();
    rec->add_option("--workers", o.workers, "Threads that decode frames and build pyramids")
        ->check(CLI::PositiveNumber)->capture_default_str();
    rec->add_option("--threads", o.threads,
                    "Threads of the library's parallel loops (0: the library's choice)")
        ->check(CLI::NonNegativeNumber)->capture_default_str();
    rec->add_option("--color-weight", o.colorWeight,
                    "Weight of the photometric term, 0 to 1 (default: 0.3 when colour and depth "
                    "share their time stamps, as in the synthetic folders; 0 otherwise, as for "
                    "Kinect v1 recordings, whose colour lags the depth)")
        ->check(CLI::Range(0.0, 1.0));
    rec->add_option("--cache", o.cacheFile, "Spill file: frame images leave memory once used");
    rec->add_option("--voxel", o.voxelSize, "Voxel size of the fused map, metres")
        ->check(CLI::PositiveNumber)->capture_default_str();
    rec->add_flag("--refine", o.refine,
                  "Also refine the map (group and global point alignment) and write "
                  "map_refined.ply and trajectory_refined.txt");
    rec->add_flag("--per-frame-clouds", o.perFrameClouds,
                  "Write each frame's points to OUT_DIR/clouds/frame-NNNNNN.ply");
    rec->add_flag("!--no-keypoint-tracking", o.sequentialKeyPoints,
                  "Start each frame-to-frame match from the identity, not from key points");
    rec->add_option("--fx", o.camera.fx, "Focal length x (used when the folder does not say)");
    rec->add_option("--fy", o.camera.fy, "Focal length y (used when the folder does not say)");
    rec->add_option("--cx", o.camera.cx, "Principal point x (used when the folder does not say)");
    rec->add_option("--cy", o.camera.cy, "Principal point y (used when the folder does not say)");
    rec->add_option("--depth-scale", o.camera.depthUnitsPerMetre,
                    "Depth units per metre (used when the folder does not say)");
    rec->add_flag("--verbose", o.verbose, "Show the engine's own log lines");
    rec->add_flag("-q,--quiet", o.quiet, "No progress line");

    std::string trajectoryFile, truthDir;
    CLI::App* eval = app.add_subcommand(
        "evaluate", "ATE and RPE of a TUM trajectory file against a recording's ground truth");
    eval->add_option("TRAJECTORY", trajectoryFile, "TUM trajectory: time tx ty tz qx qy qz qw")
        ->required();
    eval->add_option("SEQUENCE_DIR", truthDir, "Recording folder with ground truth")->required();

    CLI11_PARSE(app, argc, argv);
    if (*eval) {
        try {
            const kestor_cli::Sequence seq = kestor_cli::openSequence(truthDir, {});
            std::vector<kestor_cli::TimedPose> truth;
            for (const auto& f : seq.frames) {
                if (!f.hasTruth) continue;
                kestor_cli::TimedPose t;
                t.timestamp = f.timestamp;
                std::copy(f.truth, f.truth + 12, t.pose);
                truth.push_back(t);
            }
            if (truth.empty()) throw kestor_cli::InputError("no ground truth in " + truthDir);
            std::fputs(kestor_cli::formatReport(trajectoryFile,
                                                kestor_cli::compareTrajectories(
                                                    kestor_cli::readTum(trajectoryFile), truth))
                           .c_str(),
                       stdout);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "kestor: error: %s\n", e.what());
            return 2;
        }
        return 0;
    }
    try {
        const kestor_cli::ReconstructSummary s = kestor_cli::reconstruct(o);
        std::printf("kestor: %d frames read, %d tracked, %d lost, %d relocalised, %d groups, "
                    "%.1f s (%.1f fps), colour weight %.1f",
                    s.framesRead, s.tracked, s.lost, s.relocalised, s.groups, s.seconds,
                    s.framesPerSecond, s.colorWeight);
        if (s.hasTruth)
            std::printf(", ATE %.2f mm, RPE %.2f mm / %.3f deg", s.ateRmse * 1e3,
                        s.rpeTranslationRmse * 1e3, s.rpeRotationRmse);
        std::printf("; output in %s\n", o.outputDir.c_str());
    } catch (const kestor_cli::InputError& e) {
        std::fprintf(stderr, "kestor: error: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestor: error: %s\n", e.what());
        return 1;
    }
    return 0;
}
