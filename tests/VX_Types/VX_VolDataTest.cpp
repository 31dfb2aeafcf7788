#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "VX.h"
#include "support/VX_TestData.h"

namespace {

void ExpectPoint(VX_3Vec const& v, double x, double y, double z, double tol)
{
    EXPECT_NEAR(v.x, x, tol);
    EXPECT_NEAR(v.y, y, tol);
    EXPECT_NEAR(v.z, z, tol);
}

int Pattern(int x, int y, int z) { return x + 10 * y + 100 * z - 50; }

// 4 x 5 x 6 cells of 0.5 x 0.75 x 2 mm, turned about z and x and moved off the origin.
class VX_BoxTest : public testing::Test {
protected:
    VX_BoxTest() : box(vxtest::MakeBox(4, 5, 6, 0.5f, 0.75f, 2.0f, VX_3Vec(10, -5, 3, 0)))
    {
        box.Rotate(0.4f, 2);
        box.Rotate(0.3f, 0);
        box.Translate(1, 2, 3);
    }

    // phys = vecs[0] + (i / X) edge0 + (j / Y) edge1 + (k / Z) edge2, in double.
    VX_3Vec GridToPhys(VX_Box const& b, double i, double j, double k) const
    {
        double g[3] = {i / b.dims[0], j / b.dims[1], k / b.dims[2]}, p[3];
        for (int a = 0; a < 3; ++a) {
            p[a] = b.vecs[0][a];
            for (int e = 0; e < 3; ++e) p[a] += g[e] * ((double)b.vecs[e + 1][a] - b.vecs[0][a]);
        }
        return VX_3Vec((float)p[0], (float)p[1], (float)p[2], 0);
    }

    template <class F>
    std::string Captured(F f)
    {
        testing::internal::CaptureStdout();
        f();
        return testing::internal::GetCapturedStdout();
    }

    VX_Box box;
};

}  // namespace

TEST_F(VX_BoxTest, GridToPhysicalAndBack)
{
    VX_Mat toPhys = box.GetIntToPhysTrans(), toInt = box.GetPhysToIntTrans();
    const float pts[][3] = {{0, 0, 0}, {4, 5, 6}, {1.5f, 2.5f, 0.5f}, {-1, 7, 3}, {3.25f, 0, 5.75f}};
    for (auto const& g : pts) {
        VX_3Vec want = GridToPhys(box, g[0], g[1], g[2]);
        VX_3Vec phys = VX_3Vec(g[0], g[1], g[2], 0) * toPhys;
        ExpectPoint(phys, want.x, want.y, want.z, 1e-4);
        ExpectPoint(phys * toInt, g[0], g[1], g[2], 1e-4);
    }
    const double spacing[3] = {0.5, 0.75, 2.0};
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(box.GetMMPP(i), spacing[i], 1e-6);
    EXPECT_NEAR(box.GetGreatestMMPP(), 2.0, 1e-6);
    EXPECT_NEAR(box.GetSmallestMMPP(), 0.5, 1e-6);
    EXPECT_NEAR(box.GetVolume(), 2.0 * 3.75 * 12.0, 1e-4);
    EXPECT_NEAR(box.GetMaxSideLength(), 12.0, 1e-5);
    ExpectPoint(box.GetVertex(7) * box.GetToNormTrans(), 1, 1, 1, 1e-5);

    VX_Box unit;
    VX_Mat id = unit.GetIntToPhysTrans();
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) EXPECT_EQ(id.m[i][j], (i == j && i < 3) ? 1.0f : 0.0f);
    EXPECT_EQ(VX_Box(4, 4, 4).GetMMPP(0), 1.0f);

    // The 2D form ignores z: a box turned about z only maps (x, y) to (i, j, 0).
    VX_Box flat = vxtest::MakeBox(4, 5, 6, 0.5f, 0.75f, 2.0f, VX_3Vec(10, -5, 3, 0));
    flat.Rotate(0.4f, 2);
    VX_Mat to2D = flat.Get2DPhysToIntTrans();
    for (float k : {0.0f, 4.5f})
        ExpectPoint(GridToPhys(flat, 1.5, 2.5, k) * to2D, 1.5, 2.5, 0, 1e-4);
}

TEST_F(VX_BoxTest, PartialBoxVerticesAndCentre)
{
    VX_PhysBox part = box.GetPartialPhysBox(0.5f, 1.0f, 1.5f);
    const double corners[4][3] = {{0.5, 1, 1.5}, {3.5, 1, 1.5}, {0.5, 4, 1.5}, {0.5, 1, 4.5}};
    for (int i = 0; i < 4; ++i) {
        VX_3Vec want = GridToPhys(box, corners[i][0], corners[i][1], corners[i][2]);
        ExpectPoint(part.vecs[i], want.x, want.y, want.z, 1e-4);
    }
    for (int i = 0; i < 8; ++i) {
        VX_3Vec want = GridToPhys(box, (i & 1) * 4, (i >> 1 & 1) * 5, (i >> 2 & 1) * 6);
        ExpectPoint(box.GetVertex(i), want.x, want.y, want.z, 1e-5);
    }
    VX_3Vec mid = (box.GetVertex(0) + box.GetVertex(7)) * 0.5f;
    ExpectPoint(box.GetCenter(), mid.x, mid.y, mid.z, 1e-5);

    VX_Box centred = box;
    centred.Centralize();
    ExpectPoint(centred.GetCenter(), 0, 0, 0, 1e-5);
    for (int e = 0; e < 3; ++e) {
        VX_3Vec a = centred.GetVec(e), b = box.GetVec(e);
        ExpectPoint(a, b.x, b.y, b.z, 1e-5);
    }

    // w follows the same arithmetic as x, y, z.
    for (int i = 0; i < 4; ++i) box.vecs[i].w = (float)(i + 1);
    EXPECT_EQ(box.GetCenter().w, 4.0f);  // (2 + 3 + 4 - 1) / 2
    EXPECT_EQ(box.GetVertex(0).w, 1.0f);
    EXPECT_EQ(box.GetVertex(7).w, 7.0f);  // 1 + 1 + 2 + 3

}

TEST_F(VX_BoxTest, MoveToBoxClampsAndReportsNegativeMargins)
{
    using P = std::array<int, 3>;
    VX_Box b(10, 20, 30);
    struct Case { P pos, margin; bool ok; P want; };
    const Case cases[] = {
        {{-3, 25, 29}, {0, 0, 0}, true, {0, 19, 29}},
        {{1, 18, 5}, {2, 2, 2}, true, {2, 17, 5}},
        // A clamp on an axis with a negative margin makes the result false.
        {{-1, 5, 5}, {-1, 0, 0}, true, {-1, 5, 5}},
        {{-5, 5, 5}, {-1, 0, 0}, false, {-1, 5, 5}},
        {{10, 5, 5}, {-1, 0, 0}, true, {10, 5, 5}},
        {{11, 5, 5}, {-1, 0, 0}, false, {10, 5, 5}},
        {{3, 3, 99}, {-1, -1, -1}, false, {3, 3, 30}},
    };
    for (Case c : cases) {
        P p = c.pos;
        EXPECT_EQ(b.MoveToBox(p.data(), c.margin.data()), c.ok) << c.pos[0] << "," << c.pos[2];
        EXPECT_EQ(p, c.want);
    }
    P p = {-3, 25, 29};
    EXPECT_TRUE(b.MoveToBox(p.data(), nullptr));  // null margin reads as zeros
    EXPECT_EQ(p, (P{0, 19, 29}));
}

TEST_F(VX_BoxTest, EqualityToleranceFollowsLongestEdge)
{
    VX_Box a = vxtest::MakeBox(100, 10, 10);  // tolerance 100 * 1e-5 = 1e-3 mm
    VX_Box near = a, far = a, corner = a;
    near.Translate(0, 0.0005f, 0);
    far.Translate(0, 0.002f, 0);
    corner.vecs[3].z += 0.002f;
    EXPECT_TRUE(a == near);
    EXPECT_TRUE(a != far);
    EXPECT_TRUE(a != corner);
    VX_Box other(a, 100, 10, 11);
    EXPECT_TRUE(a != other);
}

TEST_F(VX_BoxTest, DebugTexts)
{
    VX_Box b(2, 3, 4);
    EXPECT_EQ(Captured([&] { b.Debug(); }),
              "dims: 2 x 3 x 4 \n"
              "[0]:         0          0          0  \n"
              "[1]:         2          0          0  \n"
              "[2]:         0          3          0  \n"
              "[3]:         0          0          4  \n");
    VX_PhysBox p(1.5f, 2, -3);
    EXPECT_EQ(Captured([&] { p.Debug(); }).substr(39, 39), "[1]:       1.5          0          0  \n");
}

TEST(VX_VolData, ConstructionAndThickness)
{
    VX_Box b = vxtest::MakeBox(4, 3, 10, 1.0f, 1.0f, 2.5f);
    b.Rotate(0.2f, 2);
    VX_VolData v(&b);
    VX_Box t = b;
    t.TransposeXY();  // swaps edges 0 and 1 and X and Y
    EXPECT_EQ(std::make_pair(t.dims[0], t.dims[1]), std::make_pair(3, 4));
    EXPECT_TRUE(v.box == b);
    EXPECT_TRUE(v.transposedBox == t);
    EXPECT_EQ(v.transposedBox.vecs[1].x, b.vecs[2].x);
    EXPECT_EQ(v.sliceCount, 10);
    EXPECT_EQ(v.rescaleSlope, 1.0f);
    EXPECT_FALSE(v.ownsSlices);

    EXPECT_NEAR(v.GetThickness(), 2.5f, 1e-6);  // the stored value can only widen the spacing
    v.SetThickness(3.0f);
    EXPECT_EQ(v.GetThickness(), 3.0f);
    v.SetThickness(2.0f);
    EXPECT_NEAR(v.GetThickness(), 2.5f, 1e-6);
}

TEST(VX_VolData, AllocatedSlicesAreSeparate)
{
    // Tiny slices, so that the up to 960-byte stagger dominates each block.
    VX_Box b(3, 2, 24);
    VX_VolData v(&b);
    v.Allocate();
    EXPECT_TRUE(v.ownsSlices);
    std::set<short*> distinct(v.slices, v.slices + 24);
    EXPECT_EQ(distinct.size(), 24u);
    vxtest::FillVolume(v, Pattern);
    for (int z = 0; z < 24; ++z)
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 3; ++x) ASSERT_EQ(vxtest::Voxel(v, x, y, z), Pattern(x, y, z));
}

TEST(VX_VolData, InitPlaceholderUntilEverySliceIsSet)
{
    VX_Box b(3, 2, 4);
    VX_VolData v(&b);
    v.Init();
    ASSERT_NE(v.blankSlice, nullptr);
    for (int z = 0; z < 4; ++z) EXPECT_EQ(v.slices[z], v.blankSlice);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(v.blankSlice[i], (short)0x8080);
    EXPECT_FALSE(v.IsLoaded());

    std::vector<std::vector<short>> host(4, std::vector<short>(6, 5));
    for (int z = 0; z < 4; ++z) {
        EXPECT_FALSE(v.IsLoaded());
        v.SetSlice(z == 0 ? 3 : z - 1, host[z].data());  // the last slice first
    }
    EXPECT_TRUE(v.IsLoaded());
    EXPECT_FALSE(v.ownsSlices);
    int out = 0;
    EXPECT_TRUE(v.GetValueAtIntCoords(&out, VX_3Vec(2, 1, 3, 0)));
    EXPECT_EQ(out, 5);

    v.Init();  // a fresh placeholder replaces the old one
    EXPECT_FALSE(v.IsLoaded());
    EXPECT_EQ(v.slices[3], v.blankSlice);

    VX_Box none(3, 2, 0);
    VX_VolData empty(&none);
    EXPECT_TRUE(empty.IsLoaded());
    empty.Init();
    EXPECT_TRUE(empty.IsLoaded());
}

TEST(VX_VolData, HounsfieldRoundsHalfAwayFromZero)
{
    VX_Box b(1, 1, 1);
    VX_VolData v(&b);
    // v + 0.5 when v > 0, otherwise v - 0.5, then truncated toward zero.
    struct Case { float slope, intercept; int in, hu, raw; };
    const Case cases[] = {{1, 0, -1, -1, -1},   {1, 0, 0, 0, 0},       {0.5f, 0, 3, 2, 6},
                          {0.5f, 0, -3, -2, -6}, {0.5f, 0, 1, 1, 2},    {0.5f, 0, -1, -1, -2},
                          {2, -1000, -995, -2990, 3}, {2, -1000, -1005, -3010, -3}};
    for (Case const& c : cases) {
        v.SetRescaleSlope(c.slope);
        v.SetRescaleIntercept(c.intercept);
        EXPECT_EQ(v.RawToHU(c.in), c.hu) << c.slope << " " << c.intercept << " " << c.in;
        EXPECT_EQ(v.HUToRaw(c.in), c.raw) << c.slope << " " << c.intercept << " " << c.in;
    }
    EXPECT_EQ(v.RawToHU(2.5f), -995.0f);
    EXPECT_EQ(v.HUToRaw(-995.0f), 2.5f);
    v.SetRescaleSlope(1.0f);
    v.SetRescaleIntercept(-1024.0f);
    for (int r = -2000; r <= 3000; r += 7) EXPECT_EQ(v.HUToRaw(v.RawToHU(r)), r);
}

TEST(VX_VolData, ReadsVoxelByTruncatedGridCoordinates)
{
    auto v = vxtest::MakeVolume(VX_Box(4, 3, 2), Pattern);
    vxtest::Voxel(*v, 2, 1, 1) = -32768;
    struct Case { float x, y, z; bool ok; int want; };
    const Case cases[] = {{-0.5f, 0, 0, true, -50},  {-1, 0, 0, false, 0},   {3.99f, 2.99f, 1.99f, true, 73},
                          {4, 0, 0, false, 0},       {0, 3, 0, false, 0},    {0, 0, 2, false, 0},
                          {0, 0, -0.9f, true, -50},  {1.2f, 0.7f, 1, true, 51}, {0, -1.5f, 0, false, 0},
                          {2.5f, 1.5f, 1.5f, true, -32768}};
    for (Case const& c : cases) {
        int out = 12345;
        EXPECT_EQ(v->GetValueAtIntCoords(&out, VX_3Vec(c.x, c.y, c.z, 0), 0), c.ok) << c.x << "," << c.y << "," << c.z;
        EXPECT_EQ(out, c.ok ? c.want : 12345);
    }
}

TEST(VX_VolData, ReadsVoxelAtPhysicalPoint)
{
    VX_Box b = vxtest::MakeBox(4, 3, 5, 0.5f, 0.8f, 2.0f, VX_3Vec(-7, 3, 20, 0));
    b.Rotate(0.6f, 1);
    b.Rotate(-0.3f, 2);
    auto v = vxtest::MakeVolume(b, Pattern);
    VX_Mat toPhys = b.GetIntToPhysTrans();
    for (int z = 0; z < 5; ++z)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) {
                int out = 0;
                VX_3Vec centre = VX_3Vec(x + 0.5f, y + 0.5f, z + 0.5f, 0) * toPhys;
                ASSERT_TRUE(v->GetValueAtPhysCoords(&out, centre, 0));
                EXPECT_EQ(out, Pattern(x, y, z));
            }
    int out = 12345;
    EXPECT_FALSE(v->GetValueAtPhysCoords(&out, VX_3Vec(-1.5f, 0.5f, 0.5f, 0) * toPhys, 0));
    EXPECT_FALSE(v->GetValueAtPhysCoords(&out, VX_3Vec(0.5f, 0.5f, 5.5f, 0) * toPhys, 0));
    EXPECT_EQ(out, 12345);
}

TEST(VX_VolData, TransformMovesBoxOnly)
{
    auto v = vxtest::MakeVolume(vxtest::MakeBox(4, 3, 2, 1.0f, 2.0f, 3.0f), Pattern);
    VX_Box box = v->box, transposed = v->transposedBox;
    v->Translate(10, 20, 30);
    v->Rotate(0.5f, 1);
    box.Translate(10, 20, 30);
    box.Rotate(0.5f, 1);
    EXPECT_TRUE(v->box == box);
    for (int i = 0; i < 4; ++i)
        for (int a = 0; a < 4; ++a) EXPECT_EQ(v->transposedBox.vecs[i][a], transposed.vecs[i][a]);
    int out = 0;
    EXPECT_TRUE(v->GetValueAtIntCoords(&out, VX_3Vec(3, 2, 1, 0)));
    EXPECT_EQ(out, Pattern(3, 2, 1));
}

TEST(VX_VolData, CloneSharesSlicesAndCopiesRescale)
{
    auto v = vxtest::MakeVolume(vxtest::MakeBox(4, 3, 6, 1.0f, 1.0f, 1.5f), Pattern);
    v->SetRescaleSlope(2.0f);
    v->SetRescaleIntercept(-1000.0f);
    v->SetMinPixelValue(-5);
    v->SetMaxPixelValue(300);
    v->SetThickness(7.0f);
    std::unique_ptr<VX_VolData> c(v->Clone());
    EXPECT_TRUE(c->box == v->box);
    EXPECT_FALSE(c->ownsSlices);
    EXPECT_EQ(c->sliceCount, 6);
    for (int z = 0; z < 6; ++z) EXPECT_EQ(c->slices[z], v->slices[z]);
    EXPECT_EQ(std::make_tuple(c->rescaleSlope, c->rescaleIntercept, c->minPixelValue, c->maxPixelValue),
              std::make_tuple(2.0f, -1000.0f, -5, 300));
    EXPECT_EQ(c->thickness, 0.0f);  // not copied
    EXPECT_NEAR(c->GetThickness(), 1.5f, 1e-6);
    c.reset();  // the clone frees neither the slices nor the original's array
    EXPECT_EQ(vxtest::Voxel(*v, 3, 2, 5), Pattern(3, 2, 5));
}
