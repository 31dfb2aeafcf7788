#include "Reformat.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace vxtool {

namespace {

void cross(double const a[3], double const b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

double normalize(double a[3]) {
    double len = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
    if (len > 0)
        for (int i = 0; i < 3; ++i) a[i] /= len;
    return len;
}

// The rigid transform from volume mm into picture mm: moves the centre to the
// origin, turns the frame (u, v, n) onto the axes and moves the origin to the
// middle of the picture. Row vectors: p' = p * M, so u, v, n are the columns.
VX_Mat volumeToPicture(Section const& s, float const u[3], float const v[3], float const n[3]) {
    VX_Mat m;
    float const* axes[3] = {u, v, n};
    float const shift[3] = {0.5f * (float)s.width * s.mmpp, 0.5f * (float)s.height * s.mmpp, 0};
    for (int j = 0; j < 3; ++j) {
        double dot = 0;
        for (int i = 0; i < 3; ++i) {
            m.m[i][j] = axes[j][i];
            dot += (double)s.center[i] * axes[j][i];
        }
        m.m[3][j] = (float)(shift[j] - dot);
    }
    return m;
}

}  // namespace

bool PictureFrame(float const normal[3], float u[3], float v[3], float n[3]) {
    double dn[3] = {normal[0], normal[1], normal[2]};
    if (!(normalize(dn) > 1e-12))
        return false;
    bool nearZ = std::fabs(dn[2]) >= std::fabs(dn[0]) && std::fabs(dn[2]) >= std::fabs(dn[1]);
    double down[3] = {0, nearZ ? 1.0 : 0.0, nearZ ? 0.0 : -1.0};
    double along = down[0] * dn[0] + down[1] * dn[1] + down[2] * dn[2];
    double dv[3], du[3];
    for (int i = 0; i < 3; ++i) dv[i] = down[i] - along * dn[i];
    normalize(dv);
    cross(dv, dn, du);
    normalize(du);
    for (int i = 0; i < 3; ++i) {
        u[i] = (float)du[i];
        v[i] = (float)dv[i];
        n[i] = (float)dn[i];
    }
    return true;
}

std::vector<short> RenderSection(Volume& vol, Section const& s, double* ms) {
    std::vector<short> out((size_t)s.width * (size_t)s.height);
    float u[3], v[3], n[3];
    if (!PictureFrame(s.normal, u, v, n)) {
        *ms = 0;
        std::fill(out.begin(), out.end(), (short)vol.data->GetMinPixelValue());
        return out;
    }
    VX_PhysBox picture((float)s.width * s.mmpp, (float)s.height * s.mmpp, 1.0f);

    VX_MPR mpr;
    mpr.volData = vol.data.get();
    mpr.volBox = vol.box;
    mpr.trans = volumeToPicture(s, u, v, n);
    mpr.imageBox = VX_Box(picture, s.width, s.height, 1);
    mpr.output = out.data();
    mpr.slabThickness = s.thickness;
    // A slab reads a cell past the narrow nearest-neighbour margin: slabs
    // always take the trilinear bounds.
    mpr.interpolation = (s.linear || s.thickness > 0) ? 1 : 0;
    mpr.slabMIP = s.mode == SlabMode::Maximum;
    mpr.slabMin = s.mode == SlabMode::Minimum;
    mpr.noInterrupt = true;
    mpr.rotate = s.rotate;

    auto t0 = std::chrono::steady_clock::now();
    mpr.CalcRaster();
    auto t1 = std::chrono::steady_clock::now();
    *ms = std::chrono::duration<double, std::milli>(t1 - t0).count();
    return out;
}

std::vector<unsigned char> ApplyWindow(std::vector<short> const& raw, float slope,
                                       float intercept, Window const& w) {
    // One entry per 16-bit value, indexed from the middle of the block.
    std::vector<unsigned char> table(65536);
    unsigned char* lut = table.data() + 32768;
    double lo = (double)w.level - 0.5 * (double)w.width;
    for (int r = -32768; r < 32768; ++r) {
        double hu = (double)r * slope + intercept;
        double g = (hu - lo) / (double)w.width * 255.0 + 0.5;
        lut[r] = (unsigned char)std::clamp(g, 0.0, 255.0);
    }
    std::vector<unsigned char> grey(raw.size());
    for (size_t i = 0; i < raw.size(); ++i)
        grey[i] = lut[raw[i]];
    return grey;
}

}  // namespace vxtool
