#include "cli/reconstruct.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "cli/frame_decoder.h"
#include "cli/output_files.h"
#include "cli/trajectory.h"
#include "cli/trajectory_svg.h"
#include "kestor.h"

namespace kestor_cli {

namespace {

using Clock = std::chrono::steady_clock;

// Everything the callbacks share. The fill callback runs on several workers at once; the trace
// callback runs on one thread, in tracking order.
struct Run {
    const Sequence* seq = nullptr;
    std::vector<double> K;
    int width = 0, height = 0;
    kestor_match::EngineMatcher matcher;

    std::atomic<int> read{0}, refused{0}, traced{0}, tracked{0}, lost{0}, relocalised{0};
    std::atomic<int> groups{0};
    std::vector<TimedPose> trackedPoses;  // trace thread only, read after KESTORStop

    std::mutex errorLock;
    std::string error;
    std::atomic<bool> failed{false};

    void fail(const std::string& message) {
        std::lock_guard<std::mutex> hold(errorLock);
        if (error.empty()) error = message;
        failed = true;
    }
};

struct FillJob {
    Run* run;
    int index;
};

// Decodes the frame's images straight into its planes, then finds its key points. A failure
// drops the frame and stops the run (an exception must not leave a worker).
bool fillFrame(KESTORFrameInfo* frame, void* user) {
    const FillJob& job = *static_cast<const FillJob*>(user);
    Run& run = *job.run;
    const SequenceFrame& f = run.seq->frames[size_t(job.index)];
    try {
        decodeDepth(f.depthPath, run.seq->camera.depthUnitsPerMetre, run.width, run.height,
                    frame->depth);
        if (frame->color) decodeColor(f.colorPath, run.width, run.height, frame->color);
        kestor_match::fillFrameKeyPoints(*frame, run.width, run.height, run.K.data(),
                                         run.matcher.settings);
    } catch (const std::exception& e) {
        run.fail(e.what());
        run.refused.fetch_add(1);
        return false;
    }
    run.read.fetch_add(1);
    return true;
}

void traceFrame(const KESTORFrameInfo* frame, const KESTORTrackInfo* track, void* user) {
    Run& run = *static_cast<Run*>(user);
    if (frame->index < 0) {
        run.lost.fetch_add(1);
    } else {
        run.tracked.fetch_add(1);
        if (track->relocalized) run.relocalised.fetch_add(1);
        TimedPose p;
        p.timestamp = run.seq->frames[size_t(frame->id)].timestamp;
        std::copy(&track->pose[0][0], &track->pose[0][0] + 12, p.pose);
        run.trackedPoses.push_back(p);
        if (frame->groupId + 1 > run.groups) run.groups = frame->groupId + 1;
    }
    run.traced.fetch_add(1);
}

class ProgressLine {
public:
    ProgressLine(const Run& run, bool quiet) : run_(run), quiet_(quiet), tty_(isatty(2)) {}

    void update(bool force = false) {
        if (quiet_) return;
        const auto now = Clock::now();
        const double sinceLast = std::chrono::duration<double>(now - last_).count();
        if (!force && sinceLast < (tty_ ? 0.25 : 5.0)) return;
        last_ = now;
        std::fprintf(stderr,
                     "%sframes read %d/%zu  tracked %d  lost %d  relocalised %d  groups %d  "
                     "loop checks %d (matched %d)  %.1f fps%s",
                     tty_ ? "\r" : "", run_.read.load(), run_.seq->frames.size(),
                     run_.tracked.load(), run_.lost.load(), run_.relocalised.load(),
                     run_.groups.load(), run_.matcher.calls[KESTOR_MATCH_GROUP].load(),
                     run_.matcher.found[KESTOR_MATCH_GROUP].load(), framesPerSecond(),
                     tty_ ? "   " : "\n");
        std::fflush(stderr);
    }
    void finish() {
        update(true);
        if (!quiet_ && tty_) std::fputc('\n', stderr);
    }
    double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }
    double framesPerSecond() const {
        const double s = seconds();
        return s > 0 ? run_.traced.load() / s : 0;
    }

private:
    const Run& run_;
    bool quiet_, tty_;
    Clock::time_point start_ = Clock::now(), last_ = Clock::now() - std::chrono::hours(1);
};

// The engine's current poses of the accepted frames, and each one's place in the sequence (frames
// are added in sequence order, so a frame's id is that place).
std::vector<TimedPose> finalPoses(void* instance, const Sequence& seq,
                                  std::vector<int>* frameIds = nullptr) {
    struct Collect {
        const Sequence* seq;
        std::vector<TimedPose> poses;
        std::vector<int> ids;
    } collect{&seq, {}, {}};
    KESTORGetFrame(
        instance, -1,
        [](const KESTORFrameInfo* frame, const double pose[3][4], void* user) {
            auto& c = *static_cast<Collect*>(user);
            TimedPose p;
            p.timestamp = c.seq->frames[size_t(frame->id)].timestamp;
            std::copy(&pose[0][0], &pose[0][0] + 12, p.pose);
            c.poses.push_back(p);
            c.ids.push_back(frame->id);
        },
        &collect);
    if (frameIds) *frameIds = collect.ids;
    return collect.poses;
}

// The fused map, thinned on a voxel grid, written as PLY. Returns the number of points written.
int writeFusedMap(void* instance, const std::string& path, double voxelSize) {
    struct Job {
        std::string path;
        double voxelSize;
        int written = 0;
        std::string error;
    } job{path, voxelSize, 0, {}};
    KESTORFusePointsMap(
        instance,
        [](const KESTORPointCloud* cloud, void* user) {
            auto& job = *static_cast<Job*>(user);
            if (cloud->count < 1) return;
            struct Kept {
                std::vector<int> indices;
            } kept;
            KESTORVoxelFilter(
                cloud->points, cloud->count, job.voxelSize,
                [](const int* indices, int count, void* u) {
                    static_cast<Kept*>(u)->indices.assign(indices, indices + count);
                },
                &kept);
            const size_t n = kept.indices.size();
            if (n == 0) return;
            std::vector<float> points(3 * n), normals(3 * n);
            std::vector<uint8_t> colors(cloud->colors ? 3 * n : 0);
            for (size_t k = 0; k < n; ++k) {
                const size_t i = size_t(kept.indices[k]);
                std::copy(cloud->points + 3 * i, cloud->points + 3 * i + 3, &points[3 * k]);
                std::copy(cloud->normals + 3 * i, cloud->normals + 3 * i + 3, &normals[3 * k]);
                if (cloud->colors)
                    std::copy(cloud->colors + 3 * i, cloud->colors + 3 * i + 3, &colors[3 * k]);
            }
            try {
                writePlyFile(job.path, points.data(), normals.data(),
                             colors.empty() ? nullptr : colors.data(), int(n));
                job.written = int(n);
            } catch (const std::exception& e) {
                job.error = e.what();
            }
        },
        nullptr, &job);
    if (!job.error.empty()) throw InputError(job.error);
    return job.written;
}

void writePerFrameClouds(void* instance, const std::string& dir,
                         const std::vector<int>& frameIds) {
    std::filesystem::create_directories(dir);
    struct Job {
        std::string dir;
        const std::vector<int>* ids;
        std::string error;
    } job{dir, &frameIds, {}};
    KESTORGetPointsPerFrame(
        instance,
        [](const KESTORPointCloud* cloud, void* user) {
            auto& job = *static_cast<Job*>(user);
            if (cloud->count < 1 || !job.error.empty()) return;
            char name[48];
            std::snprintf(name, sizeof name, "/frame-%06d.ply", (*job.ids)[size_t(cloud->id)]);
            try {
                writePlyFile(job.dir + name, cloud->points, cloud->normals, cloud->colors,
                             cloud->count);
            } catch (const std::exception& e) {
                job.error = e.what();
            }
        },
        nullptr, &job);
    if (!job.error.empty()) throw InputError(job.error);
}

void createInstance(void** instance, const ReconstructOptions& o, const Run& run, bool color,
                    double colorWeight) {
    // Finest level first: the coarse levels take the large steps, the fine ones polish.
    std::vector<double> distances;
    std::vector<int> iterations;
    for (int l = 0; l < o.levels; ++l) {
        distances.push_back(o.matchDistance * (1 << std::min(l, 2)));
        iterations.push_back(o.iterations);
    }
    unsigned flags = KESTOR_FLAG_NO_MASK;
    if (!color) flags |= KESTOR_FLAG_NO_COLOR;
    else if (colorWeight > 0) flags |= KESTOR_FLAG_GRAY;
    if (KESTORCreateInstance(instance, run.K.data(), run.width, run.height, distances.data(),
                             iterations.data(), o.levels, o.groupSize, flags) != KESTOR_STATUS_OK)
        throw std::runtime_error("the engine could not be created");
    KESTORPara para;
    KESTORGetPara(*instance, &para);
    para.colorWeight = colorWeight;
    para.groupMode = o.groupMode;
    para.globalMode = o.globalMode;
    para.verbose = o.verbose ? 1 : 0;
    KESTORSetPara(*instance, &para);
}

}  // namespace

ReconstructSummary reconstruct(const ReconstructOptions& o) {
    if (o.groupSize < 1 || o.levels < 1 || o.workers < 1 || o.voxelSize <= 0 || o.colorWeight > 1 ||
        o.matchDistance <= 0 || o.iterations < 1)
        throw InputError("group size, levels, workers and voxel size must be positive");
    const Sequence seq = openSequence(o.sequenceDir, o.camera, o.maxFrames);
    prepareOutputFolder(o.outputDir);

    Run run;
    run.seq = &seq;
    run.K = seq.camera.matrix();
    run.width = seq.camera.width;
    run.height = seq.camera.height;
    int firstWidth = 0, firstHeight = 0;
    depthImageSize(seq.frames[0].depthPath, firstWidth, firstHeight);
    if (run.width == 0) {
        run.width = firstWidth;
        run.height = firstHeight;
    } else if (run.width != firstWidth || run.height != firstHeight) {
        throw InputError("depth image is " + std::to_string(firstWidth) + "x" +
                         std::to_string(firstHeight) + ", the folder's intrinsics say " +
                         std::to_string(run.width) + "x" + std::to_string(run.height) + ": " +
                         seq.frames[0].depthPath);
    }
    run.matcher.keyPointsForSequential = o.sequentialKeyPoints;
    const bool color = seq.hasColor();
    const double colorWeight =
        !color ? 0.0 : o.colorWeight >= 0 ? o.colorWeight : seq.colorSynchronous() ? 0.3 : 0.0;

    if (o.threads > 0) KESTORSetThreadNum(o.threads);
    void* instance = nullptr;
    createInstance(&instance, o, run, color, colorWeight);
    if (!o.cacheFile.empty()) KESTORSetCachePath(instance, o.cacheFile.c_str());
    kestor_match::installMatcher(instance, run.matcher);
    KESTORSetTraceCallback(instance, traceFrame, &run);

    std::vector<FillJob> jobs(seq.frames.size());
    ProgressLine progress(run, o.quiet);
    KESTORStart(instance, o.workers);
    const int backlog = 2 * o.workers + 2;  // frames in flight: bounds memory, keeps workers busy
    for (size_t i = 0; i < seq.frames.size() && !run.failed; ++i) {
        while (int(i) - run.traced - run.refused > backlog && !run.failed) {
            progress.update();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        jobs[i] = {&run, int(i)};
        KESTORAddFrame(instance, fillFrame, &jobs[i]);
    }
    while (run.traced + run.refused < int(seq.frames.size()) && !run.failed) {
        progress.update();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    KESTORStop(instance);  // the last group is finished and the pose graph solved here
    progress.finish();
    ReconstructSummary summary;
    summary.seconds = progress.seconds();
    summary.framesPerSecond = progress.framesPerSecond();
    summary.colorWeight = colorWeight;
    if (run.failed) {
        KESTORDestroyInstance(instance);
        throw InputError(run.error);
    }

    std::vector<int> frameIds;
    const std::vector<TimedPose> poses = finalPoses(instance, seq, &frameIds);
    const std::string out = o.outputDir + "/";
    writeTextFile(out + "trajectory.txt", formatTum(poses));
    writeTextFile(out + "trajectory_tracked.txt", formatTum(run.trackedPoses));
    const int mapPoints = writeFusedMap(instance, out + "map.ply", o.voxelSize);
    if (mapPoints == 0) std::fprintf(stderr, "warning: the fused map is empty, map.ply not written\n");
    if (o.perFrameClouds) writePerFrameClouds(instance, out + "clouds", frameIds);

    summary.framesRead = run.read;
    summary.tracked = run.tracked;
    summary.lost = run.lost;
    summary.relocalised = run.relocalised;
    summary.groups = run.groups;

    std::vector<TimedPose> truth;
    for (const auto& f : seq.frames) {
        if (!f.hasTruth) continue;
        TimedPose t;
        t.timestamp = f.timestamp;
        std::copy(f.truth, f.truth + 12, t.pose);
        truth.push_back(t);
    }
    std::string report;
    if (!truth.empty()) {
        const TrajectoryErrors e = compareTrajectories(poses, truth);
        report += formatReport("trajectory.txt", e);
        report += "\n" + formatReport("trajectory_tracked.txt",
                                      compareTrajectories(run.trackedPoses, truth));
        writeTextFile(out + "trajectory.svg",
                      trajectorySvg(std::filesystem::path(o.sequenceDir).filename().string() +
                                        ": kestor against ground truth",
                                    e));
        summary.hasTruth = e.compared >= 2;
        summary.ateRmse = e.ateRmse;
        summary.rpeTranslationRmse = e.rpeTranslationRmse;
        summary.rpeRotationRmse = e.rpeRotationRmse;
    }

    if (o.refine) {
        KESTOROptimizePointsMap(
            instance, o.voxelSize, o.refineIterations, 1,
            [](const KESTORPointCloud*, void*) {}, nullptr, nullptr);
        const std::vector<TimedPose> refined = finalPoses(instance, seq);
        writeTextFile(out + "trajectory_refined.txt", formatTum(refined));
        writeFusedMap(instance, out + "map_refined.ply", o.voxelSize);
        if (!truth.empty())
            report += "\n" + formatReport("trajectory_refined.txt",
                                          compareTrajectories(refined, truth));
    }
    if (!report.empty()) {
        writeTextFile(out + "report.txt", report);
        std::fputs(report.c_str(), stdout);
    }
    KESTORDestroyInstance(instance);
    return summary;
}

}  // namespace kestor_cli
