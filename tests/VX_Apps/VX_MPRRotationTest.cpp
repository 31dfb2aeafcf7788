#include <gtest/gtest.h>

#include <math.h>
#include <algorithm>
#include <random>
#include <vector>

#include "VX_MPRReference.h"

namespace {

constexpr short kFill = -2000;       // the volumes' minimum pixel value
constexpr short kBackground = -32640;  // 0x8080, what the warp gives pixels it cannot reach

// Every Calc() also compares the scalar paths on one thread with the vector paths on four.
class VX_MPRRotationTest : public testing::Test, public vxref::Rig {
protected:
    // 8 x 7 x 6 cells of 2 x 0.5 x 1 mm, the origin corner at (10, -4, 0).
    std::unique_ptr<VX_VolData> vol = vxtest::MakeVolume(vxtest::MakeBox(8, 7, 6, 2.0f, 0.5f, 1.0f, VX_3Vec(10, -4, 0)),
                                                         [](int x, int y, int z) { return x + y + z; });
    void SetUp() override { Rotated(*vol); }
    void Rotated(VX_VolData& v) { Use(v, kFill), mpr.rotate = true; }
};

// The turn brings the in-plane direction of grid point (0, 1, 0), taken with the
// translation, onto the picture's y axis; that of (0, 0, 1) when the first one's
// squared in-plane length times 10 does not exceed the second's.
TEST_F(VX_MPRRotationTest, AngleFollowsTheGridAxes)
{
    // Grid (0, 1, 0) and (0, 0, 1) are (10, -3.5, 0) and (10, -4, 1) mm. Moving
    // by -(10, -4, 0) before L makes them a = 0.5 L[1] and b = L[2].
    struct Case { float r0[3], r1[3], r2[3]; bool moved; double angle; };
    const Case cases[] = {
        {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, false, atan2(-3.5, 10.0)},  // identity: 10 * 112.25 > 116
        {{0, 0, 1}, {2, 0, 0.5f}, {1, 3, 0}, true, atan2(3.0, 1.0)},  // a (1, 0), b (1, 3): 10 = 10 takes b
        {{0, 0, 1}, {2, 0.02f, 0.5f}, {1, 3, 0}, true, atan2(0.01, 1.0)},  // a (1, 0.01): 10.001 > 10
        {{0, 0, 1}, {2, 0, 0.5f}, {2, 1, 0}, true, 0.0},  // a (1, 0) wins over b (2, 1) by the factor 10
        {{1, 0, 0}, {0, 0, -1}, {0, 1, 0}, true, M_PI / 2},  // coronal: a has no in-plane part
    };
    float back[3] = {-10, 4, 0};
    for (auto c : cases) {
        VX_Mat L(c.r0, c.r1, c.r2, nullptr);
        mpr.trans = c.moved ? VX_TransMat(back) * L : L;
        mpr.imageBox = vxtest::MakeBox(10, 9, 1);
        Calc();
        EXPECT_NEAR(mpr.rotationAngle, 1.570796326795 - c.angle, 1e-6) << c.r1[1] << " " << c.r2[0];
        // rotatedTrans: the image's centre to 0, then turned by rotationAngle about z.
        VX_3Vec q = (mpr.imageBox.GetCenter() + VX_3Vec(1, 0, 0, 0)) * mpr.trans.Inv() * mpr.rotatedTrans;
        EXPECT_LE((q - VX_3Vec(cos(mpr.rotationAngle), sin(mpr.rotationAngle), 0)).Abs(), 1e-4) << q.x << " " << q.y;
    }
}

// N = trunc(scale * diag / r): r from the slab thickness (1 up to 20 mm, 3 from 80 mm),
// raised to bring a side above 1024 down to 1024 but never above 3. The buffer grows
// to trunc(1.1 N) when N exceeds it and never shrinks. (The square's size and place
// show in the agreement with the direct picture.)
TEST_F(VX_MPRRotationTest, PictureSideAndBuffer)
{
    struct Case { int W, H; float w, h, thick; int N, tol; };
    const Case cases[] = {
        {60, 60, 60, 60, 0, 84, 0},          // diag 84.85
        {200, 200, 200, 200, 0, 282, 0},     // 282.84: the buffer grows to 310
        {60, 60, 60, 60, -5, 84, 0},         // and stays
        {60, 60, 60, 60, 50, 42, 0},         // r = 2
        {60, 60, 60, 60, 100, 28, 0},        // r = 3
        {30, 30, 15, 15, 0, 42, 0},          // 2 pixels per mm: 2 * 21.21
        {1, 1, 1, 3000, 0, 1024, 1},         // r = 2.93
        {1, 1, 1, 6000, 0, 2000, 0},         // r = 3 at most: the buffer grows to 2200
    };
    short* buffer = mpr.rotatedBuffer;
    int side = 256;
    for (auto const& c : cases) {
        SCOPED_TRACE(testing::Message() << c.W << " x " << c.H << " px, " << c.w << " x " << c.h << " mm, " << c.thick);
        mpr.imageBox = vxtest::MakeBox(c.W, c.H, 1, c.w / c.W, c.h / c.H);
        mpr.slabThickness = c.thick;
        Calc();
        int N = mpr.rotatedBox.dims[0], before = side;
        EXPECT_NEAR(N, c.N, c.tol);
        EXPECT_EQ(mpr.boundingRect, VX_Rect(0, 0, N, N));
        if (N > side) side = (int)(N * 1.1);
        EXPECT_EQ(mpr.rotatedBufferSide, side);
        EXPECT_TRUE(side != before || mpr.rotatedBuffer == buffer);  // the same block, reused
        buffer = mpr.rotatedBuffer;
    }
    EXPECT_EQ(side, 2200);
}

// A thick slab reduces the picture by 3, so the warp's half-pixel margin reaches 1.5 image
// pixels in: the end columns of a long thin image read 0x8080, also where the volume is,
// while pixels outside the volume but inside the picture read the minimum.
TEST_F(VX_MPRRotationTest, BeyondThePictureReadsBackground)
{
    auto deep = vxtest::MakeVolume(vxtest::MakeBox(16, 16, 8, 1, 1, 20),
                                   [](int x, int y, int) { return 100 + 10 * x + y; });
    Rotated(*deep);
    float down[3] = {0, 0, -80};  // the image plane halfway down the volume
    mpr.trans = VX_TransMat(down);
    mpr.imageBox = vxtest::MakeBox(40, 2, 1, 1, 1, 1, VX_3Vec(0, 7, 0));  // rows on voxel rows 7 and 8
    mpr.slabThickness = 100;
    Calc();
    EXPECT_NEAR(mpr.rotationAngle, 0, 1e-6);
    ASSERT_EQ(mpr.rotatedBox.dims[0], 13);  // trunc(40.05 / 3); pixels of 3.08 mm
    // The warp reaches x from -0.025 + 0.51 * 3.08 = 1.55 to 38.45 mm. Beyond the volume
    // (x = 16 mm) the picture holds the minimum.
    for (int j = 0; j < 2; ++j) {
        EXPECT_EQ(Out(0, j), kBackground);
        EXPECT_EQ(Out(39, j), kBackground);
        for (int i = 17; i <= 36; ++i) EXPECT_NEAR(Out(i, j), kFill, 1) << i;  // beyond x = 16 mm
    }
    // Picture rows at y = 1.8 and 14.2 mm cross the volume but lie beyond the image (y 7 to
    // 9 mm) plus 4 pixels: they are clipped and hold the minimum.
    auto sampled = [&](int k) {
        short const* row = mpr.rotatedBuffer + 13 * k;
        return std::count(row, row + 13, kFill) < 13;
    };
    EXPECT_TRUE(!sampled(4) && sampled(5) && sampled(7) && !sampled(8));
}

// On a smooth volume the rotated picture agrees with the direct one inside the volume, away
// from its edges: sections and 10 mm average slabs of oblique planes. With rotate set the
// slab ignores an interrupt request.
TEST_F(VX_MPRRotationTest, AgreesWithTheDirectPicture)
{
    auto smooth = vxtest::MakeVolume(vxtest::MakeBox(40, 40, 40, 0.8f, 0.8f, 1.2f), [](int x, int y, int z) {
        return 400 * sin(x / 5.0) * cos(y / 6.0) + 300 * sin(z / 7.0 + 0.3 * x / 5.0);
    });
    Rotated(*smooth);
    std::mt19937 rng(77);
    std::uniform_real_distribution<float> ang(-3.1416f, 3.1416f), sp(0.4f, 0.9f);
    int worst = 0;
    long compared = 0;
    for (int plane = 0; plane < 6; ++plane) {
        VX_Mat rot = VX_RotMat(ang(rng), 0) * VX_RotMat(ang(rng), 1) * VX_RotMat(ang(rng), 2);
        vxref::PlaceImage(mpr, rot, 48, 40, sp(rng), VX_3Vec(1.5f, -1, 2, 0));
        mpr.slabThickness = plane % 2 ? 10.0f : 0.0f;
        mpr.rotate = false;
        Calc();
        std::vector<short> direct = out;
        mpr.rotate = true;
        mpr.multithread.SetInterruptRequest(plane % 2);  // process-wide, so cleared below
        Calc();
        mpr.multithread.SetInterruptRequest(false);
        for (int j = 2; j < H - 2; ++j)
            for (int i = 2; i < W - 2; ++i) {
                bool inside = true;  // the 5 x 5 pixels around hold samples in the direct picture
                for (int d = 0; d < 25; ++d) inside &= direct[(i + d % 5 - 2) + (j + d / 5 - 2) * W] != kFill;
                if (!inside) continue;
                worst = std::max(worst, abs(Out(i, j) - direct[i + j * W]));
                ++compared;
            }
    }
    RecordProperty("largestDifference", worst);
    EXPECT_GT(compared, 3000);
    EXPECT_LE(worst, 6);
}

}  // namespace
