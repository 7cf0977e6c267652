#include "cli/frame_decoder.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "cli/sequence_folder.h"

namespace kestor_cli {

namespace {

cv::Mat readDepth(const std::string& path) {
    cv::Mat raw;
    try {
        raw = cv::imread(path, cv::IMREAD_UNCHANGED);
    } catch (const cv::Exception&) {
    }
    if (raw.empty()) throw InputError("cannot decode depth image " + path);
    if (raw.type() != CV_16UC1)
        throw InputError("depth image is not 16-bit single-channel: " + path);
    return raw;
}

std::string sizeText(int w, int h) { return std::to_string(w) + "x" + std::to_string(h); }

}  // namespace

void depthImageSize(const std::string& path, int& width, int& height) {
    const cv::Mat raw = readDepth(path);
    width = raw.cols;
    height = raw.rows;
}

void decodeDepth(const std::string& path, double unitsPerMetre, int width, int height,
                 float* depth) {
    const cv::Mat raw = readDepth(path);
    if (raw.cols != width || raw.rows != height)
        throw InputError("depth image is " + sizeText(raw.cols, raw.rows) + ", expected " +
                         sizeText(width, height) + ": " + path);
    const float scale = float(1.0 / unitsPerMetre);
    for (int y = 0; y < height; ++y) {
        const uint16_t* in = raw.ptr<uint16_t>(y);
        float* out = depth + size_t(y) * size_t(width);
        for (int x = 0; x < width; ++x) out[x] = in[x] == 0xFFFF ? 0.0f : float(in[x]) * scale;
    }
}

void decodeColor(const std::string& path, int width, int height, uint8_t* rgb) {
    cv::Mat bgr;
    try {
        bgr = cv::imread(path, cv::IMREAD_COLOR);
    } catch (const cv::Exception&) {
    }
    if (bgr.empty()) throw InputError("cannot decode colour image " + path);
    if (bgr.cols != width || bgr.rows != height)
        throw InputError("colour image is " + sizeText(bgr.cols, bgr.rows) + ", expected " +
                         sizeText(width, height) + ": " + path);
    cv::Mat out(height, width, CV_8UC3, rgb);  // the caller's plane, written in place
    cv::cvtColor(bgr, out, cv::COLOR_BGR2RGB);
}

}  // namespace kestor_cli
