#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "VX_MPRReference.h"

namespace {

constexpr short kFill = -2000;
constexpr int kOne = 262144;  // one voxel in 18-bit fixed point
constexpr float kPi2 = 1.5707964f;

enum Mode { kAvg, kMax, kMin };
using Kernel = void (VX_MPR::*)(int, int, short*, int, int, int, int, int, int, int, int, int);

struct Ray { int n, depth, p[3], s[3], d[3]; };  // n pixels of depth samples, for the line kernels

// Every Calc() and RunLine() also compares the scalar path on one thread with the vector path on four.
class VX_SlabTest : public testing::Test, public vxref::Rig {
protected:
    std::mt19937 rng{4242};
    VX_Box box = vxtest::MakeBox(14, 13, 12, 1.0f, 0.9f, 1.1f);
    std::unique_ptr<VX_VolData> vol = vxtest::RandomVolume(box, rng);

    void SetUp() override { Use(*vol, kFill); }
    void SetMode(int m) { mpr.slabMIP = m == kMax, mpr.slabMin = m == kMin; }
    // A slab whose normal lies within about 25 degrees of volume axis `axis`,
    // pointing either way, turned freely in its plane; or, with `aligned` 1 or 2,
    // exactly along the axis and turned by 0 or 90 degrees.
    void PlaceSlab(int axis, float thickness, int aligned = 0)
    {
        float t = aligned ? 0.0f : 0.3f, r = aligned ? 0.0f : 3.1f;
        std::uniform_real_distribution<float> tilt(-t, t), turn(-r, r), sp(0.5f, 1.0f), shift(-1.5f, 1.5f);
        float side = rng() % 2 ? 1.0f : -1.0f;
        VX_Mat base = axis < 2 ? VX_RotMat(side * kPi2, 1 - axis) : VX_RotMat(side > 0 ? 0.0f : 2 * kPi2, 0);
        float spin = turn(rng) + (aligned == 2 ? kPi2 : 0);
        VX_Mat rot = base * VX_RotMat(tilt(rng), 0) * VX_RotMat(tilt(rng), 1) * VX_RotMat(spin, 2);
        vxref::PlaceImage(mpr, rot, 20, 18, sp(rng), VX_3Vec(shift(rng), shift(rng), shift(rng), 0));
        mpr.slabThickness = thickness;
    }
    std::vector<short> RunLine(Kernel k, Ray const& r)
    {
        return vxref::BothPaths([&] {
            std::vector<short> o(r.n + 1, 777);
            (mpr.*k)(r.n, r.depth, o.data(), r.p[0], r.p[1], r.p[2], r.s[0], r.s[1], r.s[2], r.d[0], r.d[1], r.d[2]);
            EXPECT_EQ(o.back(), 777) << "written past n";
            o.pop_back();
            return o;
        });
    }
};

// Random slabs in every mode near every axis, some aligned to take every dispatch branch,
// some thinner than one step, some not to be interrupted: the step vector is the stated
// one, pixels inside the slab's bounds equal the rule on samples inside the volume, and
// the others are the fill.
TEST_F(VX_SlabTest, SlabsMatchTheRule)
{
    std::uniform_real_distribution<float> thick(0.8f, 7.0f);
    long compared = 0;
    int branch[4] = {};  // extremes by dispatch: ray-major, LinesXY, LinesXZ, Lines
    for (int mode = kAvg; mode <= kMin; ++mode)
        for (int axis = 0; axis < 3; ++axis)
            for (int trial = 0; trial < 4; ++trial) {
                SCOPED_TRACE(testing::Message() << "mode " << mode << " axis " << axis << " trial " << trial);
                SetMode(mode);
                mpr.slabMin |= mode == kMax && trial == 1;  // with both set the maximum wins
                PlaceSlab(axis, trial == 3 ? 0.5f : thick(rng), trial < 2 ? trial + 1 : 0);  // 0.5: one sample
                mpr.noInterrupt = trial == 2;  // which ignores a request
                mpr.multithread.SetInterruptRequest(trial == 2);
                Calc();
                mpr.multithread.SetInterruptRequest(false);
                vxref::ZVec z(mpr);
                VX_3Vec zl;
                ASSERT_EQ(mpr.CalcZVec(&zl), z.n);
                ASSERT_EQ(std::make_pair(mpr.slabAxis, z.axis), std::make_pair(axis, axis));
                EXPECT_TRUE(zl.x == z.v.x && zl.y == z.v.y && zl.z == z.v.z);
                int depth = 2 * z.n + 1;

                int s[3] = {vxref::Fix(z.v.x), vxref::Fix(z.v.y), vxref::Fix(z.v.z)};
                bool rays = std::abs(s[0]) > 65536;  // the dispatchers' first test
                vxref::Frame f(mpr, true);
                if (mode != kAvg) branch[rays ? 0 : std::abs(f.col[1]) < 3 ? 1 : std::abs(f.col[2]) < 3 ? 2 : 3]++;
                long n = vxref::CompareImage(*this, *vol, kFill, z.n, s, [&](vxref::Vol& v, int const* p) {
                    if (mode == kAvg) return vxref::AvgRay(v, axis, 1.0f / depth, depth, p, s);
                    return (int)vxref::ExtremeRay(v, mode == kMax, rays, depth, p, s);
                });
                ASSERT_GE(n, 0);
                compared += n;
            }
    EXPECT_GT(compared, 2000);
    for (int n : branch) EXPECT_GT(n, 0);
}

// The dispatch table seen through the start values: voxels of -32700 stay
// below the plane-major start 0x8080 (-32640) but not the ray-major -88888,
// and likewise 32700 for the minimum.
TEST_F(VX_SlabTest, DispatchThresholds)
{
    // kernel: 0 the dispatcher, 1 ray-major, 2 plane-major, 3 CalcLine handing over.
    struct Case { int kernel, depth, sx, dy, dz; bool rays; };
    const Case cases[] = {{0, 2, 65536, 0, 0, false},  // exactly 65536: plane-major (LinesXY)
                          {0, 2, -65536, 0, 0, false}, {0, 2, 65537, 0, 0, true}, {0, 2, -65537, 0, 0, true},
                          {0, 2, 0, 5, 0, false},      // LinesXZ
                          {0, 2, 0, 5, 5, false},      // Lines
                          {0, 0, 65537, 0, 0, true},   // depth 0 keeps the narrowed start, -23352
                          {0, 0, 0, 0, 0, false},      {1, 2, 0, 5, 5, true}, {2, 2, 65537, 0, 0, false},
                          {3, 2, 65537, 0, 0, true},   {3, 2, 0, 5, 5, false}};
    for (bool isMax : {true, false}) {
        short voxel = isMax ? -32700 : 32700;
        auto uni = vxtest::MakeVolume(vxtest::MakeBox(8, 8, 8), [&](int, int, int) { return voxel; });
        Use(*uni, kFill);
        SetMode(isMax ? kMax : kMin);
        const Kernel kernels[4] = {isMax ? &VX_MPR::CalcLineMIP : &VX_MPR::CalcLineMin,
                                   isMax ? &VX_MPR::CalcLineMIPRays : &VX_MPR::CalcLineMinRays,
                                   isMax ? &VX_MPR::CalcLineMIPLines : &VX_MPR::CalcLineMinLines, &VX_MPR::CalcLine};
        for (Case const& c : cases) {
            Ray r = {3, c.depth, {2 * kOne, 2 * kOne + 77, 2 * kOne + 99}, {c.sx, 0, 0}, {kOne, c.dy, c.dz}};
            int want = !c.rays ? (isMax ? -32640 : 32639) : c.depth ? voxel : (isMax ? -23352 : 23352);
            EXPECT_EQ(RunLine(kernels[c.kernel], r), std::vector<short>(3, want))
                << "max " << isMax << " kernel " << c.kernel << " sx " << c.sx << " depth " << c.depth;
        }
        RunLine(kernels[0], Ray{0, 3, {kOne, kOne, kOne}, {0, 0, 0}, {kOne, 0, 0}});  // n = 0 writes nothing
    }
}

// An interrupt request leaves the fill, with boundingRect already set.
TEST_F(VX_SlabTest, InterruptLeavesTheFill)
{
    PlaceSlab(1, 4.0f);
    mpr.multithread.SetInterruptRequest(true);  // process-wide, so cleared below
    Calc();
    mpr.multithread.SetInterruptRequest(false);
    EXPECT_EQ(out, std::vector<short>(W * H, kFill));
    EXPECT_GT(mpr.boundingRect.w * mpr.boundingRect.h, 50);
}

}  // namespace
