#ifndef VXTOOL_VOLUMEIO_H
#define VXTOOL_VOLUMEIO_H

#include <string>

#include "Volume.h"

namespace vxtool {

// The two files of a volume on disk: NAME.raw (int16 little-endian, x fastest,
// then y, then z) and its sidecar NAME.json (dims, spacing_mm, origin_mm,
// rescale_slope, rescale_intercept).
struct VolumePaths {
    std::string raw;
    std::string json;
};

// Accepts NAME.raw, NAME.json or the stem NAME.
VolumePaths ResolveVolumePaths(std::string const& path);

// Reads a volume. On failure returns false, sets *file to the file at fault and
// *reason to one line saying why; *vol is then unspecified.
bool ReadVolume(VolumePaths const& paths, Volume* vol, std::string* file, std::string* reason);

}  // namespace vxtool

#endif
