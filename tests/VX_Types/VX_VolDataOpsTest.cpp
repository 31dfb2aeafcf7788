#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>

#include <array>
#include <memory>
#include <random>
#include <vector>

#include "VX.h"
#include "support/VX_TestData.h"

using vxtest::MakeBox;
using vxtest::MakeVolume;
using vxtest::Voxel;

namespace {

typedef std::array<int, 3> Dims;

int Pattern(int x, int y, int z) { return 7 * x - 11 * y + 13 * z - 40; }
Dims DimsOf(VX_VolData const& v) { return {v.box.dims[0], v.box.dims[1], v.box.dims[2]}; }

template <class F>  // f(x, y, z) for every voxel of v
void ForEach(VX_VolData const& v, F f)
{
    for (int z = 0; z < v.box.dims[2]; ++z)
        for (int y = 0; y < v.box.dims[1]; ++y)
            for (int x = 0; x < v.box.dims[0]; ++x) f(x, y, z);
}

void ExpectSamePlace(VX_PhysBox const& a, VX_PhysBox const& b)
{
    for (int i = 0; i < 16; ++i) EXPECT_NEAR(a.vecs[i / 4][i % 4], b.vecs[i / 4][i % 4], 1e-4) << i;
}

// Slice z transposed by t[y + x * Y] = s[x + y * X], at its block's staggered
// address rounded up to 32 bytes.
void ExpectTransposed(VX_VolData& v, int z)
{
    const int X = v.box.GetX(), Y = v.box.GetY();
    short const* t = v.transposedSlices[z];
    ASSERT_EQ((uintptr_t)t, ((uintptr_t)v.transposedAlloc[z] + ((z * 179) & 480) * 2 + 31) & ~(uintptr_t)31);
    for (int i = 0; i < X * Y; ++i) ASSERT_EQ(t[i / X + i % X * Y], v.slices[z][i]) << i << " in " << z;
}

// The stated rules: the mean of a factor^3 cell as (sum + c / 2) / c, and the
// maximum of the 2 x 2 x 2 cell at the doubled position, from 0x8080.
short AvgRule(VX_VolData& s, int f, int x, int y, int z)
{
    int sum = 0;
    for (int k = 0; k < f * f * f; ++k) sum += Voxel(s, f * x + k % f, f * y + k / f % f, f * z + k / (f * f));
    return (short)((sum + f * f * f / 2) / (f * f * f));
}

short MaxRule(VX_VolData& s, int x, int y, int z)
{
    int m = (short)0x8080;
    for (int k = 0; k < 8; ++k) m = std::max<int>(m, Voxel(s, 2 * x + (k & 1), 2 * y + (k >> 1 & 1), 2 * z + (k >> 2)));
    return (short)m;
}

}  // namespace

TEST(VX_VolDataOps, TransposedSlicesFollowLoadingAndSparseViewsShareThem)
{
    VX_Box b(5, 3, 4);
    VX_VolData v(&b);
    v.Init();
    short** t = v.GetTransposedSlices();  // placeholders only: nothing is made
    for (int z = 0; z < 4; ++z) EXPECT_TRUE(t[z] == v.blankSlice && v.transposedAlloc[z] == nullptr);
    std::vector<short> host(15), later(15, 9);
    for (int i = 0; i < 15; ++i) host[i] = (short)(i * 100 - 700);
    v.SetSlice(2, host.data());
    EXPECT_EQ(v.GetTransposedSlices(), t);
    for (int z = 0; z < 4; ++z) EXPECT_EQ(t[z] == v.blankSlice, z != 2);
    ExpectTransposed(v, 2);
    v.SetSlice(2, later.data());  // not renewed; slice 0 is new
    v.SetSlice(0, later.data());
    v.GetTransposedSlices();
    EXPECT_EQ(t[2][1], host[5]);
    ExpectTransposed(v, 0);
    std::mt19937 rng(7);
    for (int mask : {-1, 0}) {  // the vector path, then the scalar one; odd sizes and 512 blocks
        VX_SetCPUIDMask(mask);
        for (VX_Box const& box : {VX_Box(7, 5, 6), VX_Box(512, 512, 3)}) {
            auto w = vxtest::RandomVolume(box, rng);
            w->GetTransposedSlices();
            for (int z = 0; z < box.GetZ(); ++z) ExpectTransposed(*w, z);
        }
    }
    VX_SetCPUIDMask(-1);
    // Sparse views share every step-th slice of both sets and own no storage.
    VX_Box placed = MakeBox(4, 3, 7, 1.0f, 1.0f, 2.0f, VX_3Vec(1, 2, 3, 0));
    auto u = MakeVolume(placed, Pattern);
    struct Case { int step; std::vector<int> picked; };
    for (Case const& c : {Case{2, {0, 2, 4}}, Case{3, {1, 4}}, Case{1, {0, 1, 2, 3, 4, 5, 6}}}) {
        const int n = (int)c.picked.size();
        std::unique_ptr<VX_VolData> s(u->CreateZSparseVoldata(c.step));
        ASSERT_TRUE(DimsOf(*s) == (Dims{4, 3, n}) && s->sliceCount == n);
        EXPECT_TRUE(!s->ownsSlices && s->transposedAlloc == nullptr);
        ExpectSamePlace(s->box, placed);  // (float)Z / step * step / Z of the z edge is the whole of it
        for (int i = 0; i < n; ++i)
            EXPECT_TRUE(s->slices[i] == u->slices[c.picked[i]] && s->transposedSlices[i] == u->transposedSlices[c.picked[i]]);
        EXPECT_EQ(s->GetTransposedSlices(), s->transposedSlices);
    }
    for (int z = 0; z < 7; ++z) ExpectTransposed(*u, z);  // the views freed none of it
}

TEST(VX_VolDataOps, LowResAverageAndMaximum)
{
    // The average of random voxels (negative sums round toward zero) over the
    // extent of the whole box: X = 5 by 2 makes two cells. The range is kept.
    std::mt19937 rng(3);
    VX_Box b = MakeBox(5, 4, 4, 0.5f, 0.7f, 2.0f, VX_3Vec(3, -2, 10, 0));
    b.Rotate(0.3f, 2);
    struct Case { VX_Box box; int factor; Dims dims; };
    for (Case const& c : {Case{b, 2, {2, 2, 2}}, Case{VX_Box(10, 7, 6), 3, {3, 2, 2}}}) {
        auto v = vxtest::RandomVolume(c.box, rng);
        v->minPixelValue = -1, v->maxPixelValue = 4;
        v->CreateLowRes(false, c.factor);
        VX_VolData* low = v->GetLowRes();
        ASSERT_EQ(DimsOf(*low), c.dims);
        ExpectSamePlace(low->box, c.box);
        EXPECT_TRUE(low->minPixelValue == -1 && low->maxPixelValue == 4);
        ForEach(*low, [&](int x, int y, int z) { EXPECT_EQ(Voxel(*low, x, y, z), AvgRule(*v, c.factor, x, y, z)); });
        v->CreateLowRes(false, 4);  // replaces the last one; voxels undefined
        EXPECT_EQ(DimsOf(*v->GetLowRes()), (Dims{c.box.GetX() / 4, c.box.GetY() / 4, c.box.GetZ() / 4}));
    }
    // Maximum: mostly -32768, which does not show under 0x8080; factor 3 takes
    // the 2 x 2 x 2 cell at the doubled position, like factor 2.
    std::uniform_int_distribution<int> val(-32768, 32767), pick(0, 7);
    auto m = MakeVolume(VX_Box(9, 9, 9), [&](int, int, int) { return pick(rng) ? -32768 : val(rng); });
    for (int factor : {2, 3}) {
        m->CreateLowRes(true, factor);
        VX_VolData* low = m->GetLowRes();
        ASSERT_EQ(low->box.GetX(), 9 / factor);
        ForEach(*low, [&](int x, int y, int z) { EXPECT_EQ(Voxel(*low, x, y, z), MaxRule(*m, x, y, z)); });
    }
}

TEST(VX_VolDataOps, DoubleResMeansAndCopiesTheLast)
{
    // Along x: 1 4 -3 -> 1 2 4 0 -3 -3, the mean being the sum shifted right.
    auto row = MakeVolume(VX_Box(3, 1, 1), [](int x, int, int) { return x == 0 ? 1 : x == 1 ? 4 : -3; });
    std::unique_ptr<VX_VolData> d(row->CreateDoubleRes());
    ASSERT_EQ(DimsOf(*d), (Dims{6, 2, 2}));
    const short want[6] = {1, 2, 4, 0, -3, -3};
    ForEach(*d, [&](int x, int y, int z) { EXPECT_EQ(Voxel(*d, x, y, z), want[x]); });
    // Along y, then z; (-3 + 0) >> 1 is -2.
    VX_Box b = MakeBox(1, 2, 2, 0.5f, 1.5f, 3.0f, VX_3Vec(4, 5, 6, 0));
    b.Rotate(0.5f, 0);
    auto v = MakeVolume(b, [](int, int y, int z) { return y == 0 ? -3 + 10 * z : 20 * z; });
    d.reset(v->CreateDoubleRes());
    ExpectSamePlace(d->box, b);
    ASSERT_EQ(DimsOf(*d), (Dims{2, 4, 4}));
    const short col[4][4] = {{-3, -2, 0, 0}, {2, 5, 10, 10}, {7, 13, 20, 20}, {7, 13, 20, 20}};
    ForEach(*d, [&](int x, int y, int z) { EXPECT_EQ(Voxel(*d, x, y, z), col[z][y]) << y << "," << z; });
}

TEST(VX_VolDataOps, ClearWriteAndSetValue)
{
    VX_Box none(4, 4, 0);
    VX_VolData(&none).ClearData(3);  // no slices: nothing
    // Cleared to 3 * size, then size 1: the voxel; 2: 9..10; 3: 9..11 on each axis; below 1: nothing.
    auto v = MakeVolume(VX_Box(16, 16, 16), Pattern);
    struct Case { int size, lo, hi; };
    for (Case c : {Case{1, 10, 10}, Case{2, 9, 10}, Case{3, 9, 11}, Case{0, 1, 0}, Case{-1, 1, 0}}) {
        v->ClearData((short)(3 * c.size));  // 0 is a byte fill, the others value by value
        v->WriteValue(10, 10, 10, -7, c.size);
        ForEach(*v, [&](int x, int y, int z) {
            bool in = std::min({x, y, z}) >= c.lo && std::max({x, y, z}) <= c.hi;
            ASSERT_EQ(Voxel(*v, x, y, z), in ? -7 : 3 * c.size) << c.size;
        });
    }
    VX_BitVol mask(40, 3, 2);
    mask.Clear();
    for (int p : {0, 31 + 40, 32 + 40, 39 + 80 + 120, 5 + 120}) mask.SetBitOn(p % 40, p / 40 % 3, p / 120);
    auto w = MakeVolume(VX_Box(40, 3, 2), [](int, int, int) { return 1; });
    VX_Raster view = &mask;  // slice 0 as a 1-bit raster, nothing else set
    EXPECT_TRUE(view.width == 40 && view.height == 3 && view.bitsPerPixel == 1 && view.data == mask.GetSliceP(0) &&
                !view.ownsData && view.GetLineBytes() == 8);
    w->SetValue(&mask, -300);
    ForEach(*w, [&](int x, int y, int z) { EXPECT_EQ(Voxel(*w, x, y, z), mask.GetBit(x, y, z) ? -300 : 1); });
}

TEST(VX_VolDataOps, GradualSphereByHand)
{
    // Unit cells, centred on voxel (4, 4, 4), r 4, from 100 to -101: g = -50.25;
    // truncation toward zero (d 2 gives -0.5, so 0).
    auto v = MakeVolume(VX_Box(9, 9, 9), [](int, int, int) { return 1234; });
    v->GenerateGradualSphere(VX_3Vec(4.5f, 4.5f, 4.5f, 0), 4.0f, 100.0f, -101.0f);
    const int cases[][4] = {{4, 4, 4, 100}, {6, 4, 4, 0},   {7, 4, 4, -50}, {8, 5, 4, 1234},
                            {5, 5, 4, 28},  {7, 5, 4, -58}, {4, 4, 1, -50}, {0, 0, 0, 1234}};
    for (auto const& c : cases) EXPECT_EQ(Voxel(*v, c[0], c[1], c[2]), c[3]) << c[0] << "," << c[1] << "," << c[2];
    // Millimetres through a moved box of 2 mm cells, and the 16-bit narrowing.
    auto w = MakeVolume(MakeBox(5, 5, 5, 2.0f, 2.0f, 2.0f, VX_3Vec(-10, 0, 0, 0)), [](int, int, int) { return 0; });
    w->GenerateGradualSphere(VX_3Vec(-5, 5, 5, 0), 4.5f, 40000.0f, 40000.0f);
    EXPECT_TRUE(Voxel(*w, 2, 2, 2) == -25536 && Voxel(*w, 4, 2, 2) == -25536 && Voxel(*w, 4, 4, 2) == 0);
}

TEST(VX_VolDataOps, CylindersHaveALumenAPartialEdgeAndStableNoise)
{
    auto v = MakeVolume(VX_Box(20, 20, 20), [](int, int, int) { return 0; });
    VX_3Vec p0(0, 10.5f, 10.5f, 0), p1(20, 10.5f, 10.5f, 0), same(5, 5, 5, 0);
    v->GenerateVirtualCylinder(same, same, 3.0f, 1000);  // no axis: nothing
    v->GenerateVirtualCylinder(p0, p1, 3.0f, 1000);
    // Centres up to 2 from the axis are inside, 3 (on the surface) half, 4 out, whole
    // lengths of the axis inside.
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(Voxel(*v, i, 12, 10) == 1000 && Voxel(*v, i, 10, 7) == 500 && Voxel(*v, i, 14, 10) == 0) << i;
    // Noisy soft tissue around a brighter lumen, as raw values.
    v->rescaleIntercept = -1024.0f;
    v->GenerateNoisyVirtualCylinder(p0, p1, 4.0f);
    std::vector<short> first(v->slices[7], v->slices[7] + 400);
    EXPECT_GT(Voxel(*v, 10, 10, 7) - Voxel(*v, 10, 2, 7), 150);  // lumen over tissue, beyond the noise
    EXPECT_NE(first[0], first[1]);  // noisy
    v->GenerateNoisyVirtualCylinder(p0, p1, 4.0f);  // the same volume every time
    EXPECT_EQ(std::vector<short>(v->slices[7], v->slices[7] + 400), first);
}
