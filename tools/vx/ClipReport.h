#ifndef VXTOOL_CLIPREPORT_H
#define VXTOOL_CLIPREPORT_H

#include <string>
#include <vector>

#include "Volume.h"

namespace vxtool {

// One clipping object asked for on the command line, in physical mm.
struct ClipSpec {
    enum class Kind { Sphere, Plane } kind;
    float v[4];   // sphere: centre x, y, z and radius; plane: a, b, c, d (a x + b y + c z + d <= 0 kept)
    std::string text;
};

// Prints, for each object alone and for all of them together, the share of
// the volume's scanlines that the clipping bounds keep at least one voxel of.
void ReportClipping(Volume& vol, std::vector<ClipSpec> const& clips);

}  // namespace vxtool

#endif
