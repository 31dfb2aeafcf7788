#include <gtest/gtest.h>

#include <math.h>
#include <random>
#include <vector>

#include "VX_MPRReference.h"

namespace {

constexpr short kFill = -2000;  // the volume's minimum pixel value

// Every Calc() also compares the scalar path on one thread with the vector paths on four.
class VX_MPRTest : public testing::Test, public vxref::Rig {
protected:
    static constexpr int X = 8, Y = 7, Z = 6;
    std::unique_ptr<VX_VolData> vol;

    static int V(int x, int y, int z) { return x + 10 * y + 100 * z - 300; }

    void SetUp() override
    {
        vol = vxtest::MakeVolume(vxtest::MakeBox(X, Y, Z), V);
        Use(*vol, kFill);
    }
    // An X x Y image of 1 mm pixels parallel to the x-y faces at depth z, its origin at x = shiftX.
    void Axial(float z, float shiftX = 0)
    {
        mpr.imageBox = vxtest::MakeBox(X, Y, 1);
        float t[3] = {-shiftX, 0, -z};
        mpr.trans = VX_TransMat(t);
        Calc();
    }
    // The bounding rect is r, and pixels inside it are slice k's voxels, the others the fill.
    void ExpectSlice(int k, VX_Rect r)
    {
        EXPECT_EQ(mpr.boundingRect, r);
        for (int i = 0, x = 0, y = 0; i < X * Y; ++i, x = i % X, y = i / X)
            ASSERT_EQ(out[i], x >= r.x && x < r.x + r.w && y >= r.y && y < r.y + r.h ? V(x, y, k) : kFill) << i;
    }
};

TEST_F(VX_MPRTest, VoxelCentresMarginsAndMisses)
{
    // The trilinear margin (0.51 voxel) drops the outermost pixel centres.
    Axial(2.5f);
    ExpectSlice(2, VX_Rect(1, 1, X - 2, Y - 2));
    Axial(0.5f);  // the centre of slice 0 lies inside the trilinear margin,
    ExpectSlice(0, VX_Rect());
    mpr.interpolation = 0;  // but not the nearest-neighbour one, a hundredth of a voxel;
    Calc();                 // left = trunc(0.01 - 0.5) + 1 still drops column 0
    ExpectSlice(0, VX_Rect(1, 0, X - 1, Y));
    mpr.interpolation = 1;
    float misses[3][2] = {{Z + 3.0f, 0}, {-3.0f, 0}, {2.5f, 100}};  // above, below and beside the volume
    for (auto const& at : misses) {
        Axial(at[0], at[1]);
        ExpectSlice(0, VX_Rect());
    }
}

// Random oblique planes through a random volume with extremes, some with reversed edges:
// pixels inside the library's own bounds equal the rule on samples inside the volume, and
// the others are the fill.
TEST_F(VX_MPRTest, ObliquePlanesMatchTheRule)
{
    std::mt19937 rng(20240601);
    std::uniform_real_distribution<float> sp(0.4f, 1.1f), shift(-2.5f, 2.5f), ang(-3.1416f, 3.1416f);
    VX_Box box = vxtest::MakeBox(12, 11, 10, 0.9f, 1.1f, 1.3f);
    auto rnd = vxtest::RandomVolume(box, rng);
    Use(*rnd, kFill);
    long compared = 0;
    for (int plane = 0; plane < 32; ++plane) {
        mpr.volBox = box;
        if (plane % 4 == 3) {  // reverse one edge: swap its ends through the origin corner
            int e = plane % 3 + 1;
            VX_3Vec edge = box.vecs[e] - box.vecs[0];
            for (int k = 0; k < 4; ++k)
                if (k != e) mpr.volBox.vecs[k] += edge;
            mpr.volBox.vecs[e] = box.vecs[0];
        }
        VX_Mat rot = VX_RotMat(ang(rng), 0) * VX_RotMat(ang(rng), 1) * VX_RotMat(ang(rng), 2);
        vxref::PlaceImage(mpr, rot, 24, 20, sp(rng), VX_3Vec(shift(rng), shift(rng), shift(rng), 0));
        mpr.slabThickness = plane % 2 ? -5.0f : 0.0f;  // a negative thickness is a section too
        for (int interp = 1; interp >= 0; --interp) {
            SCOPED_TRACE(testing::Message() << "plane " << plane << " interpolation " << interp);
            mpr.interpolation = interp;
            Calc();
            long n = vxref::CompareImage(*this, *rnd, kFill, 0, nullptr, [&](vxref::Vol& v, int const* p) {
                return interp ? vxref::TriLin(v, p) : v.At(p[0] >> 18, p[1] >> 18, p[2] >> 18);
            });
            ASSERT_GE(n, 0);
            compared += n;
        }
    }
    EXPECT_GT(compared, 4000);
}

}  // namespace

// Degenerate views, direct and through the aligned picture, must neither write past the
// image, read outside the volume (a failure under the sanitizers) nor hang: singular or
// NaN transforms, slabs from 0.001 mm to infinity, one-voxel volumes, empty images (an
// empty rect when direct), pixels of zero size, far larger or far smaller than voxels.
TEST(VX_MPRHostile, DegenerateViewsStayInsideTheBuffers)
{
    std::mt19937 rng(11);
    const float thick[] = {0, -1, 0.001f, 20, 200, 1e9f, 1e30f, INFINITY, NAN}, mm[] = {0, 0.05f, 3, 7};
    for (int t = 0; t < 60; ++t) {
        int X = 1 + rng() % 4, Y = 1 + rng() % 4, Z = 1 + rng() % 4, W = rng() % 25, H = rng() % 25;
        auto vol = vxtest::RandomVolume(vxtest::MakeBox(X, Y, Z, rng() % 2 ? -0.7f : 1.3f, 0.9f, 1.1f), rng);
        vxref::Rig r;
        r.Use(*vol, 0);
        r.mpr.imageBox = vxtest::MakeBox(W, H, 1, mm[rng() % 4], mm[1 + rng() % 3]);
        VX_Mat m = VX_RotMat((rng() % 8) * 0.7853982f, 0) * VX_RotMat((rng() % 8) * 0.7853982f, 1);
        m.m[3][0] = -(float)(rng() % 6);
        if (t % 6 == 0) m = VX_Mat(0.0f);
        if (t % 6 == 1) m.m[0][0] = NAN;
        r.mpr.trans = m;
        r.mpr.noInterrupt = true;
        std::vector<short> o((size_t)W * H + 1, 777);
        r.mpr.output = o.data();
        for (int mode = 0; mode < 10; ++mode) {
            r.mpr.rotate = mode >= 5;
            r.mpr.interpolation = mode % 5 != 0;
            r.mpr.slabThickness = mode % 5 >= 2 ? thick[rng() % 9] : 0;
            r.mpr.slabMIP = mode % 5 == 3, r.mpr.slabMin = mode % 5 == 4;
            r.mpr.boundingRect = VX_Rect(1, 2, 3, 4);
            r.mpr.CalcRaster();
            EXPECT_EQ(o.back(), 777) << "trial " << t << " mode " << mode;
            EXPECT_TRUE(W * H > 0 || r.mpr.rotate || r.mpr.boundingRect == VX_Rect()) << t;  // nothing sampled
        }
    }
}
