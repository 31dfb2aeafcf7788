#include <gtest/gtest.h>

#include <math.h>

#include <array>
#include <memory>
#include <tuple>
#include <vector>

#include "VX.h"
#include "support/VX_TestData.h"

using vxtest::Captured;

namespace {

void ExpectPoint(VX_3Vec const& v, VX_3Vec const& want, double tol)
{
    for (int a = 0; a < 3; ++a) EXPECT_NEAR(v[a], want[a], tol) << "axis " << a;
}

int Pattern(int x, int y, int z) { return x + 10 * y + 100 * z - 50; }

// phys = vecs[0] + (i / X) edge0 + (j / Y) edge1 + (k / Z) edge2.
VX_3Vec GridToPhys(VX_Box const& b, double i, double j, double k)
{
    VX_3Vec const* v = b.vecs;
    return v[0] + (v[1] - v[0]) * (float)(i / b.dims[0]) + (v[2] - v[0]) * (float)(j / b.dims[1]) +
           (v[3] - v[0]) * (float)(k / b.dims[2]);
}

}  // namespace

TEST(VX_Box, GridToPhysicalAndBackPartialBoxVerticesAndCentre)
{
    // 4 x 5 x 6 cells of 0.5 x 0.75 x 2 mm, turned about z, then about x, and moved.
    VX_Box flat = vxtest::MakeBox(4, 5, 6, 0.5f, 0.75f, 2.0f, VX_3Vec(10, -5, 3, 0));
    flat.Rotate(0.4f, 2);
    VX_Box box = flat;
    box.Rotate(0.3f, 0);
    box.Translate(1, 2, 3);
    VX_Mat toPhys = box.GetIntToPhysTrans(), toInt = box.GetPhysToIntTrans();
    const float pts[][3] = {{0, 0, 0}, {4, 5, 6}, {1.5f, 2.5f, 0.5f}, {-1, 7, 3}};
    for (auto const& g : pts) {
        VX_3Vec phys = VX_3Vec(g[0], g[1], g[2], 0) * toPhys;
        ExpectPoint(phys, GridToPhys(box, g[0], g[1], g[2]), 1e-4);
        ExpectPoint(phys * toInt, VX_3Vec(g[0], g[1], g[2], 0), 1e-4);
    }
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(box.GetMMPP(i), (i == 0 ? 0.5 : i == 1 ? 0.75 : 2.0), 1e-6);
    EXPECT_NEAR(box.GetVolume(), 2.0 * 3.75 * 12.0, 1e-4);
    // The 2D form ignores z: a box turned about z only maps (x, y) to (i, j, 0).
    for (float k : {0.0f, 4.5f})
        ExpectPoint(GridToPhys(flat, 1.5, 2.5, k) * flat.Get2DPhysToIntTrans(), VX_3Vec(1.5f, 2.5f, 0, 0), 1e-4);
    VX_PhysBox part = box.GetPartialPhysBox(0.5f, 1.0f, 1.5f);
    for (int i = 0; i < 4; ++i)  // the origin corner, then one edge's end each
        ExpectPoint(part.vecs[i], GridToPhys(box, 0.5 + 3 * (i == 1), 1 + 3 * (i == 2), 1.5 + 3 * (i == 3)), 1e-4);
    for (int i = 0; i < 8; ++i)
        ExpectPoint(box.GetVertex(i), GridToPhys(box, (i & 1) * 4, (i >> 1 & 1) * 5, (i >> 2 & 1) * 6), 1e-5);
    ExpectPoint(box.GetCenter(), (box.GetVertex(0) + box.GetVertex(7)) * 0.5f, 1e-5);
    box.Centralize();
    ExpectPoint(box.GetCenter(), VX_3Vec(), 1e-5);
}

TEST(VX_Box, MoveToBoxEqualityAndDebug)
{
    // A clamp on an axis with a negative margin makes the result false. Zero margins go in as
    // null, which reads as zeros.
    using P = std::array<int, 3>;
    struct Case { P pos, margin; bool ok; P want; };
    const Case cases[] = {{{-3, 25, 29}, {0, 0, 0}, true, {0, 19, 29}}, {{1, 18, 5}, {2, 2, 2}, true, {2, 17, 5}},
                          {{-1, 5, 5}, {-1, 0, 0}, true, {-1, 5, 5}},   {{-5, 5, 5}, {-1, 0, 0}, false, {-1, 5, 5}},
                          {{11, 5, 5}, {-1, 0, 0}, false, {10, 5, 5}},  {{3, 3, 99}, {-1, -1, -1}, false, {3, 3, 30}}};
    VX_Box b(10, 20, 30);
    for (Case c : cases) {
        EXPECT_EQ(b.MoveToBox(c.pos.data(), c.margin[0] || c.margin[2] ? c.margin.data() : nullptr), c.ok);
        EXPECT_EQ(c.pos, c.want);
    }
    // Equality: each point within 1e-5 of the longest edge (here 1e-3 mm).
    VX_Box a = vxtest::MakeBox(100, 10, 10), near = a, far = a, other(a, 100, 10, 11);
    near.Translate(0, 0.0005f, 0);
    far.vecs[3].z += 0.002f;
    EXPECT_TRUE(a == near && a != far && a != other);
    const std::string points = "[0]:         0          0          0  \n[1]:       1.5          0          0  \n"
                               "[2]:         0          3          0  \n[3]:         0          0          4  \n";
    VX_PhysBox p(1.5f, 3, 4);
    VX_Box d(p, 2, 3, 4);
    EXPECT_EQ(Captured([&] { d.Debug(); }), "dims: 2 x 3 x 4 \n" + points);
    EXPECT_EQ(Captured([&] { p.Debug(); }), points);
}

TEST(VX_VolData, TransposedBoxThicknessTranslateAndClone)
{
    // Small slices, so that the up to 960-byte stagger dominates each block: a stagger
    // beyond the 1024 spare bytes overlaps a neighbour or the end.
    VX_Box b = vxtest::MakeBox(16, 12, 32, 1.0f, 1.0f, 2.5f);
    b.Rotate(0.2f, 2);
    auto v = vxtest::MakeVolume(b, Pattern);
    VX_Box t = b, moved = b;
    t.TransposeXY();  // swaps edges 0 and 1 and X and Y
    EXPECT_TRUE(t.dims[0] == 12 && t.dims[1] == 16 && t.vecs[1].x == b.vecs[2].x && v->transposedBox == t);
    v->SetThickness(2.0f);  // the stored value can only widen the spacing
    EXPECT_NEAR(v->GetThickness(), 2.5f, 1e-6);
    v->SetThickness(3.0f);
    EXPECT_EQ(v->GetThickness(), 3.0f);
    v->Translate(10, 20, 30);  // moves box only
    moved.Translate(10, 20, 30);
    EXPECT_TRUE(v->box == moved && v->transposedBox == t);
    v->rescaleSlope = 2.0f, v->rescaleIntercept = -1000.0f, v->minPixelValue = -5, v->maxPixelValue = 300;
    std::unique_ptr<VX_VolData> c(v->Clone());
    EXPECT_TRUE(v->ownsSlices && c->box == v->box && !c->ownsSlices && c->sliceCount == 32);
    for (int z = 0; z < 32; ++z) EXPECT_EQ(c->slices[z], v->slices[z]);
    EXPECT_EQ(std::make_tuple(c->rescaleSlope, c->rescaleIntercept, c->minPixelValue, c->maxPixelValue, c->thickness),
              std::make_tuple(2.0f, -1000.0f, -5, 300, 0.0f));  // thickness is not copied
    c.reset();  // the clone frees neither the slices nor the original's array
    for (int z = 0; z < 32; ++z)
        for (int i = 0; i < 16 * 12; ++i) ASSERT_EQ(vxtest::Voxel(*v, i % 16, i / 16, z), Pattern(i % 16, i / 16, z));
}

TEST(VX_VolData, InitPlaceholderUntilEverySliceIsSetThenFree)
{
    struct Freeable : VX_VolData {  // a host may derive to reach Free
        using VX_VolData::VX_VolData;
        using VX_VolData::Free;
    };
    VX_Box b(3, 2, 4), none(3, 2, 0);
    Freeable v(&b);
    VX_VolData empty(&none);
    v.Init();
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(v.slices[i % 4] == v.blankSlice && v.blankSlice[i] == (short)0x8080);
    std::vector<short> host(6, 5);
    for (int z = 0; z < 4; ++z) {
        EXPECT_FALSE(v.IsLoaded());
        v.SetSlice(z == 0 ? 3 : z - 1, host.data());  // the last slice first
    }
    EXPECT_TRUE(v.IsLoaded());
    v.Init();  // a fresh placeholder replaces the old one
    EXPECT_FALSE(v.IsLoaded());
    empty.Init();
    EXPECT_TRUE(empty.IsLoaded());
    v.Allocate();  // Free releases everything but the placeholder
    v.GetTransposedSlices();
    v.CreateLowRes(true, 2);
    v.Free();
    EXPECT_TRUE(!v.lowRes && !v.transposedSlices && !v.transposedAlloc && v.blankSlice[5] == (short)0x8080);
}

TEST(VX_VolData, HounsfieldRoundsHalfAwayFromZero)
{
    VX_Box b(1, 1, 1);
    VX_VolData v(&b);
    // v + 0.5 when v > 0, otherwise v - 0.5, then truncated toward zero.
    struct Case { float slope, intercept; int in, hu, raw; };
    const Case cases[] = {{1, 0, -1, -1, -1},   {0.5f, 0, 3, 2, 6},         {0.5f, 0, -3, -2, -6},
                          {0.5f, 0, -1, -1, -2}, {2, -1000, -995, -2990, 3}, {2, -1000, -1005, -3010, -3}};
    for (Case const& c : cases) {
        v.SetRescaleSlope(c.slope);
        v.SetRescaleIntercept(c.intercept);
        EXPECT_EQ(std::make_pair(v.RawToHU(c.in), v.HUToRaw(c.in)), std::make_pair(c.hu, c.raw)) << c.in;
    }
    EXPECT_EQ(std::make_pair(v.RawToHU(2.5f), v.HUToRaw(-995.0f)), std::make_pair(-995.0f, 2.5f));
    // The half is added exactly: a float sum would round 2^23 + 1 + 0.5 up to
    // 2^23 + 2, and 0.49999997 + 0.5 up to 1.
    v.SetRescaleIntercept(0);
    v.SetRescaleSlope(1);
    EXPECT_EQ(std::make_pair(v.RawToHU(8388609), v.HUToRaw(-8388609)), std::make_pair(8388609, -8388609));
    v.SetRescaleSlope(0.49999997f);
    EXPECT_EQ(std::make_pair(v.RawToHU(1), v.RawToHU(-1)), std::make_pair(0, 0));
}

TEST(VX_VolData, ReadsVoxelByTruncatedCoordinates)
{
    VX_Box b = vxtest::MakeBox(4, 3, 5, 0.5f, 0.8f, 2.0f, VX_3Vec(-7, 3, 20, 0));
    b.Rotate(0.6f, 1);
    auto v = vxtest::MakeVolume(b, Pattern);
    vxtest::Voxel(*v, 2, 1, 1) = -32768;
    struct Case { float x, y, z; bool ok; int want; };
    const Case cases[] = {{-0.5f, 0, 0, true, -50}, {-1, 0, 0, false, 0},         {3.99f, 2.99f, 4.99f, true, 373},
                          {4, 0, 0, false, 0},      {0, 3, 0, false, 0},          {0, 0, 5, false, 0},
                          {0, 0, -1.5f, false, 0},  {2.5f, 1.5f, 1.5f, true, -32768}};
    VX_Mat toPhys = b.GetIntToPhysTrans();
    for (Case const& c : cases) {
        int out = 12345;
        EXPECT_EQ(v->GetValueAtIntCoords(&out, VX_3Vec(c.x, c.y, c.z, 0), 0), c.ok) << c.x << "," << c.y << "," << c.z;
        EXPECT_EQ(out, c.ok ? c.want : 12345);
        if (!c.ok) continue;  // the physical form, away from faces where rounding decides
        EXPECT_TRUE(v->GetValueAtPhysCoords(&out, VX_3Vec(c.x, c.y, c.z, 0) * toPhys, 0));
        EXPECT_EQ(out, c.want);
    }
    int out = 12345;
    EXPECT_FALSE(v->GetValueAtPhysCoords(&out, VX_3Vec(0.5f, 0.5f, -1.5f, 0) * toPhys, 0));
    // Beyond the 32-bit range, or NaN: outside, with no undefined conversion.
    for (float f : {3e9f, -3e9f, 1e30f, NAN})
        EXPECT_FALSE(v->GetValueAtIntCoords(&out, VX_3Vec(0, f, 0, 0), 0) || v->GetValueAtIntCoords(&out, VX_3Vec(f, 0, 0, 0), 0));
    EXPECT_EQ(out, 12345);
}
