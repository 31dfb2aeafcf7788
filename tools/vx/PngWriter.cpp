#include "PngWriter.h"

#include <cstring>

#include <png.h>

namespace vxtool {

bool WriteGrayPng(std::string const& path, int width, int height,
                  std::vector<unsigned char> const& pixels, std::string* reason) {
    if (width < 1 || height < 1 || pixels.size() != (size_t)width * (size_t)height) {
        *reason = "bad image size";
        return false;
    }
    // The simplified API keeps libpng's longjmp error handling inside libpng.
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = (png_uint_32)width;
    image.height = (png_uint_32)height;
    image.format = PNG_FORMAT_GRAY;
    if (!png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), width, nullptr)) {
        *reason = image.message;
        png_image_free(&image);
        return false;
    }
    return true;
}

}  // namespace vxtool
