#include "match/keypoint_match.h"

#include <cmath>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

namespace kestor_match {

namespace {

void unpackBits(const uint8_t* bytes, float* out) {
    for (int b = 0; b < kDescriptorDimension; ++b) out[b] = float((bytes[b >> 3] >> (b & 7)) & 1);
}

void keepInliers(const KESTORIndexPair* pairs, int count, void* context) {
    static_cast<std::vector<KESTORIndexPair>*>(context)->assign(pairs, pairs + count);
}

// The RANSAC answer is the pose of its best three-point sample; a least-squares fit over all of
// its inliers averages out the key points' depth noise.
void refit(const KeyPointSet& first, const KeyPointSet& second,
           const std::vector<KESTORIndexPair>& inliers, double rt[12]) {
    std::vector<float> target, source;
    for (const KESTORIndexPair& p : inliers) {
        source.insert(source.end(), &second.points[3 * size_t(p.first)],
                      &second.points[3 * size_t(p.first)] + 3);
        target.insert(target.end(), &first.points[3 * size_t(p.second)],
                      &first.points[3 * size_t(p.second)] + 3);
    }
    KESTORAbsoluteOrientation(target.data(), source.data(), int(inliers.size()), rt);
}

const KeyPointSet* keyPointsOf(const KESTORFrameInfo* frame) {
    return frame ? static_cast<const KeyPointSet*>(frame->attach) : nullptr;
}

}  // namespace

void extractKeyPoints(const uint8_t* rgb, const float* depth, int width, int height,
                      const double K[9], const KeyPointSettings& settings, KeyPointSet& out) {
    out.points.clear();
    out.normals.clear();
    out.descriptors.clear();
    if (!rgb || !depth || width < 2 || height < 2) return;

    const cv::Mat color(height, width, CV_8UC3, const_cast<uint8_t*>(rgb));
    cv::Mat gray;
    cv::cvtColor(color, gray, cv::COLOR_RGB2GRAY);
    std::vector<cv::KeyPoint> corners;
    cv::Mat descriptors;
    cv::ORB::create(settings.maxKeyPoints)->detectAndCompute(gray, cv::noArray(), corners,
                                                              descriptors);
    if (corners.empty()) return;

    const int n = int(corners.size());
    std::vector<float> uv(2 * size_t(n)), points(3 * size_t(n)), normals(3 * size_t(n));
    for (int i = 0; i < n; ++i) {
        uv[2 * i] = corners[i].pt.x;
        uv[2 * i + 1] = corners[i].pt.y;
    }
    // Runs on a worker that already shares the cores with the other workers: serial.
    KESTORCvtUVToPointFromDepth(K, depth, width, height, uv.data(), points.data(), normals.data(), n,
                                false);
    for (int i = 0; i < n; ++i) {
        const float* p = &points[3 * size_t(i)];
        const float* q = &normals[3 * size_t(i)];
        // Unresolved positions come back as NaN in both outputs.
        if (!(p[2] > 0.0f) || !std::isfinite(q[0]) || !std::isfinite(q[1]) || !std::isfinite(q[2]))
            continue;
        out.points.insert(out.points.end(), p, p + 3);
        out.normals.insert(out.normals.end(), q, q + 3);
        const size_t at = out.descriptors.size();
        out.descriptors.resize(at + kDescriptorDimension);
        unpackBits(descriptors.ptr<uint8_t>(i), &out.descriptors[at]);
    }
}

PairEstimate estimatePair(const KeyPointSet& first, const KeyPointSet& second,
                          const KeyPointSettings& settings) {
    PairEstimate estimate;
    if (first.count() < 3 || second.count() < 3) return estimate;
    double rt[12];
    std::memcpy(rt, estimate.rt, sizeof rt);
    std::vector<KESTORIndexPair> inliers;
    // The second frame is the source: the result carries its points onto the first's.
    KESTORMatchKeyPointsRansac(first.points.data(), first.normals.data(), first.descriptors.data(),
                               first.count(), second.points.data(), second.normals.data(),
                               second.descriptors.data(), second.count(), kDescriptorDimension, rt,
                               settings.ransacIterations, settings.edgeRatio,
                               settings.inlierDistance, true, false, keepInliers, &inliers);
    estimate.inliers = int(inliers.size());
    if (estimate.inliers >= settings.minInliers) {
        estimate.found = true;
        refit(first, second, inliers, rt);
        std::memcpy(estimate.rt, rt, sizeof rt);
    }
    return estimate;
}

float dissimilarity(const KeyPointSet& candidate, const KeyPointSet& current,
                    const KeyPointSettings& settings) {
    if (candidate.count() < 1 || current.count() < 1) return 0.0f;
    std::vector<int> matches(size_t(current.count()));
    std::vector<float> distances(size_t(current.count()));
    KESTORMatchDescriptor(candidate.descriptors.data(), candidate.count(),
                          current.descriptors.data(), matches.data(), distances.data(),
                          current.count(), kDescriptorDimension, true, false);
    const float limit = std::sqrt(float(settings.goodMatchBits));
    int good = 0;
    for (size_t i = 0; i < matches.size(); ++i)
        if (matches[i] >= 0 && distances[i] < limit) ++good;
    return -float(good);
}

void* allocKeyPointSet() { return new KeyPointSet(); }

void freeKeyPointSet(void* set) { delete static_cast<KeyPointSet*>(set); }

void fillFrameKeyPoints(const KESTORFrameInfo& frame, int width, int height, const double K[9],
                        const KeyPointSettings& settings) {
    auto* set = static_cast<KeyPointSet*>(frame.attach);
    if (!set) return;
    extractKeyPoints(frame.color, frame.depth, width, height, K, settings, *set);
}

bool pairMatchCallback(const KESTORFrameInfo* first, const KESTORFrameInfo* second, double rt[3][4],
                       int flag, void* user) {
    auto& matcher = *static_cast<EngineMatcher*>(user);
    const KeyPointSet* a = keyPointsOf(first);
    const KeyPointSet* b = keyPointsOf(second);
    PairEstimate estimate;
    const bool sequential = flag == KESTOR_MATCH_SEQUENTIAL;
    if (a && b && (!sequential || matcher.keyPointsForSequential))
        estimate = estimatePair(*a, *b, matcher.settings);
    const bool knownFlag = flag >= 0 && flag < 4;
    if (knownFlag) matcher.calls[flag].fetch_add(1);
    if (estimate.found) {
        matcher.estimates.fetch_add(1);
        if (knownFlag) matcher.found[flag].fetch_add(1);
    } else if (sequential && matcher.fallback == SequentialFallback::Identity) {
        // Small frame-to-frame motion: the dense match converges from the identity on its own.
        matcher.fallbacks.fetch_add(1);
    } else {
        matcher.refusals.fetch_add(1);
        return false;
    }
    std::memcpy(&rt[0][0], estimate.rt, sizeof estimate.rt);
    return true;
}

float scoreCallback(const KESTORFrameInfo* candidate, const KESTORFrameInfo* current, void* user) {
    const auto& matcher = *static_cast<const EngineMatcher*>(user);
    const KeyPointSet* a = keyPointsOf(candidate);
    const KeyPointSet* b = keyPointsOf(current);
    return a && b ? dissimilarity(*a, *b, matcher.settings) : 0.0f;
}

void installMatcher(void* instance, EngineMatcher& matcher) {
    KESTORSetAttachAllocator(instance, allocKeyPointSet, freeKeyPointSet);
    KESTORSetPairMatchFunc(instance, pairMatchCallback, &matcher);
    KESTORSetCalcScoreFunc(instance, scoreCallback, &matcher);
}

}  // namespace kestor_match
