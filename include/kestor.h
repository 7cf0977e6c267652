/*
 * kestor: registration and fusion of RGB-D data from one calibrated camera.
 *
 * The whole public interface: 60 exported functions under undecorated C names, the records
 * that cross the boundary, the callback types and the status values. Usable from C and C++.
 *
 * Conventions at this boundary:
 *  - A camera K is 9 doubles, row-major 3x3; only K[0] fx, K[4] fy, K[2] cx, K[5] cy are read.
 *  - A pose is 12 doubles, row-major 3x4: rotation in columns 0..2, translation in column 3.
 *    p' = R p + t.
 *  - An information matrix is 36 doubles, row-major 6x6.
 *  - Images are packed: depth/gray 1 float a pixel, vertex/normal maps 3 floats, colour 3 bytes,
 *    mask 1 byte (0 means off).
 *  - Every export that reports returns one of the KESTOR_STATUS_* values below; on a failed
 *    argument check nothing is written.
 */
#ifndef KESTOR_H
#define KESTOR_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#else
#include <utility>
#endif

#if defined(_WIN32)
#define KESTOR_API __declspec(dllexport)
#else
#define KESTOR_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- status values */

enum {
    KESTOR_STATUS_OK = 0,               /* success */
    KESTOR_STATUS_FAILED = 1,           /* the operation ran and failed */
    KESTOR_STATUS_BAD_ARGUMENT = 4,     /* null required pointer, or size/count/index out of range */
    KESTOR_STATUS_NOT_AVAILABLE = 7,    /* facility not present in this build (device functions) */
    KESTOR_STATUS_NULL_INSTANCE = 9,    /* the instance handle is null */
    KESTOR_STATUS_NO_MEMORY = 10        /* the instance block could not be allocated */
};

/* Bits of the flags word of KESTORCreateInstance. Bits 0 and 1 are inverted. */
enum {
    KESTOR_FLAG_NO_MASK = 1,
    KESTOR_FLAG_NO_COLOR = 2,
    KESTOR_FLAG_DEVICE_MEMORY = 4,
    KESTOR_FLAG_GRAY = 8
};

/* What two frames handed to the pair-match function are. */
enum {
    KESTOR_MATCH_SEQUENTIAL = 0,
    KESTOR_MATCH_RELOCALIZE = 1,
    KESTOR_MATCH_GROUP = 2,
    KESTOR_MATCH_INNER = 3
};

/* ---------------------------------------------------------------- records */

/* Parameters of a fusion instance; copied as one block by KESTORSetPara / KESTORGetPara. */
typedef struct KESTORPara {
    double angleThreshold;   /* largest normal angle of a matched pair, radians (1.57) */
    double overlapThreshold; /* smallest matched share of valid points (0.3) */
    double colorWeight;      /* weight of the photometric term, clamped to 0..1 (0.3) */
    int32_t groupIterations; /* joint alignment iterations of a group in group mode 2 (10) */
    int32_t groupMode;       /* 1: pair matches and pose graph, 2: joint alignment, else none (2) */
    int32_t globalMode;      /* 0: nothing, 1: pose graph over groups, 2: over frames (1) */
    uint8_t verbose;         /* iteration tables and progress lines (1) */
    uint8_t fullLoopWeight;  /* loop edges between groups get the full weight 255 (0) */
} KESTORPara;

/* The part of a frame that the application sees. */
typedef struct KESTORFrameInfo {
    int32_t id;      /* place among all frames ever added */
    int32_t index;   /* place among accepted frames; -1 until accepted */
    int32_t groupId; /* group the frame last joined; -1 until accepted */
    void* attach;    /* what the attach allocator returned, or null */
    float* depth;    /* depth plane */
    uint8_t* mask;   /* mask plane or null */
    uint8_t* color;  /* colour plane (3 bytes a pixel) or null */
} KESTORFrameInfo;

/* The tracking result handed to the trace callback. */
typedef struct KESTORTrackInfo {
    uint8_t relocalized; /* 1 if placed by relocalisation */
    double pose[3][4];   /* pose at tracking time; zero for a lost frame */
    int64_t trackTime;   /* milliseconds the tracking step took */
    int64_t totalTime;   /* milliseconds from the frame's time stamp to the trace thread */
    float* vmap;         /* level 0 vertex map */
    float* nmap;         /* level 0 normal map */
    int32_t matchResult; /* 0 matched, 1 no frame record, 2 built-in match failed, 3 refused */
} KESTORTrackInfo;

/* A flat view of the points of one frame (id >= 0) or of the fused map (id -1). */
typedef struct KESTORPointCloud {
    int32_t id;
    int32_t count;
    const float* points;          /* 3 floats a point */
    const float* normals;         /* 3 floats a point */
    const unsigned char* colors;  /* 3 bytes a point, or null */
} KESTORPointCloud;

/* A (source index, target index) correspondence of the key-point matchers. In C++ this is
 * std::pair<int, int>; in C a struct of the same layout. */
#ifdef __cplusplus
typedef std::pair<int, int> KESTORIndexPair;
#else
typedef struct KESTORIndexPair {
    int first;
    int second;
} KESTORIndexPair;
#endif

/* ---------------------------------------------------------------- callback types */

typedef void (*KESTORProgressFunc)(int percent, bool* cancel, void* user);
typedef void (*KESTORPointsFunc)(const float* points, const float* normals, const uint8_t* colors,
                                 int count, void* user);
typedef void (*KESTORCloudFunc)(const KESTORPointCloud* cloud, void* user);
typedef void (*KESTORTraceFunc)(const KESTORFrameInfo* frame, const KESTORTrackInfo* track,
                                void* user);
typedef bool (*KESTORPairMatchFunc)(const KESTORFrameInfo* first, const KESTORFrameInfo* second,
                                    double rt[3][4], int flag, void* user);
typedef float (*KESTORCalcScoreFunc)(const KESTORFrameInfo* candidate,
                                     const KESTORFrameInfo* current, void* user);
typedef void* (*KESTORAttachAllocFunc)(void);
typedef void (*KESTORAttachFreeFunc)(void* attach);
typedef bool (*KESTORFillFunc)(KESTORFrameInfo* frame, void* user);
typedef void (*KESTORFrameFunc)(const KESTORFrameInfo* frame, const double pose[3][4], void* user);
typedef void (*KESTORIndicesFunc)(const int* indices, int count, void* user);
typedef void (*KESTORMatchesFunc)(const KESTORIndexPair* pairs, int count, void* context);

/* ---------------------------------------------------------------- frame */

KESTOR_API const char* KESTORVersion(void);
KESTOR_API void KESTORSetThreadNum(int threads);
KESTOR_API int KESTORGetThreadNum(void);

/* ---------------------------------------------------------------- instance */

KESTOR_API int KESTORCreateInstance(void** instance, const double* K, int width, int height,
                                    const double* levelDistances, const int* levelIterations,
                                    int levels, int groupSize, unsigned flags);
KESTOR_API int KESTORDestroyInstance(void* instance);
KESTOR_API int KESTORSetPara(void* instance, const KESTORPara* para);
KESTOR_API int KESTORGetPara(void* instance, KESTORPara* para);
KESTOR_API int KESTORSetTraceCallback(void* instance, KESTORTraceFunc func, void* user);
KESTOR_API int KESTORSetPairMatchFunc(void* instance, KESTORPairMatchFunc func, void* user);
KESTOR_API int KESTORSetCalcScoreFunc(void* instance, KESTORCalcScoreFunc func, void* user);
KESTOR_API int KESTORSetAttachAllocator(void* instance, KESTORAttachAllocFunc alloc,
                                        KESTORAttachFreeFunc release);
KESTOR_API int KESTORSetCachePath(void* instance, const char* path);

/* ---------------------------------------------------------------- pipeline */

KESTOR_API int KESTORStart(void* instance, int workers);
KESTOR_API int KESTORStop(void* instance);
KESTOR_API int KESTORAddFrame(void* instance, KESTORFillFunc fill, void* user);
KESTOR_API int KESTORGetFrameNum(void* instance, int* count);
KESTOR_API int KESTORGetFrame(void* instance, int index, KESTORFrameFunc func, void* user);

/* ---------------------------------------------------------------- point map */

KESTOR_API int KESTORGetPointsPerFrame(void* instance, KESTORCloudFunc callback,
                                       KESTORProgressFunc progress, void* user);
KESTOR_API int KESTORFusePointsMap(void* instance, KESTORCloudFunc callback,
                                   KESTORProgressFunc progress, void* user);
KESTOR_API int KESTOROptimizePointsMap(void* instance, double voxelSize, int iterations, int level,
                                       KESTORCloudFunc callback, KESTORProgressFunc progress,
                                       void* user);
KESTOR_API int KESTORVoxelFilter(const float* points, int count, double voxelSize,
                                 KESTORIndicesFunc callback, void* user);

/* ---------------------------------------------------------------- image kernels */

KESTOR_API int KESTORDepthToVmapNmap(const double* K, const float* depth, const uint8_t* mask,
                                     float* vmap, float* nmap, int width, int height);
KESTOR_API int KESTORCalcPyramidVmapNmap(const double* K, const float* depth, const uint8_t* color,
                                         const uint8_t* mask, float** vmaps, float** nmaps,
                                         float** grays, float** gradXs, float** gradYs, int width,
                                         int height, int levels, bool useMagnitude);
KESTOR_API int KESTORCalcGrayAndGradient(const uint8_t* color, float* gray, float* gradX,
                                         float* gradY, int width, int height, double sigma,
                                         bool useMagnitude, bool parallel);
KESTOR_API int KESTORDepthToMask(const float* depth, uint8_t* mask, int width, int height);
KESTOR_API int KESTORCvtUVToPointFromDepth(const double* K, const float* depth, int width,
                                           int height, const float* uv, float* points,
                                           float* normals, int count, bool parallel);
KESTOR_API int KESTORColorDepthToPoints(const float* depth, const uint8_t* color,
                                        const uint8_t* mask, int width, int height,
                                        const double* K, const double* rt,
                                        KESTORPointsFunc callback, void* user);

/* ---------------------------------------------------------------- point files */

KESTOR_API int KESTORWritePoints(const char* path, const float* points, const float* normals,
                                 const uint8_t* colors, int count);
KESTOR_API int KESTORWriteColorDepthToPoints(const char* path, const float* depth,
                                             const uint8_t* color, const uint8_t* mask, int width,
                                             int height, const double* K, const double* rt);

/* ---------------------------------------------------------------- pair registration */

KESTOR_API int KESTORMatchPair(const float* vertices1, const float* normals1, const float* gray1,
                               const float* vertices2, const float* normals2, const float* gray2,
                               const int* sizes, const double* K, double* rt, double* info,
                               int iterations, double maxDistance, double maxAngle,
                               double minScore, double colorWeight, bool parallel, bool verbose,
                               KESTORProgressFunc progress, void* user);
KESTOR_API int KESTORMatchPairDepth(const float* depth1, const uint8_t* color1,
                                    const uint8_t* mask1, const float* depth2,
                                    const uint8_t* color2, const uint8_t* mask2, int width,
                                    int height, const double* K, double* rt, double* info,
                                    int iterations, double maxDistance, double maxAngle,
                                    double minScore, double colorWeight, bool parallel,
                                    bool verbose, KESTORProgressFunc progress, void* user);
KESTOR_API int KESTORMatchPairVmapNmap(const float* vmap1, const float* nmap1, const float* gray1,
                                       const float* gradX1, const float* gradY1,
                                       const float* vmap2, const float* nmap2, const float* gray2,
                                       int width, int height, const double* K, double* rt,
                                       double* info, int iterations, double maxDistance,
                                       double maxAngle, double minScore, double colorWeight,
                                       bool parallel, bool verbose, KESTORProgressFunc progress,
                                       void* user);
KESTOR_API int KESTORMatchPairVmapNmapPyramid(
    const float* const* vmaps1, const float* const* nmaps1, const float* const* grays1,
    const float* const* gradXs1, const float* const* gradYs1, const float* const* vmaps2,
    const float* const* nmaps2, const float* const* grays2, int width, int height, const double* K,
    double* rt, double* info, const int* iterationsPerLevel, const double* maxDistancePerLevel,
    int levels, double maxAngle, double minScore, double colorWeight, bool parallel, bool verbose,
    KESTORProgressFunc progress, void* user);

KESTOR_API int KESTORCalcPointMatchInfo(const float* points1, const float* normals1, int count1,
                                        const float* points2, const float* normals2, int count2,
                                        const double* rt, double* info, double maxDistance,
                                        double maxAngle, double minScore);
KESTOR_API int KESTORCalcVmapMatchInfo(const float* vmap1, const float* nmap1, const float* vmap2,
                                       const float* nmap2, int width, int height, const double* k,
                                       const double* rt, double* info, double maxDistance,
                                       double maxAngle, double minScore);
KESTOR_API int KESTORCalcVmapSelfMatchInfo(const float* vmap, int width, int height,
                                           const double* rt, double* info);

/* ---------------------------------------------------------------- multi-frame registration */

KESTOR_API int KESTORMatchMulti(const float* const* points, const float* const* normals,
                                const float* const* intensities, const int* sizes,
                                const double* K, double* rts, int frameCount, int iterations,
                                double maxDistance, double maxAngle, double minScore,
                                double colorWeight, int refreshInterval, bool parallel, bool log,
                                KESTORProgressFunc progress, void* user);
KESTOR_API int KESTORMatchMultiDepth(const float* const* depths, const unsigned char* const* colors,
                                     const unsigned char* const* masks, int width, int height,
                                     const double* K, double* rts, int frameCount, int iterations,
                                     double maxDistance, double maxAngle, double minScore,
                                     double colorWeight, int refreshInterval, bool parallel,
                                     bool log, KESTORProgressFunc progress, void* user);
KESTOR_API int KESTORMatchMultiVmapNmap(const float* const* vmaps, const float* const* nmaps,
                                        const float* const* grays, const float* const* gradXs,
                                        const float* const* gradYs, int width, int height,
                                        const double* K, double* rts, int frameCount,
                                        int iterations, double maxDistance, double maxAngle,
                                        double minScore, double colorWeight, int refreshInterval,
                                        bool parallel, bool log, KESTORProgressFunc progress,
                                        void* user);
KESTOR_API int KESTORMatchMultiDepthInGroup(const float* const* depths,
                                            const unsigned char* const* colors,
                                            const unsigned char* const* masks, int width,
                                            int height, const double* K, double* rts,
                                            const int* groupIds, int frameCount, int iterations,
                                            double maxDistance, double maxAngle, double minScore,
                                            double colorWeight, bool parallel, bool log,
                                            KESTORProgressFunc progress, void* user);
KESTOR_API int KESTORMatchMultiVmapNmapInGroup(
    const float* const* vmaps, const float* const* nmaps, const float* const* grays,
    const float* const* gradXs, const float* const* gradYs, int width, int height, const double* K,
    double* rts, const int* groupIds, int frameCount, int iterations, double maxDistance,
    double maxAngle, double minScore, double colorWeight, bool parallel, bool log,
    KESTORProgressFunc progress, void* user);

/* ---------------------------------------------------------------- key points */

KESTOR_API int KESTORAbsoluteOrientation(const float* targetPoints, const float* sourcePoints,
                                         int count, double* result);
KESTOR_API int KESTORMatchDescriptor(const float* trainDescriptors, int trainCount,
                                     const float* queryDescriptors, int* matches,
                                     float* distances, int queryCount, int dimension,
                                     bool crossCheck, bool useThreads);
KESTOR_API int KESTORMatchKeyPointsRansac(const float* targetPoints, const float* targetNormals,
                                          const float* targetDescriptors, int targetCount,
                                          const float* sourcePoints, const float* sourceNormals,
                                          const float* sourceDescriptors, int sourceCount,
                                          int dimension, double* result, int iterations,
                                          double edgeRatio, double inlierDistance,
                                          bool crossCheck, bool useThreads,
                                          KESTORMatchesFunc onMatches, void* context);
KESTOR_API int KESTORMatchKeyPointsIterative(const float* targetPoints,
                                             const float* targetDescriptors, int targetCount,
                                             const float* sourcePoints,
                                             const float* sourceDescriptors, int sourceCount,
                                             int dimension, double* result, int iterations,
                                             double initialScale, double finalDistance,
                                             bool crossCheck, bool useThreads,
                                             KESTORMatchesFunc onMatches, void* context);

/* ---------------------------------------------------------------- pose graph */

/* edgePairs: 2 ints an edge; edgeTransforms: 12 doubles an edge; edgeInformation: 36 doubles an
 * edge; poses: 12 doubles a pose. */
KESTOR_API int KESTOROptimizePoseGraph(const int* edgePairs, const double* edgeTransforms,
                                       const double* edgeInformation,
                                       const unsigned char* edgeFlags, double* edgeWeights,
                                       int edgeCount, double* poses, int poseCount,
                                       int maxIterations, double preference, double distanceScale,
                                       double pruneThreshold, bool useThreads, bool verbose,
                                       KESTORProgressFunc progress, void* progressContext);
KESTOR_API int KESTORFindConnectedGroups(const int* pairs, int pairCount, int* groups,
                                         int nodeCount);
KESTOR_API int KESTORFindInitRTsFromPairMatch(const int* pairs, const double* pairTransforms,
                                              const double* pairScores, int pairCount,
                                              double* poses, int nodeCount,
                                              bool preferNeighbours);

/* ---------------------------------------------------------------- device interface
 * This build has no device code: the status functions return KESTOR_STATUS_NOT_AVAILABLE,
 * cuKESTORMalloc returns null and the copy functions do nothing. */

KESTOR_API int cuKESTORDepthToVmapNmap(const double* K, const float* depth, const uint8_t* mask,
                                       float* vmap, float* nmap, int width, int height);
KESTOR_API int cuKESTORCalcPyramidVmapNmap(const double* K, const float* depth,
                                           const uint8_t* color, const uint8_t* mask,
                                           float** vmaps, float** nmaps, float** grays,
                                           float** gradXs, float** gradYs, int width, int height,
                                           int levels, bool useMagnitude);
KESTOR_API int cuKESTORCalcGrayAndGradient(const uint8_t* color, float* gray, float* gradX,
                                           float* gradY, int width, int height, double sigma,
                                           bool useMagnitude, bool parallel);
KESTOR_API int cuKESTORCalcVmapMatchInfo(const float* vmap1, const float* nmap1,
                                         const float* vmap2, const float* nmap2, int width,
                                         int height, const double* k, const double* rt,
                                         double* info, double maxDistance, double maxAngle,
                                         double minScore);
KESTOR_API int cuKESTORCalcVmapSelfMatchInfo(const float* vmap, int width, int height,
                                             const double* rt, double* info);
KESTOR_API int cuKESTORMatchPairVmapNmapPyramid(
    const float* const* vmaps1, const float* const* nmaps1, const float* const* grays1,
    const float* const* gradXs1, const float* const* gradYs1, const float* const* vmaps2,
    const float* const* nmaps2, const float* const* grays2, int width, int height, const double* K,
    double* rt, double* info, const int* iterationsPerLevel, const double* maxDistancePerLevel,
    int levels, double maxAngle, double minScore, double colorWeight, bool parallel, bool verbose,
    KESTORProgressFunc progress, void* user);
KESTOR_API int cuKESTORMatchMultiVmapNmap(const float* const* vmaps, const float* const* nmaps,
                                          const float* const* grays, const float* const* gradXs,
                                          const float* const* gradYs, int width, int height,
                                          const double* K, double* rts, int frameCount,
                                          int iterations, double maxDistance, double maxAngle,
                                          double minScore, double colorWeight, int refreshInterval,
                                          bool parallel, bool log, KESTORProgressFunc progress,
                                          void* user);
KESTOR_API void* cuKESTORMalloc(size_t bytes);
KESTOR_API void cuKESTORFree(void* pointer);
KESTOR_API void cuKESTORMemcpy(void* destination, const void* source, size_t bytes);
KESTOR_API void cuKESTORUpload(void* deviceDestination, const void* hostSource, size_t bytes);
KESTOR_API void cuKESTORDownload(void* hostDestination, const void* deviceSource, size_t bytes);

#ifdef __cplusplus
}
#endif

#endif /* KESTOR_H */
