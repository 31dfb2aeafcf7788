#ifndef VXTOOL_REFORMAT_H
#define VXTOOL_REFORMAT_H

#include <vector>

#include "Volume.h"

namespace vxtool {

enum class SlabMode { Average, Maximum, Minimum };

// One picture to cut from a volume. The picture is seen looking along the
// normal: its x axis points right, its y axis down and the normal into the
// screen (a right-handed frame). Its y axis is the projection of the volume's
// +y when the normal lies nearest to z, and of -z (superior up) otherwise.
struct Section {
    float center[3] = {0, 0, 0};  // mm; lands in the middle of the picture
    float normal[3] = {0, 0, 1};  // any non-zero length
    int width = 512;
    int height = 512;
    float mmpp = 1.0f;            // mm per picture pixel
    float thickness = 0.0f;       // mm; 0 for a single section
    SlabMode mode = SlabMode::Average;
    bool linear = true;           // single sections only; slabs always interpolate
    bool rotate = false;          // sample through the aligned intermediate picture
};

// Grey window on rescaled values (HU for CT).
struct Window {
    float width = 400.0f;
    float level = 40.0f;
};

// The orthonormal picture frame for a normal: rows u (picture x), v (picture y)
// and n (the unit normal), with u x v = n. False for a zero normal.
bool PictureFrame(float const normal[3], float u[3], float v[3], float n[3]);

// Samples the section with VX_MPR into width * height raw voxel values and
// gives the time of the calculation in milliseconds.
std::vector<short> RenderSection(Volume& vol, Section const& s, double* ms);

// Maps raw values to 8-bit grey: g = clamp((HU - (level - width / 2)) / width * 255),
// rounded, with HU = raw * slope + intercept.
std::vector<unsigned char> ApplyWindow(std::vector<short> const& raw, float slope,
                                       float intercept, Window const& w);

}  // namespace vxtool

#endif
