#include <gtest/gtest.h>

#include <stdio.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <memory>
#include <vector>

#include <boost/make_shared.hpp>

#include "VX_Apps/VX_ClippingBoundsManager.h"
#include "VX_Apps/VX_ClippingObjectManager.h"
#include "VX_Types/VX_CPU.h"
#include "support/VX_TestData.h"

namespace {

struct Manager : VX_ClippingBoundsManager {   // reaches the protected steps
    using VX_ClippingBoundsManager::CalcCBounds;
    using VX_ClippingBoundsManager::TransposeCBounds;
};

std::string Line(char const* fmt, void const* a, void const* b = nullptr, int i = 0)
{
    char s[256];
    b ? snprintf(s, sizeof s, fmt, a, b, i) : snprintf(s, sizeof s, fmt, a);
    return s;
}

std::string Drop(Manager& m, char const* tag, int i)   // tag "1 ", "2: " or "3: "
{
    return Line((std::string(tag) + "this = %p, setting %p(%d) to NULL\n").c_str(), &m, &m.bounds[i], i);
}
std::string Calc(Manager& m, int i) { return Drop(m, "1 ", i) + "end of VX_ClippingBoundsManager::CalcCBounds\n"; }
std::string Transpose(Manager& m)
{
    return Line("begin TransposeCBounds(%p)\n", &m) + Line("done TransposeCBounds(%p)\n", &m);
}

// Keeps rows with y < keepRows whole and removes the others; counts its calls.
struct FakeCut : VX_ClippingObject {
    int keepRows = 1000, calls = 0, fail = 0;
    bool UpdateClippingBounds(VX_ClippingBoundsManager* bm) override
    {
        ++calls;
        short* a = bm->GetCBounds(false);
        VX_Box b = bm->GetBox();
        for (int z = 0; z < b.GetZ(); ++z)
            for (int y = keepRows; y < b.GetY(); ++y) a[2 * (z * b.GetY() + y) + 1] = -1;
        return !fail;
    }
    VX_ClippingObject* Clone() override { return new FakeCut(*this); }
    void Transform(VX_Mat const&) override {}
};

std::vector<short> Pairs(short const* a, int n) { return std::vector<short>(a, a + 2 * n); }

// Brute force: per column, the lowest and the highest row that holds it.
std::vector<short> ColumnRange(short const* S, int n, int m)
{
    std::vector<short> D;
    for (int x = 0; x < m; ++x) {
        int a = -1, b = -1;
        for (int r = 0; r < n; ++r)
            if (S[2 * r] <= x && x <= S[2 * r + 1]) a = a < 0 ? r : a, b = r;
        D.push_back((short)std::max(a, 0));
        D.push_back((short)b);
    }
    return D;
}

// A manager whose normal array is src (nx, ny, nz), switched to the transposed
// arrangement and transposed, quietly.
std::vector<short> TransposeByManager(std::vector<short> const& src, int nx, int ny, int nz)
{
    std::vector<short> out;
    vxtest::Captured([&] {
        Manager m;
        m.SetBox(VX_Box(nx, ny, nz));
        m.bounds[1] = std::copy(src.begin(), src.end(), new short[src.size()]) - src.size();
        m.SetTransposed(true);
        EXPECT_TRUE(m.TransposeCBounds());
        out = Pairs(m.bounds[0], nx * nz);
    });
    return out;
}

}  // namespace

// Work only when the object manager's identity moved; both arrangements kept
// unless memory is saved; the exact lines of every step.
TEST(VX_ClippingBoundsManager, GetCBoundsCachesAndPrints)
{
    std::unique_ptr<Manager> owned;
    std::string line = vxtest::Captured([&] { owned.reset(new Manager); });
    EXPECT_EQ(line, Line("4: this = %p, contruction\n", owned.get()));
    Manager& m = *owned;
    short *r = nullptr, *normal = nullptr, *tr = nullptr;
    auto get = [&] { return vxtest::Captured([&] { r = m.GetCBounds(true); }); };
    m.SetBox(VX_Box(5, 3, 2));
    EXPECT_TRUE(get() == "" && !r);   // no object manager
    VX_ClippingObjectManager com(false);
    m.SetClippingObjectManager(&com);
    EXPECT_TRUE(get() == "" && !r);   // identity 0: no work at all
    // Nothing active but a non-zero identity: calculated as null, identity kept.
    com.SetID(5);
    EXPECT_TRUE(get() == Calc(m, 1) && !r);
    EXPECT_EQ(m.boundsID[1].GetID(), 5u);

    auto cut = boost::make_shared<FakeCut>();
    cut->keepRows = 2;
    com.AddClippingObject(cut);
    cut->SetActive(true);
    get();
    ASSERT_NE(normal = r, nullptr);
    m.SetTransposed(true);
    EXPECT_EQ(m.GetCBounds(false), nullptr);   // as it stands
    EXPECT_EQ(get(), Transpose(m));
    ASSERT_NE(tr = r, nullptr);
    // Both arrays kept: switching back and forth does no work.
    m.SetTransposed(false);
    EXPECT_TRUE(get() == "" && r == normal);
    m.SetTransposed(true);
    EXPECT_TRUE(get() == "" && r == tr);
    EXPECT_EQ(cut->calls, 1);
    // A change recalculates the current arrangement only.
    cut->Invalidate();
    EXPECT_EQ(get(), Calc(m, 0));   // made on the transposed box, 3 x 5 x 2
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(Pairs(r, 10), (std::vector<short>{0, 2, 0, 2, 0, -1, 0, -1, 0, -1, 0, 2, 0, 2, 0, -1, 0, -1, 0, -1}));
    EXPECT_TRUE(cut->calls == 2 && m.bounds[1] == normal);

    // Saving memory, a change of arrangement drops the new one's array (which is
    // then made by transposition); a failed calculation drops its array.
    m.SetSaveMemoryMode(true);
    testing::internal::CaptureStdout();
    m.SetTransposed(false);
    EXPECT_EQ(m.bounds[1], nullptr);
    EXPECT_NE(m.GetCBounds(true), nullptr);
    m.SetTransposed(true);
    EXPECT_NE(m.GetCBounds(true), nullptr);
    cut->fail = true;
    cut->Invalidate();
    EXPECT_EQ(m.GetCBounds(true), nullptr);
    m.SetTransposed(false);
    EXPECT_TRUE(m.TransposeCBounds());   // from nothing: nothing
    EXPECT_EQ(m.bounds[1], nullptr);
    std::string want = Drop(m, "3: ", 1) + Transpose(m) + Drop(m, "3: ", 0) + Transpose(m) + Calc(m, 0) +
                       Drop(m, "2: ", 0) + Drop(m, "3: ", 1) + Transpose(m);
    owned.reset();   // prints nothing
    EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
}

TEST(VX_ClippingBoundsManager, CalcStopsAtFirstFailureAndSkipsInactive)
{
    testing::internal::CaptureStdout();
    Manager m;
    m.SetBox(VX_Box(4, 4, 1));
    VX_ClippingObjectManager com(false);
    m.SetClippingObjectManager(&com);
    boost::shared_ptr<FakeCut> cuts[3];
    int setup[3][3] = {{1, 3, 0}, {0, 1000, 1}, {1, 1, 1}};   // active, keepRows, fail
    for (int i = 0; i < 3; ++i) {
        com.AddClippingObject(cuts[i] = boost::make_shared<FakeCut>());
        cuts[i]->SetActive(setup[i][0]);
        cuts[i]->keepRows = setup[i][1], cuts[i]->fail = setup[i][2];
    }
    EXPECT_FALSE(m.CalcCBounds());
    EXPECT_EQ(Pairs(m.bounds[1], 4), (std::vector<short>{0, 3, 0, -1, 0, -1, 0, -1}));
    cuts[0]->fail = true;
    EXPECT_FALSE(m.CalcCBounds());   // the walk ends at the first failure
    EXPECT_EQ(Pairs(m.bounds[1], 4), (std::vector<short>{0, 3, 0, 3, 0, 3, 0, -1}));
    EXPECT_EQ(cuts[0]->calls + 10 * cuts[1]->calls + 100 * cuts[2]->calls, 2 + 0 + 100);
    testing::internal::GetCapturedStdout();
}

// Rows walked by hand (row 1 empty, row 2 away from row 0): a column that no
// row holds can still lie inside the span.
TEST(VX_ClippingBoundsManager, TransposeWalksTheSpan)
{
    for (int mask : {-1, ~VX_CPU_AVX2, 0}) {
        VX_SetCPUIDMask(mask);
        EXPECT_EQ(TransposeByManager({2, 3, 0, -1, 0, 1, 4, 5}, 6, 4, 1),
                  (std::vector<short>{2, 2, 2, 2, 0, 2, 0, 2, 3, 3, 3, 3}));
    }
    VX_SetCPUIDMask(-1);
}

// Random rows, some empty, some reaching past the slice (read clamped): the
// vector paths equal the scalar one, on sizes that leave every block tail. Odd
// cases hold a disc cut by a half-plane, or a stair whose edges move by at most
// two columns a row, in every slice: when its rows are in one piece, as the
// column ranges need, both give the column ranges of the region.
TEST(VX_ClippingBoundsManager, TransposeAgainstScalarAndBruteForce)
{
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    int checked = 0;
    for (int t = 0; t <= 800; ++t) {
        int nx = 1 + rng() % 70, ny = 1 + rng() % 70, nz = 1 + rng() % 3;
        if (t == 800) nx = 300, ny = 50, nz = 60;   // large enough for several threads
        int emptyOdds = 1 + rng() % 8, wild = rng() % 4 == 0;
        float cx = nx * (0.5f + 0.6f * u(rng)), cy = ny * (0.5f + 0.6f * u(rng));
        float r = 1 + std::max(nx, ny) * 0.6f * (1 + u(rng));
        float pa = u(rng), pb = u(rng), pd = u(rng) * (nx + ny) * 0.5f;
        std::vector<short> src(2 * ny * nz);
        bool chained = t % 2;   // the region's rows in one piece
        int sf = 0, sl = -1, sMid = 0;
        for (int z = 0; z < nz; ++z)
            for (int y = 0, prev = -1; y < ny; ++y) {
                short* row = &src[2 * (z * ny + y)];
                if (t % 2 == 0) {
                    int a = rng() % nx, b = rng() % nx;
                    if (wild) a += (int)(rng() % 40) - 20, b += (int)(rng() % 40) - 20;
                    bool empty = rng() % emptyOdds == 0;   // first > last
                    row[0] = (short)(empty ? std::max(a, b) : std::min(a, b));
                    row[1] = (short)(empty ? std::min(a, b) - 1 : std::max(a, b));
                    if (wild && rng() % 16 == 0) row[rng() % 2] = rng() % 2 ? 22222 : -22222;
                    continue;
                }
                int f = nx, l = -1;
                if (t % 4 == 1) {   // a stair: edges move out by 0 to 2 columns a row, then in
                    if (y == 0) sf = sl = rng() % nx, sMid = rng() % ny;
                    if (y > 0 && sl >= sf) {
                        int a = rng() % 3, b = rng() % 3;
                        y <= sMid ? (sf -= a, sl += b) : (sf += a, sl -= b);
                        sf = std::max(sf, 0), sl = std::min(sl, nx - 1);
                    }
                    if (sl >= sf) f = sf, l = sl;
                } else {
                    for (int x = 0; x < nx; ++x) {
                        float dx = x + 0.5f - cx, dy = y + 0.5f - cy;
                        if (dx * dx + dy * dy <= r * r && pa * (x + 0.5f - nx / 2) + pb * (y + 0.5f - ny / 2) + pd <= 0)
                            f = std::min(f, x), l = std::max(l, x);
                    }
                }
                row[0] = (short)(l < 0 ? 0 : f), row[1] = (short)l;
                if (l < 0) continue;
                if (prev >= 0 && (f > row[2 * (prev - y) + 1] || l < row[2 * (prev - y)])) chained = false;
                prev = y;
            }
        VX_SetCPUIDMask(0);
        std::vector<short> want = TransposeByManager(src, nx, ny, nz);
        VX_SetCPUIDMask(~VX_CPU_AVX2);
        ASSERT_EQ(TransposeByManager(src, nx, ny, nz), want) << "SSE2, case " << t;
        VX_SetCPUIDMask(-1);
        ASSERT_EQ(TransposeByManager(src, nx, ny, nz), want) << "case " << t;
        for (int z = 0; chained && z < nz; ++z)
            ASSERT_EQ(Pairs(&want[2 * z * nx], nx), ColumnRange(&src[2 * z * ny], ny, nx)) << "case " << t;
        checked += chained;
    }
    EXPECT_GT(checked, 300);
}

// A sphere cut by a plane on an anisotropic box, fresh in both arrangements, against the
// voxel centres; the other arrangement, by transposition, holds the column ranges.
TEST(VX_ClippingBoundsManager, SphereAndPlaneAgainstVoxelCentres)
{
    VX_PhysBox pb(24.f, 16.f, 15.f);   // 1.2 x 1 x 1.5 mm voxels
    VX_Box box(pb, 20, 16, 10);
    VX_ClippingObjectManager com(true);
    auto sphere = com.GetClippingSphere();
    auto plane = com.GetClippingPlane();
    sphere->SetCenter(VX_3Vec(12.5f, 8.f, 7.2f, 1.f)), sphere->SetRadius(7.f), sphere->SetActive(true);
    plane->screenAnchored = false;
    plane->SetPlane(VX_3Vec(0.6f, -0.3f, 0.4f, -9.f)), plane->SetActive(true);
    VX_3Vec q = plane->GetPlane();
    float qn = std::sqrt(q * q);
    // Truncation and the plane's half-voxel shift stay within this of the surface.
    float tol = 1.5f * std::sqrt(1.2f * 1.2f + 1 + 1.5f * 1.5f);
    for (int tr = 0; tr < 2; ++tr) {
        Manager m;
        short *a = nullptr, *o = nullptr;
        vxtest::Captured([&] { m.SetBox(box), m.SetClippingObjectManager(&com), m.SetTransposed(tr == 1); });
        vxtest::Captured([&] { a = m.GetCBounds(true); });
        ASSERT_NE(a, nullptr);
        VX_Box b = m.GetBox();
        int nx = b.GetX(), ny = b.GetY(), nz = b.GetZ();
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x) {
                    VX_3Vec c = VX_3Vec(x + 0.5f, y + 0.5f, z + 0.5f, 1.f) * b.GetIntToPhysTrans();
                    float dist = std::max((c - sphere->GetCenter()).Abs() - 7.f, (q * c + q.w) / qn);
                    short const* p = a + 2 * (z * ny + y);
                    EXPECT_TRUE(std::fabs(dist) <= tol || (p[0] <= x && x <= p[1]) == (dist < 0))
                        << x << " " << y << " " << z;
                }
        std::vector<short> here = Pairs(a, ny * nz);
        vxtest::Captured([&] { m.SetTransposed(tr == 0), o = m.GetCBounds(true); });
        for (int z = 0; z < nz; ++z)
            ASSERT_EQ(Pairs(o + 2 * z * nx, nx), ColumnRange(&here[2 * z * ny], ny, nx)) << z;
    }
}
