#pragma once
// `kestor reconstruct`: runs a recording through the online engine and writes what comes out.
#include <string>

#include "cli/sequence_folder.h"
#include "match/keypoint_match.h"

namespace kestor_cli {

struct ReconstructOptions {
    std::string sequenceDir;
    std::string outputDir;
    CameraOptions camera;
    int maxFrames = 0;           // 0: all
    int groupSize = 10;          // frames per group
    int groupMode = 2;           // 1: pair matches and a pose graph, 2: joint alignment, 0: none
    int globalMode = 2;          // 0: none, 1: pose graph over groups, 2: over frames
    int levels = 3;              // pyramid levels of the dense match
    double matchDistance = 0.04; // metres: largest point distance of the dense match at the finest
                                 // level (twice that one level up, four times above); also the
                                 // joint alignment's and the pose graph's distance
    int iterations = 10;         // dense match iterations per level
    int workers = 2;             // decoding and pyramid threads
    int threads = 0;             // threads of the library's parallel loops; 0: the library's choice
    // Photometric term, 0 to 1; 0 builds no gray maps. Below 0: chosen by the recording, 0.3
    // when colour and depth share their time stamps, 0 otherwise. Measured: on TUM fr1_xyz,
    // whose colour is taken 12 to 21 ms after the depth, the term cost accuracy (ATE 3.9 mm
    // without, 6.0 mm at 0.3); on the synchronous synth-loop it is needed (9 mm without).
    double colorWeight = -1.0;
    std::string cacheFile;       // spill file for frame images; empty: keep them in memory
    double voxelSize = 0.01;     // metres, thinning of the fused map
    bool refine = false;         // also write the map refined by KESTOROptimizePointsMap
    int refineIterations = 10;
    bool perFrameClouds = false;
    bool sequentialKeyPoints = true;  // false: the sequential match starts from the identity
    bool verbose = false;             // the engine's own log lines
    bool quiet = false;               // no progress line
};

struct ReconstructSummary {
    int framesRead = 0, tracked = 0, lost = 0, relocalised = 0, groups = 0;
    double seconds = 0, framesPerSecond = 0;
    double colorWeight = 0;  // the photometric weight used
    bool hasTruth = false;
    double ateRmse = 0, rpeTranslationRmse = 0, rpeRotationRmse = 0;
};

// Runs the whole reconstruction. Throws InputError for bad input or an output that cannot be
// written; nothing is left half-written.
ReconstructSummary reconstruct(const ReconstructOptions& options);

}  // namespace kestor_cli
