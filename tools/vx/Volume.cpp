#include "Volume.h"

#include <algorithm>
#include <climits>

namespace vxtool {

void Volume::Allocate(int const d[3], float const s[3], float const o[3]) {
    float corners[4][3];
    for (int a = 0; a < 3; ++a) {
        dims[a] = d[a];
        spacing[a] = s[a];
        origin[a] = o[a];
    }
    for (int p = 0; p < 4; ++p)
        for (int a = 0; a < 3; ++a)
            corners[p][a] = o[a];
    for (int a = 0; a < 3; ++a)
        corners[a + 1][a] += (float)d[a] * s[a];
    VX_PhysBox phys(corners);
    box = VX_Box(phys, d[0], d[1], d[2]);
    data = std::make_unique<VX_VolData>(&box);
    data->Allocate();
}

void Volume::UpdateRange() {
    int lo = SHRT_MAX, hi = SHRT_MIN;
    long long n = (long long)dims[0] * dims[1];
    for (int z = 0; z < dims[2]; ++z) {
        short const* s = data->slices[z];
        for (long long i = 0; i < n; ++i) {
            lo = std::min(lo, (int)s[i]);
            hi = std::max(hi, (int)s[i]);
        }
    }
    data->SetMinPixelValue(lo);
    data->SetMaxPixelValue(hi);
}

VX_3Vec Volume::Center() const {
    return VX_3Vec(origin[0] + 0.5f * (float)dims[0] * spacing[0],
                   origin[1] + 0.5f * (float)dims[1] * spacing[1],
                   origin[2] + 0.5f * (float)dims[2] * spacing[2], 0);
}

float Volume::LargestExtent() const {
    float e = 0;
    for (int a = 0; a < 3; ++a)
        e = std::max(e, (float)dims[a] * spacing[a]);
    return e;
}

}  // namespace vxtool
