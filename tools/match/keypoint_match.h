#pragma once
// Key points for the online engine: ORB corners with 3-D positions, a pair estimate by RANSAC and a
// similarity score, plus ready-made engine callbacks built on them.
//
// Per frame (once, on the worker that fills it): ORB key points on the colour image, their
// 256-bit descriptors unpacked to 0/1 floats (so the Euclidean distance of KESTORMatchDescriptor
// is the square root of the Hamming distance), and their 3-D points and normals from
// KESTORCvtUVToPointFromDepth. Key points without a depth are dropped.
//
// Poses are interface poses: 12 doubles, row-major 3x4. A pair estimate is the pose of the second
// frame in the coordinates of the first (it carries the second frame's points into the first).
#include <atomic>
#include <cstdint>
#include <vector>

#include "kestor.h"

namespace kestor_match {

constexpr int kDescriptorDimension = 256;

struct KeyPointSettings {
    int maxKeyPoints = 600;        // ORB features asked for per frame
    int ransacIterations = 1000;   // hypotheses drawn per pair
    double edgeRatio = 0.85;       // triangle side ratio limit of the RANSAC sampler
    double inlierDistance = 0.02;  // metres
    int minInliers = 15;           // fewer inliers: no estimate
    int goodMatchBits = 48;        // Hamming distance under which a match counts for the score
};

// One frame's key points: `count()` entries of 3 floats (points, normals, camera coordinates,
// metres) and kDescriptorDimension floats (descriptors).
struct KeyPointSet {
    std::vector<float> points;
    std::vector<float> normals;
    std::vector<float> descriptors;
    int count() const { return int(points.size() / 3); }
};

// Detects and back-projects the key points of one frame. `rgb` is 3 bytes a pixel, `depth` metres
// (0 = none), `K` the row-major 3x3 camera. Replaces what `out` held.
void extractKeyPoints(const uint8_t* rgb, const float* depth, int width, int height,
                      const double K[9], const KeyPointSettings& settings, KeyPointSet& out);

struct PairEstimate {
    bool found = false;
    int inliers = 0;
    double rt[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};  // second frame in the first's coordinates
};

// RANSAC over cross-checked descriptor matches; `found` only with at least `minInliers` inliers.
PairEstimate estimatePair(const KeyPointSet& first, const KeyPointSet& second,
                          const KeyPointSettings& settings);

// How unlike two frames look: minus the number of cross-checked matches closer than
// `goodMatchBits`. Lower is better, 0 when nothing matches.
float dissimilarity(const KeyPointSet& candidate, const KeyPointSet& current,
                    const KeyPointSettings& settings);

// What the engine's sequential match gets when the key points give no estimate (a textureless or
// dark frame): the identity, which the built-in dense match then refines from, or a refusal.
enum class SequentialFallback { Identity, Refuse };

// State shared by the engine callbacks below (the `user` argument of both). The callbacks only
// read the settings and bump atomic counters, so they are reentrant.
struct EngineMatcher {
    KeyPointSettings settings;
    SequentialFallback fallback = SequentialFallback::Identity;
    bool keyPointsForSequential = true;  // false: the sequential match always starts from identity
    std::atomic<int> estimates{0};       // calls answered with a key-point estimate
    std::atomic<int> fallbacks{0};       // sequential calls answered with the fallback
    std::atomic<int> refusals{0};        // calls refused
    std::atomic<int> calls[4] = {};      // per KESTOR_MATCH_* flag
    std::atomic<int> found[4] = {};      // calls with a key-point estimate, per flag
};

// The attach allocator pair: each frame's attach is a KeyPointSet.
void* allocKeyPointSet();
void freeKeyPointSet(void* set);

// For the fill callback: computes the frame's key points into its attach (a no-op without an
// attach or without colour).
void fillFrameKeyPoints(const KESTORFrameInfo& frame, int width, int height, const double K[9],
                        const KeyPointSettings& settings);

// KESTORPairMatchFunc: the key-point estimate when there is one. Without one, the sequential match
// (KESTOR_MATCH_SEQUENTIAL) gets the matcher's fallback; relocalisation, loop and in-group matches
// are refused. `user` is an EngineMatcher.
bool pairMatchCallback(const KESTORFrameInfo* first, const KESTORFrameInfo* second, double rt[3][4],
                       int flag, void* user);

// KESTORCalcScoreFunc: dissimilarity() of the two frames' key points. `user` is an EngineMatcher.
float scoreCallback(const KESTORFrameInfo* candidate, const KESTORFrameInfo* current, void* user);

// Installs the attach allocator, pair-match and score callbacks on an instance.
void installMatcher(void* instance, EngineMatcher& matcher);

}  // namespace kestor_match
