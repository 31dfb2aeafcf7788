#include "Phantom.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <vector>

namespace vxtool {

namespace {

constexpr int kDims[3] = {256, 256, 192};
constexpr float kSpacing[3] = {0.8f, 0.8f, 1.0f};
constexpr float kRawOffset = 1024.0f;  // raw = HU + 1024; intercept -1024
constexpr float kEdge = 0.8f;          // mm over which an edge blends into its surroundings
constexpr float kNoiseHU = 12.0f;      // standard deviation of the noise
constexpr float kPi = 3.14159265f;

struct Vec3 {
    float x, y, z;
};
Vec3 operator+(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec3 operator*(Vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
float length(Vec3 a) { return std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z); }

// A tissue: uniform `inner`, or with a shell of `shell` HU and `shellWidth` mm.
struct Material {
    float inner;
    float shell = 0;
    float shellWidth = 0;
};

// Hounsfield units per voxel while the phantom is built.
struct Field {
    std::vector<float> hu;

    Field() : hu((size_t)kDims[0] * kDims[1] * kDims[2], -1000.0f) {}
    float& at(int i, int j, int k) {
        return hu[((size_t)k * kDims[1] + (size_t)j) * kDims[0] + (size_t)i];
    }
    static Vec3 centre(int i, int j, int k) {
        return {((float)i + 0.5f) * kSpacing[0], ((float)j + 0.5f) * kSpacing[1],
                ((float)k + 0.5f) * kSpacing[2]};
    }
};

// The voxels whose centres may lie in [mn, mx] (mm), clipped to the grid.
struct Range {
    int lo[3], hi[3];  // hi exclusive
};

Range rangeOf(Vec3 mn, Vec3 mx) {
    float const a[3] = {mn.x, mn.y, mn.z}, b[3] = {mx.x, mx.y, mx.z};
    Range r;
    for (int d = 0; d < 3; ++d) {
        r.lo[d] = std::max(0, (int)std::floor(a[d] / kSpacing[d] - 0.5f));
        r.hi[d] = std::min(kDims[d], (int)std::ceil(b[d] / kSpacing[d] + 0.5f));
    }
    return r;
}

// Blends a material into the field by its signed distance d (mm, negative
// inside): full strength kEdge / 2 inside the surface, none kEdge / 2 outside.
template <class SignedDistance>
void paint(Field& f, Range const& r, Material const& m, SignedDistance sd) {
#pragma omp parallel for schedule(static)
    for (int k = r.lo[2]; k < r.hi[2]; ++k)
        for (int j = r.lo[1]; j < r.hi[1]; ++j)
            for (int i = r.lo[0]; i < r.hi[0]; ++i) {
                float d = sd(i, j, k, Field::centre(i, j, k));
                float cover = std::clamp(0.5f - d / kEdge, 0.0f, 1.0f);
                if (cover <= 0)
                    continue;
                float target = m.inner;
                if (m.shellWidth > 0) {
                    float deep = std::clamp(0.5f - (d + m.shellWidth) / kEdge, 0.0f, 1.0f);
                    target = m.shell + deep * (m.inner - m.shell);
                }
                float& v = f.at(i, j, k);
                v += cover * (target - v);
            }
}

// Signed distance to an ellipse or ellipsoid, to first order: (r - 1) / |grad r|
// with r the scaled radius. Pass a[2] = 0 for an ellipse in x and y.
float ellipticDistance(Vec3 d, float const a[3]) {
    float q[3] = {d.x / a[0], d.y / a[1], a[2] > 0 ? d.z / a[2] : 0};
    float g[3] = {q[0] / a[0], q[1] / a[1], a[2] > 0 ? q[2] / a[2] : 0};
    float r = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]);
    float gl = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
    if (gl < 1e-9f)
        return -std::min(a[0], a[1]);
    return (r - 1.0f) * r / gl;
}

void ellipsoid(Field& f, Vec3 c, Vec3 semi, Material m) {
    float const a[3] = {semi.x, semi.y, semi.z};
    Vec3 pad{kEdge, kEdge, kEdge};
    paint(f, rangeOf(c - semi - pad, c + semi + pad), m,
          [&](int, int, int, Vec3 p) { return ellipticDistance(p - c, a); });
}

// An elliptic cylinder along z, from z0 to z1.
void ellipticColumn(Field& f, float cx, float cy, float ax, float ay, float z0, float z1,
                    Material m) {
    float const a[3] = {ax, ay, 0};
    Vec3 c{cx, cy, 0.5f * (z0 + z1)};
    float half = 0.5f * (z1 - z0);
    paint(f, rangeOf({cx - ax - 1, cy - ay - 1, z0 - 1}, {cx + ax + 1, cy + ay + 1, z1 + 1}), m,
          [&](int, int, int, Vec3 p) {
              Vec3 d = p - c;
              return std::max(ellipticDistance(d, a), std::fabs(d.z) - half);
          });
}

// A cylinder along z with rounded rims: radius r, height h, rim radius rim.
void roundedDisc(Field& f, Vec3 c, float r, float h, float rim, Material m) {
    paint(f, rangeOf({c.x - r - 1, c.y - r - 1, c.z - h / 2 - 1}, {c.x + r + 1, c.y + r + 1, c.z + h / 2 + 1}),
          m, [&](int, int, int, Vec3 p) {
              Vec3 d = p - c;
              float qx = std::sqrt(d.x * d.x + d.y * d.y) - r + rim;
              float qz = std::fabs(d.z) - h / 2 + rim;
              float out = std::sqrt(std::max(qx, 0.0f) * std::max(qx, 0.0f) +
                                    std::max(qz, 0.0f) * std::max(qz, 0.0f));
              return std::min(std::max(qx, qz), 0.0f) + out - rim;
          });
}

// A tube along a Catmull-Rom curve through the control points, its radius
// varying linearly between them. The distance is the least over spheres swept
// along the curve at steps well below a voxel.
void tube(Field& f, std::vector<Vec3> const& ctrl, std::vector<float> const& radius, Material m) {
    std::vector<Vec3> pts;
    std::vector<float> rad;
    size_t n = ctrl.size();
    for (size_t s = 0; s + 1 < n; ++s) {
        Vec3 p0 = ctrl[s == 0 ? 0 : s - 1], p1 = ctrl[s], p2 = ctrl[s + 1];
        Vec3 p3 = ctrl[s + 2 < n ? s + 2 : n - 1];
        int steps = std::max(2, (int)std::ceil(length(p2 - p1) / 0.5f));
        for (int t = 0; t < steps; ++t) {
            float u = (float)t / (float)steps, u2 = u * u, u3 = u2 * u;
            Vec3 p = (p1 * 2.0f + (p2 - p0) * u + (p0 * 2.0f - p1 * 5.0f + p2 * 4.0f - p3) * u2 +
                      (p1 * 3.0f - p0 - p2 * 3.0f + p3) * u3) *
                     0.5f;
            pts.push_back(p);
            rad.push_back(radius[s] + u * (radius[s + 1] - radius[s]));
        }
    }
    pts.push_back(ctrl[n - 1]);
    rad.push_back(radius[n - 1]);

    float reach = *std::max_element(rad.begin(), rad.end()) + 2 * kEdge;
    Vec3 mn = pts[0], mx = pts[0];
    for (Vec3 p : pts) {
        mn = {std::min(mn.x, p.x), std::min(mn.y, p.y), std::min(mn.z, p.z)};
        mx = {std::max(mx.x, p.x), std::max(mx.y, p.y), std::max(mx.z, p.z)};
    }
    Range r = rangeOf(mn - Vec3{reach, reach, reach}, mx + Vec3{reach, reach, reach});
    int ex = std::max(0, r.hi[0] - r.lo[0]), ey = std::max(0, r.hi[1] - r.lo[1]);
    int ez = std::max(0, r.hi[2] - r.lo[2]);
    std::vector<float> dist((size_t)ex * ey * ez, 1e9f);
    auto local = [&](int i, int j, int k) -> float& {
        return dist[((size_t)(k - r.lo[2]) * ey + (size_t)(j - r.lo[1])) * ex + (size_t)(i - r.lo[0])];
    };
    for (size_t s = 0; s < pts.size(); ++s) {
        float reachS = rad[s] + 2 * kEdge;
        Range b = rangeOf(pts[s] - Vec3{reachS, reachS, reachS}, pts[s] + Vec3{reachS, reachS, reachS});
        for (int d = 0; d < 3; ++d) {
            b.lo[d] = std::max(b.lo[d], r.lo[d]);
            b.hi[d] = std::min(b.hi[d], r.hi[d]);
        }
        for (int k = b.lo[2]; k < b.hi[2]; ++k)
            for (int j = b.lo[1]; j < b.hi[1]; ++j)
                for (int i = b.lo[0]; i < b.hi[0]; ++i) {
                    float d = length(Field::centre(i, j, k) - pts[s]) - rad[s];
                    float& v = local(i, j, k);
                    v = std::min(v, d);
                }
    }
    paint(f, r, m, [&](int i, int j, int k, Vec3) { return local(i, j, k); });
}

// Mirrors a point across the body's sagittal midplane.
constexpr float kMidX = 102.4f;
Vec3 mirror(Vec3 p) { return {2 * kMidX - p.x, p.y, p.z}; }
std::vector<Vec3> mirror(std::vector<Vec3> v) {
    for (Vec3& p : v) p = mirror(p);
    return v;
}

// Air, the fat layer, muscle and the couch: the same on every slice.
void body(Field& f) {
    float const outer[3] = {92, 72, 0}, inner[3] = {82, 62, 0};
    Vec3 c{kMidX, 100, 0};
    size_t const plane = (size_t)kDims[0] * kDims[1];
    for (int j = 0; j < kDims[1]; ++j)
        for (int i = 0; i < kDims[0]; ++i) {
            Vec3 p = Field::centre(i, j, 0);
            Vec3 d = p - c;
            d.z = 0;
            float hu = -1000;
            float skin = std::clamp(0.5f - ellipticDistance(d, outer) / kEdge, 0.0f, 1.0f);
            hu += skin * (-100 - hu);
            float muscle = std::clamp(0.5f - ellipticDistance(d, inner) / kEdge, 0.0f, 1.0f);
            hu += muscle * (40 - hu);
            if (p.y > 180 && p.y < 184 && std::fabs(d.x) < 85)
                hu = 120;
            f.at(i, j, 0) = hu;
        }
    for (int k = 1; k < kDims[2]; ++k)
        std::copy(f.hu.begin(), f.hu.begin() + (long)plane, f.hu.begin() + (long)(plane * k));
}

void softTissue(Field& f) {
    float const zTop = (float)kDims[2];
    ellipticColumn(f, kMidX, 112, 46, 30, -1, zTop + 1, {-90});  // retroperitoneal fat
    for (float s : {-1.0f, 1.0f}) {
        ellipticColumn(f, kMidX + s * 22, 156, 15, 9, -1, zTop + 1, {52});  // back muscles
        ellipticColumn(f, kMidX + s * 29, 126, 10, 9, -1, 122, {50});       // psoas
    }
    ellipsoid(f, {60, 90, 165}, {38, 36, 45}, {62});      // liver
    ellipsoid(f, {150, 125, 168}, {15, 22, 28}, {48});    // spleen
    for (float s : {-1.0f, 1.0f})                         // kidneys: cortex and medulla
        ellipsoid(f, {kMidX + s * 52, 126, 132}, {15, 12, 38}, {110, 190, 4});
    ellipsoid(f, {118, 55, 110}, {14, 9, 11}, {-850});    // bowel gas
    ellipsoid(f, {80, 60, 70}, {10, 8, 9}, {-850});
    ellipsoid(f, {130, 62, 40}, {12, 8, 8}, {-850});
}

void spine(Field& f) {
    Material const bone{650, 1150, 1.5f};
    Material const disc{90};
    for (float zc = 15; zc < (float)kDims[2] + 20; zc += 30) {
        roundedDisc(f, {kMidX, 125, zc}, 15, 24, 3, bone);
        roundedDisc(f, {kMidX, 125, zc + 15}, 14.5f, 6, 1.5f, disc);
        std::vector<Vec3> arch = {{90, 136, zc}, {89, 149, zc}, {96, 158, zc},
                                  {kMidX, 160, zc}, {109, 158, zc}, {116, 149, zc},
                                  {115, 136, zc}};
        tube(f, arch, std::vector<float>(arch.size(), 3.5f), {700, 1150, 1.2f});
        tube(f, {{kMidX, 160, zc}, {kMidX, 168, zc - 3}, {kMidX, 174, zc - 8}}, {3.5f, 3, 2.5f},
             {700, 1150, 1.2f});
        for (float s : {-1.0f, 1.0f})
            tube(f, {{kMidX + s * 12, 146, zc}, {kMidX + s * 24, 143, zc}, {kMidX + s * 32, 140, zc}},
                 {3, 2.8f, 2.5f}, {700, 1150, 1.2f});
    }
}

void ribs(Field& f) {
    for (float z0 = 150; z0 < (float)kDims[2] + 20; z0 += 14) {
        std::vector<Vec3> rib;
        for (float deg = 70; deg >= -40; deg -= 10) {
            float t = deg * kPi / 180.0f;
            float drop = 25.0f * (70 - deg) / 110.0f;
            rib.push_back({kMidX + 78 * std::cos(t), 100 + 58 * std::sin(t), z0 - drop});
        }
        std::vector<float> r(rib.size(), 3.5f);
        tube(f, rib, r, {400, 1100, 1.2f});
        tube(f, mirror(rib), r, {400, 1100, 1.2f});
    }
}

void vessels(Field& f) {
    Material const aortic{360}, iliac{340}, small{310};
    tube(f, {{100, 95, 200}, {101, 94, 170}, {103, 93, 140}, {102, 94, 112}, {102, 96, 94}},
         {11, 11, 10.5f, 10, 9.5f}, aortic);
    std::vector<Vec3> iliacL = {{102, 96, 96},  {111, 96, 84}, {124, 93, 66},
                                {134, 87, 46}, {140, 80, 25}, {146, 72, -5}};
    std::vector<float> iliacR = {7.5f, 7, 6.8f, 6.5f, 6.2f, 6};
    tube(f, iliacL, iliacR, iliac);
    tube(f, mirror(iliacL), iliacR, iliac);
    std::vector<Vec3> renal = {{103, 95, 138}, {118, 101, 140}, {133, 112, 137}, {145, 122, 133}};
    std::vector<float> renalR = {3.4f, 3.2f, 3, 2.8f};
    tube(f, renal, renalR, small);
    tube(f, mirror(renal), renalR, small);
    // Superior mesenteric artery: forward, then down in front of the aorta.
    tube(f, {{102, 86, 158}, {103, 73, 151}, {106, 63, 132}, {112, 60, 106}, {121, 65, 80}},
         {3.8f, 3.6f, 3.2f, 2.8f, 2.4f}, small);
    // Coeliac trunk toward the liver.
    tube(f, {{102, 85, 172}, {100, 74, 174}, {86, 69, 177}, {66, 76, 179}}, {3.4f, 3.2f, 3, 2.6f},
         small);
}

// xorshift64*: the same numbers on every platform. One draw gives four 16-bit
// uniforms, whose sum is close enough to a Gaussian for CT noise.
class Noise {
public:
    explicit Noise(uint64_t seed) : state_(0x9E3779B97F4A7C15ull ^ (seed * 0xD1B54A32D192ED03ull)) {
        for (int i = 0; i < 4; ++i) next();
    }

    float Gaussian() {
        uint64_t r = next();
        float sum = (float)(r & 0xFFFF) + (float)((r >> 16) & 0xFFFF) +
                    (float)((r >> 32) & 0xFFFF) + (float)(r >> 48);
        // Four uniforms on [0, 1) have mean 2 and variance 1/3.
        return (sum / 65536.0f - 2.0f) * 1.7320508f;
    }

private:
    uint64_t state_;
    uint64_t next() {
        state_ ^= state_ >> 12;
        state_ ^= state_ << 25;
        state_ ^= state_ >> 27;
        return state_ * 0x2545F4914F6CDD1Dull;
    }
};

}  // namespace

void BuildPhantom(Volume* vol) {
    Field f;
    body(f);
    softTissue(f);
    spine(f);
    ribs(f);
    vessels(f);

    float const origin[3] = {0, 0, 0};
    vol->Allocate(kDims, kSpacing, origin);
    vol->data->SetRescaleSlope(1.0f);
    vol->data->SetRescaleIntercept(-kRawOffset);
    vol->data->SetThickness(kSpacing[2]);
    // Each slice has its own noise seed, so the slices can be filled in any order.
#pragma omp parallel for schedule(static)
    for (int k = 0; k < kDims[2]; ++k) {
        Noise noise((uint64_t)k + 1);
        short* s = vol->data->slices[k];
        for (int j = 0; j < kDims[1]; ++j)
            for (int i = 0; i < kDims[0]; ++i) {
                float raw = f.at(i, j, k) + kRawOffset + kNoiseHU * noise.Gaussian();
                raw = std::clamp(raw, (float)SHRT_MIN, (float)SHRT_MAX);
                s[i + j * kDims[0]] = (short)std::floor(raw + 0.5f);
            }
    }
    vol->UpdateRange();
}

}  // namespace vxtool
