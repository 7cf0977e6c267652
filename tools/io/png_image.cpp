#include "io/png_image.h"

#include <png.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace kestor_io {

std::vector<float> readDepthPng(const std::string& path, double unitsPerMetre, int& width,
                                int& height) {
    // The simplified libpng API converts 16-bit data to linear light, which would alter the raw
    // depth values, so depth is read through the classic API with no transforms.
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) throw std::runtime_error("cannot open " + path);
    std::unique_ptr<FILE, int (*)(FILE*)> guard(file, &std::fclose);
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw std::runtime_error("cannot decode depth PNG " + path);
    }
    png_init_io(png, file);
    png_read_info(png, info);
    width = int(png_get_image_width(png, info));
    height = int(png_get_image_height(png, info));
    const int bitDepth = png_get_bit_depth(png, info);
    const int colorType = png_get_color_type(png, info);
    if (bitDepth != 16 || colorType != PNG_COLOR_TYPE_GRAY) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw std::runtime_error("not a 16-bit gray PNG: " + path);
    }
    png_set_swap(png);  // PNG stores big-endian samples
    std::vector<uint16_t> raw(size_t(width) * size_t(height));
    std::vector<png_bytep> rows(static_cast<size_t>(height));
    for (int y = 0; y < height; ++y)
        rows[size_t(y)] = reinterpret_cast<png_bytep>(raw.data() + size_t(y) * size_t(width));
    png_read_image(png, rows.data());
    png_destroy_read_struct(&png, &info, nullptr);

    std::vector<float> depth(raw.size());
    const float scale = float(1.0 / unitsPerMetre);
    for (size_t i = 0; i < raw.size(); ++i) depth[i] = float(raw[i]) * scale;
    return depth;
}

std::vector<uint8_t> readColorPng(const std::string& path, int& width, int& height) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        throw std::runtime_error("cannot read PNG " + path + ": " + image.message);
    image.format = PNG_FORMAT_RGB;
    width = int(image.width);
    height = int(image.height);
    std::vector<uint8_t> rgb(size_t(width) * size_t(height) * 3);
    if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) {
        png_image_free(&image);
        throw std::runtime_error("cannot decode PNG " + path + ": " + image.message);
    }
    return rgb;
}

}  // namespace kestor_io
