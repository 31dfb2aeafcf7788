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

// Writes NAME.raw and NAME.json (dims, spacing_mm, origin_mm, rescale_slope,
// rescale_intercept, dtype, byte_order). On failure sets *file and *reason.
bool WriteVolume(VolumePaths const& paths, Volume const& vol, std::string* file,
                 std::string* reason);

// True when path names the library's volume file (ends in .vxv).
bool IsVolumeFile(std::string const& path);

// Reads a volume file with VX_VolData::Load. The library's progress and
// error lines are kept off stdout; on failure *reason is the library's last
// message (such as "error reading slice 3") or why the header was refused.
bool ReadVolumeFile(std::string const& path, Volume* vol, std::string* reason);

// Writes a volume file with VX_VolData::Save; on failure *reason says why.
bool WriteVolumeFile(std::string const& path, Volume& vol, std::string* reason);

// Either kind of volume: a .vxv file, or NAME.raw with NAME.json. On failure
// sets *file to the file at fault and *reason to one line.
bool ReadAnyVolume(std::string const& path, Volume* vol, std::string* file, std::string* reason);

}  // namespace vxtool

#endif
