// PNG files of 8-bit RGBA pixels.
//
// Reading uses libpng's simplified API, which reports problems through
// png_image::message instead of printing them. Writing uses the classic API so
// that the zlib level can be chosen; its error handler jumps back without
// printing. A file is written whole (ZorWriteInternal.h), so readers see
// either the old file or the complete new one.
#include "ZorUtils/ZorUtils.h"

#include <png.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ZorWriteInternal.h"

namespace ZOR {

namespace {

// Non-zero results of loadPNG and dumpPNG.
enum PngResult : int32_t {
    kPngOk = 0,
    kPngInvalidArgument = 1,
    kPngReadFailed = 2,  // missing, unreadable, not a PNG or damaged
    kPngTooLarge = 3,    // the picture does not fit in memory or in an int
    kPngOutOfMemory = 4,
    kPngOpenFailed = 5,    // the temporary file could not be created
    kPngEncodeFailed = 6,  // libpng or the file system failed while writing
    kPngCloseFailed = 7,
    kPngRenameFailed = 8,
};

[[noreturn]] void onPngError(png_structp png, png_const_charp /*message*/) { png_longjmp(png, 1); }

void onPngWarning(png_structp /*png*/, png_const_charp /*message*/) {}

// Encodes the pixels into an open file. Only plain locals live across setjmp;
// none of them changes after it.
bool encodePng(FILE* file, int width, int height, const unsigned char* pixels, int compressionLevel) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, onPngError, onPngWarning);
    if (!png) {
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    if (compressionLevel >= 0 && compressionLevel <= 9) {
        png_set_compression_level(png, compressionLevel);
    }
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    for (int row = 0; row < height; ++row) {
        png_write_row(png, pixels + static_cast<size_t>(row) * rowBytes);
    }
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

int32_t loadPNG(const char* path, unsigned char** buffer, int* width, int* height) {
    if (buffer) {
        *buffer = nullptr;
    }
    if (!path || !buffer || !width || !height) {
        return kPngInvalidArgument;
    }

    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path)) {
        png_image_free(&image);
        return kPngReadFailed;
    }
    image.format = PNG_FORMAT_RGBA;

    const png_uint_32 stride = PNG_IMAGE_ROW_STRIDE(image);
    if (image.width > INT_MAX || image.height > INT_MAX || stride > INT_MAX ||
        static_cast<size_t>(image.height) > SIZE_MAX / stride) {
        png_image_free(&image);
        return kPngTooLarge;
    }
    const size_t size = static_cast<size_t>(stride) * image.height;
    auto* pixels = static_cast<unsigned char*>(std::malloc(size));
    if (!pixels) {
        png_image_free(&image);
        return kPngOutOfMemory;
    }
    if (!png_image_finish_read(&image, nullptr, pixels, static_cast<png_int_32>(stride), nullptr)) {
        png_image_free(&image);
        std::free(pixels);
        return kPngReadFailed;
    }
    // finish_read released libpng's state and closed the file.
    *buffer = pixels;
    *width = static_cast<int>(image.width);
    *height = static_cast<int>(image.height);
    return kPngOk;
}

int32_t dumpPNG(int width, int height, const unsigned char* buffer, const char* path, int compressionLevel) {
    if (!buffer || !path || *path == '\0' || width < 1 || height < 1) {
        return kPngInvalidArgument;
    }
    const write::Outcome outcome =
        write::writeWhole(path, [&](FILE* file) { return encodePng(file, width, height, buffer, compressionLevel); });
    switch (outcome.stage) {
        case write::Stage::None:
            return kPngOk;
        case write::Stage::Open:
            return kPngOpenFailed;
        case write::Stage::Write:
            return kPngEncodeFailed;
        case write::Stage::Close:
            return kPngCloseFailed;
        case write::Stage::Rename:
            return kPngRenameFailed;
    }
    return kPngEncodeFailed;
}

void freeImageBuffer(unsigned char* buffer) { std::free(buffer); }

}  // namespace ZOR
