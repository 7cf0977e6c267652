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
    int globalMode = 1;          // 0: none, 1: pose graph over groups, 2: over frames
    int levels = 3;              // pyramid levels of the dense match
    double matchDistance = 0.08; // metres: largest point distance of the dense match at the finest
                                 // level (twice that one level up, four times above); also the
                                 // joint alignment's and the pose graph's distance
    int iterations = 10;         // dense match iterations per level
    int workers = 2;             // decoding and pyramid threads
    double colorWeight = 0.3;    // photometric term; 0 builds no gray maps
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
    bool hasTruth = false;
    double ateRmse = 0, rpeTranslationRmse = 0, rpeRotationRmse = 0;
};

// Runs the whole reconstruction. Throws InputError for bad input or an output that cannot be
// written; nothing is left half-written.
ReconstructSummary reconstruct(const ReconstructOptions& options);

}  // namespace kestor_cli
