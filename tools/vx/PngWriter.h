#ifndef VXTOOL_PNGWRITER_H
#define VXTOOL_PNGWRITER_H

#include <string>
#include <vector>

namespace vxtool {

// Writes an 8-bit grey image, width * height bytes row by row, as a PNG file.
// On failure returns false and sets *reason to one line.
bool WriteGrayPng(std::string const& path, int width, int height,
                  std::vector<unsigned char> const& pixels, std::string* reason);

}  // namespace vxtool

#endif
