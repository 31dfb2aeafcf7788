#ifndef VXTOOL_VOLUME_H
#define VXTOOL_VOLUME_H

#include <memory>

#include "VX.h"

namespace vxtool {

// A volume the tool works on: the library's VX_VolData on a box placed in
// physical mm, axis-aligned, with voxel (0, 0, 0)'s outer corner at origin.
struct Volume {
    int dims[3] = {0, 0, 0};
    float spacing[3] = {1, 1, 1};  // mm per voxel
    float origin[3] = {0, 0, 0};   // mm, outer corner of voxel (0, 0, 0)
    VX_Box box;
    std::unique_ptr<VX_VolData> data;

    // Builds the box from dims, spacing and origin and allocates every slice.
    // Voxels are undefined until filled; then call UpdateRange.
    void Allocate(int const d[3], float const s[3], float const o[3]);
    // Sets the volume's min and max pixel value from the voxels.
    void UpdateRange();

    float Slope() const { return data->GetRescaleSlope(); }
    float Intercept() const { return data->GetRescaleIntercept(); }
    // The physical centre of the box.
    VX_3Vec Center() const;
    // The longest edge of the box in mm.
    float LargestExtent() const;
};

// Volumes may have at most this many voxels along each axis, and at most
// kMaxSliceVoxels in one slice.
constexpr int kMaxDim = 4096;
constexpr long long kMaxSliceVoxels = 4096LL * 4096LL;

}  // namespace vxtool

#endif
