// PNG files of 8-bit RGBA pixels.
//
// Reading uses libpng's simplified API, which reports problems through
// png_image::message instead of printing them. Writing uses the classic API so
// that the zlib level can be chosen; its error handler jumps back without
// printing. A file is written under a temporary name beside the target and
// renamed over it, so readers see either the old file or the complete new one.
#include "ZorUtils/ZorUtils.h"

#include <fcntl.h>
#include <png.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

namespace ZOR {

namespace {

// Non-zero results of loadPNG and dumpPNG.
enum PngResult : int32_t {
    kPngOk = 0,
    kPngInvalidArgument = 1,
    kPngReadFailed = 2,    // missing, unreadable, not a PNG or damaged
    kPngTooLarge = 3,      // the picture does not fit in memory or in an int
    kPngOutOfMemory = 4,
    kPngOpenFailed = 5,    // the temporary file could not be created
    kPngEncodeFailed = 6,  // libpng or the file system failed while writing
    kPngCloseFailed = 7,
    kPngRenameFailed = 8,
};

[[noreturn]] void onPngError(png_structp png, png_const_charp /*message*/) {
    png_longjmp(png, 1);
}

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
                 PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    for (int row = 0; row < height; ++row) {
        png_write_row(png, pixels + static_cast<size_t>(row) * rowBytes);
    }
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

// Creates a file that did not exist before, beside the target. The name holds
// the process id and a per-process counter, so concurrent writers (threads or
// processes) never share one; O_EXCL guards against a stale leftover.
int createTemporary(const std::string& target, std::string& tempPath) {
    static std::atomic<unsigned long long> counter{0};
    const long pid = static_cast<long>(::getpid());
    for (int attempt = 0; attempt < 16; ++attempt) {
        tempPath = target + ".tmp-" + std::to_string(pid) + "-" +
                   std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
        const int fd = ::open(tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) {
            return fd;
        }
    }
    return -1;
}

void removeQuietly(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove(std::filesystem::path(path), ec);
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
    const std::string target(path);
    std::string tempPath;
    const int fd = createTemporary(target, tempPath);
    if (fd < 0) {
        return kPngOpenFailed;
    }
    FILE* file = ::fdopen(fd, "wb");
    if (!file) {
        ::close(fd);
        removeQuietly(tempPath);
        return kPngOpenFailed;
    }

    bool written = encodePng(file, width, height, buffer, compressionLevel);
    written = written && std::fflush(file) == 0 && std::ferror(file) == 0;
    written = written && ::fsync(::fileno(file)) == 0;
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        removeQuietly(tempPath);
        return written ? kPngCloseFailed : kPngEncodeFailed;
    }

    std::error_code ec;
    std::filesystem::rename(std::filesystem::path(tempPath), std::filesystem::path(target), ec);
    if (ec) {
        removeQuietly(tempPath);
        return kPngRenameFailed;
    }
    return kPngOk;
}

void freeImageBuffer(unsigned char* buffer) {
    std::free(buffer);
}

}  // namespace ZOR
