#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <vector>

#include "VX_Apps/VX_MPR.h"
#include "VX_MPRReference.h"

namespace {

constexpr short kFill = -2000;     // the volume's minimum pixel value
constexpr short kUnset = 777;      // a pixel nothing wrote

class VX_MPRTest : public testing::Test, public vxref::Rig {
protected:
    static constexpr int X = 8, Y = 7, Z = 6;
    std::unique_ptr<VX_VolData> vol;

    static int V(int x, int y, int z) { return x + 10 * y + 100 * z - 300; }

    void SetUp() override
    {
        vol = vxref::MakeVolume(vxref::MakeBox(X, Y, Z), V);
        Use(*vol, kFill);
    }
    // A w x h image of sp mm pixels parallel to the x-y faces at grid depth z,
    // its origin at volume x = shiftX.
    void Axial(int w, int h, float sp, float z, float shiftX = 0)
    {
        mpr.imageBox = vxref::MakeBox(w, h, 1, sp, sp, 1);
        float t[3] = {-shiftX, 0, -z};
        mpr.trans = VX_TransMat(t);
    }
    void ExpectAllFill()
    {
        for (size_t i = 0; i < out.size(); ++i) ASSERT_EQ(out[i], kFill) << "pixel " << i;
        EXPECT_EQ(mpr.boundingRect, VX_Rect());
    }
};

TEST_F(VX_MPRTest, TriLinAtVoxelCentresGivesVoxels)
{
    // The trilinear margin (0.51 voxel) drops the outermost pixel centres.
    for (int k = 1; k <= Z - 2; ++k) {
        Axial(X, Y, 1, k + 0.5f);
        Calc();
        EXPECT_EQ(mpr.boundingRect, VX_Rect(1, 1, X - 2, Y - 2));
        for (int j = 0; j < Y; ++j)
            for (int i = 0; i < X; ++i) {
                bool in = i >= 1 && i <= X - 2 && j >= 1 && j <= Y - 2;
                ASSERT_EQ(Out(i, j), in ? V(i, j, k) : kFill) << i << "," << j << "," << k;
            }
    }
    Axial(X, Y, 1, 0.5f);  // the centre of slice 0 lies inside the margin
    Calc();
    ExpectAllFill();
    // 0.02 voxel above slice 0: fz = ((0.02 * 2^18) >> 3) = 655, and the z lerp
    // adds (100 * 655) >> 15 = 1.
    Axial(X, Y, 1, 0.52f);
    Calc();
    EXPECT_EQ(mpr.boundingRect, VX_Rect(1, 1, X - 2, Y - 2));
    EXPECT_EQ(Out(3, 2), V(3, 2, 0) + 1);
}

TEST_F(VX_MPRTest, NearestTruncates)
{
    // Half-voxel pixels, 0.4 voxel past the centres of slice 2: pixel i reads
    // voxel i / 2. The vertical-line rule (left = trunc(0.02 - 0.5) + 1) drops
    // column 0; rows keep their full height.
    mpr.interpolation = 0;
    Axial(2 * X, 2 * Y, 0.5f, 2.9f);
    Calc();
    EXPECT_EQ(mpr.boundingRect, VX_Rect(1, 0, 2 * X - 1, 2 * Y));
    for (int j = 0; j < 2 * Y; ++j)
        for (int i = 0; i < 2 * X; ++i) ASSERT_EQ(Out(i, j), i == 0 ? kFill : V(i / 2, j / 2, 2)) << i << "," << j;
}

TEST_F(VX_MPRTest, PlaneMissingTheVolumeGivesFill)
{
    for (int interp = 0; interp < 2; ++interp) {
        mpr.interpolation = interp;
        Axial(X, Y, 1, Z + 3.0f);
        Calc();
        ExpectAllFill();
        Axial(X, Y, 1, -3.0f);
        Calc();
        ExpectAllFill();
        Axial(X, Y, 1, 2.5f, 100.0f);  // beside the volume, in the plane of a slice
        Calc();
        ExpectAllFill();
    }
}

TEST_F(VX_MPRTest, ZeroOrNegativeThicknessIsSingleSection)
{
    vxref::PlaceImage(mpr, VX_RotMat(0.4f, 0) * VX_RotMat(0.3f, 1), 12, 10, 0.7f, VX_3Vec());
    Calc();
    std::vector<short> single = out;
    mpr.slabThickness = -5;
    Calc();
    EXPECT_EQ(out, single);
    mpr.slabThickness = 3;  // the slab averages 100-per-slice steps across z
    Calc();
    EXPECT_NE(out, single);
}

TEST_F(VX_MPRTest, EmptyImageIsSafe)
{
    VX_PhysBox p(5, 4, 1);
    for (int interp = 0; interp < 2; ++interp)
        for (int wh = 0; wh < 2; ++wh) {
            mpr.interpolation = interp;
            mpr.imageBox = VX_Box(p, wh ? 0 : 5, wh ? 4 : 0, 1);
            std::vector<short> guard(8, kUnset);
            mpr.output = guard.data();
            mpr.boundingRect = VX_Rect(1, 2, 3, 4);
            mpr.CalcRaster();
            EXPECT_EQ(guard, std::vector<short>(8, kUnset));
            EXPECT_EQ(mpr.boundingRect, VX_Rect());
        }
}

TEST_F(VX_MPRTest, ReversedVolumeGivesMirroredPicture)
{
    Axial(X, Y, 1, 3.5f);
    Calc();
    std::vector<short> straight = out;
    // The x edge runs from (X, 0, 0) back to the origin: voxel i sits at X - i - 0.5.
    float v[4][3] = {{(float)X, 0, 0}, {0, 0, 0}, {(float)X, (float)Y, 0}, {(float)X, 0, (float)Z}};
    VX_PhysBox p(v);
    mpr.volBox = VX_Box(p, X, Y, Z);
    Calc();
    EXPECT_EQ(mpr.boundingRect, VX_Rect(1, 1, X - 2, Y - 2));
    for (int j = 0; j < Y; ++j)
        for (int i = 0; i < X; ++i) ASSERT_EQ(Out(i, j), straight[(X - 1 - i) + j * X]) << i << "," << j;
    EXPECT_EQ(Out(1, 3), V(X - 2, 3, 3));
}

// Random oblique planes through a random volume (with extremes and, for some
// planes, reversed edges): every pixel inside the library's own bounds equals
// the scalar rule, every pixel outside is the fill, and no sample the rule
// evaluates inside the bounds leaves the volume.
TEST_F(VX_MPRTest, ObliquePlanesMatchTheRule)
{
    std::mt19937 rng(20240601);
    std::uniform_real_distribution<float> sp(0.4f, 1.1f), shift(-2.5f, 2.5f), ang(-3.1416f, 3.1416f);
    const int X2 = 12, Y2 = 11, Z2 = 10;
    VX_Box box = vxref::MakeBox(X2, Y2, Z2, 0.9f, 1.1f, 1.3f);
    auto rnd = vxref::RandomVolume(box, rng);
    Use(*rnd, kFill);
    long compared = 0;
    for (int plane = 0; plane < 40; ++plane) {
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
        for (int interp = 1; interp >= 0; --interp) {
            SCOPED_TRACE(testing::Message() << "plane " << plane << " interpolation " << interp);
            mpr.interpolation = interp;
            Calc();
            std::vector<short> bounds(2 * H);
            mpr.PrepareCBounds(bounds.data(), 0, true);
            EXPECT_EQ(mpr.boundingRect, VX_MPR::computeBoundingRect(W, H, bounds.data()));
            vxref::Frame f = vxref::MakeFrame(mpr, interp == 1);
            ASSERT_TRUE(f.ok);
            long n = vxref::CompareImage(*this, *rnd, f, bounds.data(), kFill, [&](vxref::Vol& v, int const* p) {
                return interp ? vxref::TriLin(v, p) : v.At(p[0] >> 18, p[1] >> 18, p[2] >> 18);
            });
            ASSERT_GE(n, 0);
            compared += n;
        }
    }
    EXPECT_GT(compared, 5000);
}

TEST_F(VX_MPRTest, ThreadCountDoesNotChangeThePicture)
{
    std::mt19937 rng(7);
    auto rnd = vxref::RandomVolume(vxref::MakeBox(20, 18, 16), rng);
    Use(*rnd, kFill);
    vxref::PlaceImage(mpr, VX_RotMat(0.5f, 0) * VX_RotMat(-0.7f, 2), 64, 48, 0.4f, VX_3Vec());
    int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    Calc();
    std::vector<short> one = out;
    omp_set_num_threads(4);
    Calc();
    omp_set_num_threads(saved);
    EXPECT_EQ(out, one);
    EXPECT_GT(mpr.boundingRect.w * mpr.boundingRect.h, 1000);
}

}  // namespace
