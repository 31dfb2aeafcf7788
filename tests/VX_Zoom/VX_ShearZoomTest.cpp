#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <limits>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "VX_Apps/VX_ClipBounds.h"
#include "VX_Types/VX_CPU.h"
#include "VX_Zoom/VX_ShearZoom.h"

namespace {

typedef unsigned char byte;

// An owned interleaved raster, rows of `line` bytes (0: packed), padding and all set to `fill`.
struct Img {
    VX_Raster r;
    Img(int width, int height, int bits, int line, int fill = 0xCD)
    {
        r.width = width, r.height = height, r.bitsPerPixel = bits, r.interleaved = true, r.lineBytes = line;
        r.Allocate();
        memset(r.data, fill, (size_t)r.GetSize());
    }
    byte* Line(int y) { return (byte*)r.data + (size_t)y * r.GetLineBytes(); }
    uint16_t* Elem(int x, int y) { return (uint16_t*)Line(y) + 4 * x; }
    std::vector<byte> Bytes() { return std::vector<byte>((byte*)r.data, (byte*)r.data + r.GetSize()); }
};

// A w x h RGBA source, rows padded by `pad` bytes, elements f(x, y, e).
template <class F>
std::unique_ptr<Img> Source(int w, int h, int pad, F f)
{
    std::unique_ptr<Img> s(new Img(4 * w, h, 16, 8 * w + pad));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int e = 0; e < 4; ++e) s->Elem(x, y)[e] = (uint16_t)f(x, y, e);
    return s;
}

// Destination to source: turned by deg about the destination centre, scaled
// by s, onto the source centre plus (tx, ty).
VX_Mat Warp(int W, int H, int w, int h, float deg, float s, float tx = 0, float ty = 0)
{
    float c0[3] = {-W * 0.5f, -H * 0.5f, 0}, c1[3] = {w * 0.5f + tx, h * 0.5f + ty, 0};
    return VX_TransMat(c0) * VX_RotMat(deg * 3.14159265f / 180, 2) * VX_Mat(s, s, 1) * VX_TransMat(c1);
}

// ---- the stated rules, written out on their own ----

struct Fix {  // 14.18 position of destination pixel (x, y)
    int ox, oy, dxu, dxv, dyu, dyv;
    explicit Fix(VX_Mat const& m)
    {
        VX_3Vec o = VX_3Vec(0.5f, 0.5f, 0, 0) * m - VX_3Vec(0.5f, 0.5f, 0.5f, 0);
        ox = (int)(o.x * 262144.0), oy = (int)(o.y * 262144.0);
        dxu = (int)(m[0][0] * 262144.0), dxv = (int)(m[0][1] * 262144.0);
        dyu = (int)(m[1][0] * 262144.0), dyv = (int)(m[1][1] * 262144.0);
    }
    int U(int x, int y) const { return ox + x * dxu + y * dyu; }
    int V(int x, int y) const { return oy + x * dxv + y * dyv; }
};

std::vector<short> Bounds(int W, int H, VX_Mat const& m, float lo, float hiX, float hiY)
{
    std::vector<short> b(2 * H);
    VX_3Vec p[4] = {{-1, 0, 0, lo}, {1, 0, 0, -hiX}, {0, -1, 0, lo}, {0, 1, 0, -hiY}};
    for (int i = 0; i < 4; ++i) VX_ClipBounds(b.data(), W, H, (float*)p[i].PlaneTransform(m.Inv()), i == 0);
    return b;
}

// kind 4: bilinear to elements 0-3, 3: to elements 1-3, both bottom-up;
// 0: nearest, high bytes of elements 0-2, top-down. Padding is left alone.
// The row bounds go to *bounds.
std::vector<byte> RefRGBA(Img& src, Img& dst, VX_Mat const& m, int kind, std::vector<short>* bounds)
{
    int w = src.r.width / 4, h = src.r.height, W = dst.r.width, H = dst.r.height, out = kind ? kind : 3;
    double e = kind == 4 ? 0.55 : 0.51;
    std::vector<short>& b = *bounds;
    b = kind ? Bounds(W, H, m, e, w - e, h - e) : Bounds(W, H, m, 0.5f, w - 1, h - 1);
    Fix f(m);
    std::vector<byte> res = dst.Bytes();
    for (int y = 0; y < H; ++y) {
        byte* line = res.data() + (size_t)(kind ? H - 1 - y : y) * dst.r.GetLineBytes();
        memset(line, 0, (size_t)W * out);
        for (int x = b[2 * y]; x <= b[2 * y + 1]; ++x) {
            int u = f.U(x, y), v = f.V(x, y), x0 = u >> 18, y0 = v >> 18;
            int fx = (u >> 3) & 0x7FFF, fy = (v >> 3) & 0x7FFF;
            for (int c = 0; !kind && c < 3; ++c) line[3 * x + c] = (byte)(src.Elem(x0, y0)[c] >> 8);
            for (int c = 4 - out; kind && c < 4; ++c) {
                int p00 = src.Elem(x0, y0)[c], p10 = src.Elem(x0 + 1, y0)[c];
                int p01 = src.Elem(x0, y0 + 1)[c], p11 = src.Elem(x0 + 1, y0 + 1)[c];
                int a = p00 + (((p10 - p00) * fx) >> 15), d = p01 + (((p11 - p01) * fx) >> 15);
                line[out * x + c - (4 - out)] = (byte)((a + (((d - a) * fy) >> 15)) >> 8);
            }
        }
    }
    return res;
}

void RunRGBA(Img& src, Img& dst, VX_Mat const& m, int kind)
{
    kind == 4 ? VX_LinRGBAShearZoom(&src.r, &dst.r, m)
              : kind == 3 ? VX_LinRGBA2RGBShearZoom(&src.r, &dst.r, m) : VX_NNRGBAShearZoom(&src.r, &dst.r, m);
}

}  // namespace

// Widths 1..40 under turned, scaled and shifted warps, between padded rows. The
// scalar paths, on 1 or 2 threads, give the rules exactly (rows cleared beyond
// their varying bounds, padding kept). The forms with and without SSSE3 give
// the same bytes, within one level of the rule for the bilinear kinds, and
// exact on runs of 8 pixels or fewer and on the last five pixels of longer runs.
TEST(VX_ShearZoom, RGBAWarpsFollowTheRules)
{
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> val(0, 65535), pick(0, 5);
    auto src = Source(37, 29, 6, [&](int, int, int) {
        int p = pick(rng);
        return p == 0 ? 0 : p == 1 ? 65535 : val(rng);
    });
    float warps[][4] = {{0, 1, 0.3f, 0.5f}, {30, 0.8f, 0.3f, -0.2f}, {-73, 0.37f, 0.11f, 0.7f},
                        {200, 1.9f, -0.4f, 0.3f}, {90, 0.5f, 0.25f, 0.25f}};  // deg, scale, shift
    int threadsBefore = omp_get_max_threads(), worst = 0;
    for (int kind : {4, 3, 0})
        for (int W = 1; W <= 40; ++W) {
            SCOPED_TRACE(testing::Message() << "kind " << kind << " W " << W);
            float const* w = warps[W % 5];
            VX_Mat m = Warp(W, 33, 37, 29, w[0], w[1], w[2] + 0.07f * (W % 7), w[3]);
            int bpp = kind ? kind : 3;
            Img dst(W, 33, 8 * bpp, W * bpp + W % 7);
            std::vector<short> b;
            std::vector<byte> want = RefRGBA(*src, dst, m, kind, &b), forms[2];
            omp_set_num_threads(1 + W % 2);
            VX_SetCPUIDMask(0);
            RunRGBA(*src, dst, m, kind);
            EXPECT_EQ(dst.Bytes(), want);
            for (int k = 0; k < 2; ++k) {
                memset(dst.r.data, 0xCD, dst.r.GetSize());
                VX_SetCPUIDMask(k ? ~VX_CPU_SSSE3 : -1);
                RunRGBA(*src, dst, m, kind);
                forms[k] = dst.Bytes();
            }
            VX_SetCPUIDMask(-1);
            ASSERT_EQ(forms[0], forms[1]);
            int d = 0;
            for (size_t i = 0; i < want.size(); ++i) d = std::max(d, std::abs(forms[0][i] - want[i]));
            EXPECT_LE(d, kind ? 1 : 0);
            worst = std::max(worst, d);
            for (int y = 0; y < 33; ++y) {
                int first = b[2 * y], last = b[2 * y + 1], from = last - first < 8 ? first : last - 4;
                size_t line = (size_t)(kind ? 32 - y : y) * dst.r.GetLineBytes();
                for (size_t i = line + from * bpp; i < line + (last + 1) * bpp; ++i)
                    ASSERT_EQ(forms[0][i], want[i]) << "row " << y << " byte " << i - line;
            }
        }
    omp_set_num_threads(threadsBefore);
    EXPECT_EQ(worst, 1);  // the vector forms did run
}

// Widths 1..40 (every vector tail), turned and scaled both ways, on both paths: pixels
// outside get background (whatever its fill mode), those inside the rule with 16-bit
// fractions u >> 2, v >> 2.
TEST(VX_ShearZoom, LinFollowsTheRule)
{
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> val(-32768, 32767), pick(0, 4);
    std::vector<short> s(33 * 27);
    for (short& v : s) v = (short)(pick(rng) == 0 ? -32768 : pick(rng) == 0 ? 32767 : val(rng));
    int ss[2] = {33, 27}, bgs[] = {-32768, 0x8080, 5, 0x18080};
    for (int W = 1; W <= 40; ++W)
        for (float deg : {0.0f, 17.0f, -120.0f, 40.0f}) {
            int ds[2] = {W, 23}, bg = bgs[W % 4];
            VX_Mat m = Warp(W, 23, 33, 27, deg, 33.0f / (W + 3), 0.13f * W, -0.31f);
            std::vector<short> b = Bounds(W, 23, m, 0.51f, 33 - 0.51, 27 - 0.51);
            std::vector<int> want(W * 23, (short)bg);
            Fix f(m);
            for (int y = 0; y < 23; ++y)
                for (int x = b[2 * y]; x <= b[2 * y + 1]; ++x) {
                    int u = f.U(x, y), v = f.V(x, y);
                    unsigned fx = (u >> 2) & 0xFFFF, fy = (v >> 2) & 0xFFFF, gx = 65535 - fx, gy = 65535 - fy;
                    short const* p = &s[(u >> 18) + 33 * (v >> 18)];
                    want[x + W * y] = ((int)(gx * gy >> 17) * p[0] + (int)(fx * gy >> 17) * p[1] +
                                       (int)(gx * fy >> 17) * p[33] + (int)(fx * fy >> 17) * p[34]) >> 15;
                }
            for (int mask : {0, -1}) {
                std::vector<short> d(W * 23, 99);
                VX_SetCPUIDMask(mask);
                VX_LinShearZoom(s.data(), d.data(), ss, ds, m, bg);
                VX_SetCPUIDMask(-1);
                ASSERT_EQ(std::vector<int>(d.begin(), d.end()), want) << "W " << W << " deg " << deg << " " << mask;
            }
        }
    // Wholly outside, on a destination taller than the clip pairs kept on the stack.
    std::vector<short> d(3 * 5000, 99);
    int tall[2] = {3, 5000};
    float far[3] = {500, 0, 0};
    VX_LinShearZoom(s.data(), d.data(), ss, tall, VX_TransMat(far), -32768);
    EXPECT_EQ(d, std::vector<short>(3 * 5000, -32768));
}

// Widths 1..40 with lines off a 16-byte boundary, and a destination of more than
// 4 MiB (written past the caches), on both paths.
TEST(VX_ShearZoom, HalfRGBAIsTheMeanOfEachBlock)
{
    std::mt19937 rng(5);
    for (int mask : {0, -1})
        for (int W = 1; W <= 41; ++W) {
            int w = W > 40 ? 1031 : W, h = W > 40 ? 1020 : 3, pad = 4 * (W % 3);
            Img src(2 * w, 2 * h, 32, 8 * w + 2 * pad), dst(w, h, 32, 4 * w + pad);
            for (int i = 0; i < src.r.GetSize(); ++i) {  // one in four 0 or 255
                unsigned r = rng();
                ((byte*)src.r.data)[i] = (byte)((r & 3) == 0 ? 255 * (i & 1) : r >> 24);
            }
            std::vector<byte> want = dst.Bytes();
            for (int y = 0; y < h; ++y)
                for (int i = 0; i < 4 * w; ++i) {
                    byte *r0 = src.Line(2 * y) + 2 * i - (i & 3), *r1 = r0 + src.r.GetLineBytes();
                    want[y * dst.r.GetLineBytes() + i] = (byte)((r0[0] + r0[4] + r1[0] + r1[4]) >> 2);
                }
            VX_SetCPUIDMask(mask);
            VX_HalfRGBARaster(&src.r, &dst.r);
            VX_SetCPUIDMask(-1);
            ASSERT_TRUE(dst.Bytes() == want) << "W " << w << " mask " << mask;
        }
}

// Enlarging is the three-byte warp itself. Shrinking takes four samples per
// pixel, bottom-up, into 24-bit (elements 1-3) or 32-bit pixels.
TEST(VX_ShearZoom, SlowWarp)
{
    auto src = Source(40, 30, 0, [](int x, int, int e) { return x < 20 ? 0x1000 * e : 0xFFFF; });
    VX_Mat grow = Warp(50, 50, 40, 30, 10, 0.6f);
    Img a(50, 50, 24, 0), b(50, 50, 24, 0);
    VX_SlowLinRGBAShearZoom(&src->r, &a.r, grow);
    VX_LinRGBA2RGBShearZoom(&src->r, &b.r, grow);
    EXPECT_EQ(a.Bytes(), b.Bytes());

    // Samples at source x = (X + 0.25 - 8) * 3 + 20 for big pixel X / 2: all
    // four inside on lines 2..9, columns 2..13; the step lies in column 7.
    VX_Mat shrink = Warp(16, 12, 40, 30, 0, 3.0f);
    Img c(16, 12, 24, 0), d(16, 12, 32, 0);
    VX_SlowLinRGBAShearZoom(&src->r, &d.r, shrink);
    VX_SetCPUIDMask(0);
    VX_SlowLinRGBAShearZoom(&src->r, &c.r, shrink);
    VX_SetCPUIDMask(-1);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 16; ++x)
            for (int e = 1; e < 4; ++e) {
                int v = c.Line(y)[3 * x + e - 1];
                ASSERT_LE(std::abs(v - d.Line(y)[4 * x + e]), 1);
                bool rows = y >= 2 && y <= 9, in = rows && x >= 2 && x <= 13 && x != 7;
                int want = !in ? v : x < 7 ? 0x10 * e : 255;
                if (rows && x == 1) want = 0x10 * e / 2;  // two samples outside
                ASSERT_EQ(v, want) << x << "," << y;
            }
}

// A source edge within half a pixel of the destination's first column (where the clipping
// rule keeps a pixel whose cell is not in the source), and matrices that are not numbers:
// no read leaves the exactly sized source (AddressSanitizer), such pixels get background.
TEST(VX_ShearZoom, NoReadLeavesTheSource)
{
    std::vector<short> s(4 * 3, 7);
    int ss[2] = {4, 3}, ds[2] = {6, 5};
    float t[3] = {4 - 0.51f - 0.2f, 0.3f, 0};
    float nan = std::numeric_limits<float>::quiet_NaN();
    VX_Mat bad;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) bad[i][j] = nan;
    for (VX_Mat const& m : {VX_TransMat(t), bad, VX_Mat(1e9f, 1e9f, 1)}) {
        for (unsigned mask : {0u, ~0u}) {
            VX_SetCPUIDMask(mask);
            std::vector<short> d(6 * 5, 99);
            VX_LinShearZoom(s.data(), d.data(), ss, ds, m, -1);
            for (short v : d) EXPECT_TRUE(v == -1 || v == 7);
        }
        VX_SetCPUIDMask(~0u);
        auto src = Source(4, 3, 0, [](int, int, int) { return 0x1234; });
        Img dst(6, 5, 32, 0), nn(6, 5, 24, 0);
        VX_LinRGBAShearZoom(&src->r, &dst.r, m);
        VX_NNRGBAShearZoom(&src->r, &nn.r, m);
    }
}
