#include <gtest/gtest.h>

#include <stdio.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "VX_Apps/VX_ClippingBoundsManager.h"
#include "VX_Apps/VX_ClippingObjectManager.h"
#include "VX_Types/VX_CPU.h"

namespace {

// Reaches the protected steps.
struct Manager : VX_ClippingBoundsManager {
    using VX_ClippingBoundsManager::CalcCBounds;
    using VX_ClippingBoundsManager::TransposeCBounds;
};

std::string Line(char const* fmt, void const* a, void const* b = nullptr, int i = 0)
{
    char s[256];
    if (b)
        snprintf(s, sizeof s, fmt, a, b, i);
    else
        snprintf(s, sizeof s, fmt, a);
    return s;
}

// Swallows the manager's lines where they are not the point, also when an
// assertion leaves the test early.
struct Quiet {
    Quiet() { testing::internal::CaptureStdout(); }
    ~Quiet() { testing::internal::GetCapturedStdout(); }
};

std::string Calc(Manager& m, int i)
{
    return Line("1 this = %p, setting %p(%d) to NULL\n", &m, &m.bounds[i], i) +
           "end of VX_ClippingBoundsManager::CalcCBounds\n";
}

std::string Transpose(Manager& m)
{
    return Line("begin TransposeCBounds(%p)\n", &m) + Line("done TransposeCBounds(%p)\n", &m);
}

// Keeps rows with y < keepRows whole and removes the others; counts its calls.
struct FakeCut : VX_ClippingObject {
    int keepRows = 1000, calls = 0;
    bool fail = false;
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
    std::vector<short> D(2 * m);
    for (int x = 0; x < m; ++x) {
        int a = -1, b = -1;
        for (int r = 0; r < n; ++r)
            if (S[2 * r] <= x && x <= S[2 * r + 1]) {
                if (a < 0) a = r;
                b = r;
            }
        D[2 * x] = (short)(a < 0 ? 0 : a);
        D[2 * x + 1] = (short)(a < 0 ? -1 : b);
    }
    return D;
}

// A manager whose normal array is src (nx, ny, nz), switched to the transposed
// arrangement and transposed.
std::vector<short> TransposeByManager(std::vector<short> const& src, int nx, int ny, int nz)
{
    Manager m;
    m.SetBox(VX_Box(nx, ny, nz));
    m.bounds[1] = new short[src.size()];
    std::copy(src.begin(), src.end(), m.bounds[1]);
    m.SetTransposed(true);
    EXPECT_TRUE(m.TransposeCBounds());
    return Pairs(m.bounds[0], nx * nz);
}

}  // namespace

TEST(VX_ClippingBoundsManager, PrintsExactLinesInOrder)
{
    testing::internal::CaptureStdout();
    Manager* m = new Manager;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), Line("4: this = %p, contruction\n", m));
    EXPECT_FALSE(m->transposed || m->saveMemory || m->bounds[0] || m->bounds[1] || m->objectManager);

    VX_ClippingObjectManager com(false);
    auto cut = boost::make_shared<FakeCut>();
    com.AddClippingObject(cut);
    cut->SetActive(true);
    m->SetBox(VX_Box(4, 3, 2));
    m->SetClippingObjectManager(&com);
    m->SetSaveMemoryMode(true);

    auto drop = [&](int k) { return Line("3: this = %p, setting %p(%d) to NULL\n", m, &m->bounds[k], k); };
    testing::internal::CaptureStdout();
    short* normal = m->GetCBounds(true);
    m->SetTransposed(true);   // drops the new state's array, index 0
    EXPECT_EQ(m->bounds[1], normal);
    EXPECT_NE(m->GetCBounds(true), nullptr);
    m->SetTransposed(false);   // index 1 now; made again by transposition
    EXPECT_EQ(m->bounds[1], nullptr);
    EXPECT_NE(m->GetCBounds(true), nullptr);
    cut->fail = true;
    cut->Invalidate();
    EXPECT_EQ(m->GetCBounds(true), nullptr);
    m->SetTransposed(true);
    EXPECT_TRUE(m->TransposeCBounds());   // from nothing: nothing
    EXPECT_EQ(m->bounds[0], nullptr);
    std::string want = Calc(*m, 1) + drop(0) + Transpose(*m) + drop(1) + Transpose(*m) + Calc(*m, 1) +
                       Line("2: this = %p, setting %p(%d) to NULL\n", m, &m->bounds[1], 1) + drop(0) + Transpose(*m);
    delete m;   // prints nothing
    EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
}

TEST(VX_ClippingBoundsManager, GetCBoundsCachesAndPrefersTransposition)
{
    testing::internal::CaptureStdout();
    Manager m;
    testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    m.SetBox(VX_Box(5, 3, 2));
    EXPECT_EQ(m.GetCBounds(true), nullptr);   // no object manager
    VX_ClippingObjectManager com(false);
    m.SetClippingObjectManager(&com);
    EXPECT_EQ(m.GetCBounds(true), nullptr);   // identity 0: no work at all
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    // Nothing active but a non-zero identity: calculated as null, identity kept.
    com.SetID(5);
    testing::internal::CaptureStdout();
    EXPECT_EQ(m.GetCBounds(true), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), Calc(m, 1));
    EXPECT_EQ(m.boundsID[1].GetID(), 5u);

    auto cut = boost::make_shared<FakeCut>();
    cut->keepRows = 2;
    com.AddClippingObject(cut);
    cut->SetActive(true);
    testing::internal::CaptureStdout();
    short* normal = m.GetCBounds(true);
    testing::internal::GetCapturedStdout();
    ASSERT_NE(normal, nullptr);
    EXPECT_EQ(Pairs(normal, 6), (std::vector<short>{0, 4, 0, 4, 0, -1, 0, 4, 0, 4, 0, -1}));

    m.SetTransposed(true);
    EXPECT_EQ(m.GetBox().GetX(), 3);
    EXPECT_EQ(m.GetBox().GetY(), 5);
    EXPECT_EQ(m.GetCBounds(false), nullptr);   // as it stands
    testing::internal::CaptureStdout();
    short* tr = m.GetCBounds(true);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), Transpose(m));
    ASSERT_NE(tr, nullptr);
    EXPECT_EQ(Pairs(tr, 10), (std::vector<short>{0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1}));
    EXPECT_EQ(cut->calls, 1);

    // Both arrays kept: switching back and forth does no work.
    testing::internal::CaptureStdout();
    m.SetTransposed(false);
    EXPECT_EQ(m.GetCBounds(true), normal);
    m.SetTransposed(true);
    EXPECT_EQ(m.GetCBounds(true), tr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(cut->calls, 1);

    // A change recalculates the current arrangement only.
    cut->Invalidate();
    testing::internal::CaptureStdout();
    EXPECT_NE(m.GetCBounds(true), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), Calc(m, 0));
    EXPECT_EQ(cut->calls, 2);
    EXPECT_EQ(m.bounds[1], normal);
}

TEST(VX_ClippingBoundsManager, CalcStopsAtFirstFailureAndSkipsInactive)
{
    Quiet quiet;
    Manager m;
    m.SetBox(VX_Box(4, 4, 1));
    VX_ClippingObjectManager com(false);
    m.SetClippingObjectManager(&com);
    boost::shared_ptr<FakeCut> cuts[3] = {boost::make_shared<FakeCut>(), boost::make_shared<FakeCut>(),
                                          boost::make_shared<FakeCut>()};
    for (auto& c : cuts) com.AddClippingObject(c);
    cuts[0]->SetActive(true);
    cuts[0]->keepRows = 3;
    cuts[1]->fail = true;
    cuts[2]->SetActive(true);
    cuts[2]->fail = true;
    cuts[2]->keepRows = 1;
    EXPECT_FALSE(m.CalcCBounds());
    EXPECT_EQ(Pairs(m.bounds[1], 4), (std::vector<short>{0, 3, 0, -1, 0, -1, 0, -1}));
    cuts[0]->fail = true;
    EXPECT_FALSE(m.CalcCBounds());   // the walk ends at the first failure
    EXPECT_EQ(Pairs(m.bounds[1], 4), (std::vector<short>{0, 3, 0, 3, 0, 3, 0, -1}));
    EXPECT_EQ(cuts[0]->calls + 10 * cuts[1]->calls + 100 * cuts[2]->calls, 2 + 0 + 100);
}

// Rows walked by hand (row 1 empty, row 2 away from row 0): a column that no
// row holds can still lie inside the span; a slice with no row gives (0, -1).
TEST(VX_ClippingBoundsManager, TransposeWalksTheSpan)
{
    Quiet quiet;
    for (int mask : {-1, 0}) {
        VX_SetCPUIDMask(mask);
        EXPECT_EQ(TransposeByManager({2, 3, 0, -1, 0, 1, 4, 5}, 6, 4, 1),
                  (std::vector<short>{2, 2, 2, 2, 0, 2, 0, 2, 3, 3, 3, 3}));
        EXPECT_EQ(TransposeByManager({0, -1, 3, 2, 0, -1}, 4, 3, 1), (std::vector<short>{0, -1, 0, -1, 0, -1, 0, -1}));
        VX_SetCPUIDMask(-1);
    }
}

// Random rows, some empty, some reaching past the slice (read clamped): the
// vector path equals the scalar one, on sizes that leave every block tail.
TEST(VX_ClippingBoundsManager, TransposeVectorEqualsScalar)
{
    std::mt19937 rng(17);
    Quiet quiet;
    for (int t = 0; t <= 400; ++t) {
        int nx = 1 + rng() % 70, ny = 1 + rng() % 70, nz = 1 + rng() % 3;
        if (t == 400) nx = 300, ny = 50, nz = 60;   // large enough for several threads
        int emptyOdds = 1 + rng() % 8, wild = rng() % 4 == 0;
        std::vector<short> src(2 * ny * nz);
        for (int p = 0; p < ny * nz; ++p) {
            int a = rng() % nx, b = rng() % nx;
            if (wild) a += (int)(rng() % 40) - 20, b += (int)(rng() % 40) - 20;
            bool empty = rng() % emptyOdds == 0;
            src[2 * p] = (short)(empty ? std::max(a, b) : std::min(a, b));
            src[2 * p + 1] = (short)(empty ? std::min(a, b) - 1 : std::max(a, b));
            if (wild && rng() % 16 == 0) src[2 * p + (rng() % 2)] = rng() % 2 ? 22222 : -22222;
        }
        VX_SetCPUIDMask(0);
        std::vector<short> want = TransposeByManager(src, nx, ny, nz);
        VX_SetCPUIDMask(-1);
        ASSERT_EQ(TransposeByManager(src, nx, ny, nz), want) << "case " << t;
    }
}

// Discs and half-planes on random small grids: the transposition gives the
// column ranges of the region.
TEST(VX_ClippingBoundsManager, TransposeOfConvexSlicesMatchesBruteForce)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    Quiet quiet;
    int checked = 0;
    for (int t = 0; t < 400; ++t) {
        int nx = 2 + rng() % 60, ny = 2 + rng() % 60;
        float cx = nx * (0.5f + 0.6f * u(rng)), cy = ny * (0.5f + 0.6f * u(rng));
        float r = 1 + std::max(nx, ny) * 0.6f * (1 + u(rng));
        float pa = u(rng), pb = u(rng), pd = u(rng) * (nx + ny) * 0.5f;
        std::vector<short> src(2 * ny);
        bool chained = true;   // rows in one piece, as the column ranges need
        for (int y = 0, prev = -1; y < ny; ++y) {
            int f = nx, l = -1;
            for (int x = 0; x < nx; ++x) {
                float dx = x + 0.5f - cx, dy = y + 0.5f - cy;
                if (dx * dx + dy * dy <= r * r && pa * (x + 0.5f - nx / 2) + pb * (y + 0.5f - ny / 2) + pd <= 0)
                    f = std::min(f, x), l = std::max(l, x);
            }
            src[2 * y] = (short)(l < 0 ? 0 : f);
            src[2 * y + 1] = (short)l;
            if (l < 0) continue;
            if (prev >= 0 && (f > src[2 * prev + 1] || l < src[2 * prev])) chained = false;
            prev = y;
        }
        if (!chained) continue;
        ++checked;
        for (int mask : {-1, 0}) {
            VX_SetCPUIDMask(mask);
            std::vector<short> got = TransposeByManager(src, nx, ny, 1);
            VX_SetCPUIDMask(-1);
            ASSERT_EQ(got, ColumnRange(src.data(), ny, nx)) << "case " << t << " mask " << mask;
        }
    }
    EXPECT_GT(checked, 300);
}

// A sphere cut by a plane on an anisotropic box, fresh in both arrangements,
// against the voxel centres; the other arrangement, by transposition, holds
// the column ranges.
TEST(VX_ClippingBoundsManager, SphereAndPlaneAgainstVoxelCentres)
{
    Quiet quiet;
    VX_PhysBox pb(24.f, 16.f, 15.f);   // 1.2 x 1 x 1.5 mm voxels
    VX_Box box(pb, 20, 16, 10);
    VX_ClippingObjectManager com(true);
    auto sphere = com.GetClippingSphere();
    auto plane = com.GetClippingPlane();
    sphere->multithread.SetInterruptRequest(false);
    sphere->SetCenter(VX_3Vec(12.5f, 8.f, 7.2f, 1.f));
    sphere->SetRadius(7.f);
    sphere->SetActive(true);
    plane->screenAnchored = false;
    plane->SetPlane(VX_3Vec(0.6f, -0.3f, 0.4f, -9.f));
    plane->SetActive(true);
    VX_3Vec q = plane->GetPlane();
    float qn = std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z);
    // Truncation and the plane's half-voxel shift stay within this of the surface.
    float tol = 1.5f * std::sqrt(1.2f * 1.2f + 1 + 1.5f * 1.5f);
    for (int tr = 0; tr < 2; ++tr) {
        Manager m;
        m.SetBox(box);
        m.SetClippingObjectManager(&com);
        m.SetTransposed(tr == 1);
        short* a = m.GetCBounds(true);
        ASSERT_NE(a, nullptr);
        VX_Box b = m.GetBox();
        VX_Mat i2p = b.GetIntToPhysTrans();
        int nx = b.GetX(), ny = b.GetY(), nz = b.GetZ();
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x) {
                    VX_3Vec c = VX_3Vec(x + 0.5f, y + 0.5f, z + 0.5f, 1.f) * i2p;
                    VX_3Vec d = c - sphere->GetCenter();
                    float dist = std::max(std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z) - 7.f,
                                          (q.x * c.x + q.y * c.y + q.z * c.z + q.w) / qn);
                    short const* p = a + 2 * (z * ny + y);
                    bool kept = p[0] <= x && x <= p[1];
                    EXPECT_TRUE(std::fabs(dist) <= tol || kept == (dist < 0)) << x << " " << y << " " << z << " " << tr;
                }
        std::vector<short> here = Pairs(a, ny * nz);
        m.SetTransposed(tr == 0);
        short* o = m.GetCBounds(true);
        for (int z = 0; z < nz; ++z)
            ASSERT_EQ(Pairs(o + 2 * z * nx, nx), ColumnRange(&here[2 * z * ny], ny, nx)) << z;
    }
}

TEST(VX_ClippingBoundsManager, SphereOutsideAndInterrupted)
{
    VX_ClippingObjectManager com(false);
    auto sphere = boost::make_shared<VX_ClippingSphere>();
    sphere->SetCenter(VX_3Vec(100.f, 100.f, 100.f, 1.f));
    sphere->SetRadius(5.f);
    com.AddClippingObject(sphere);
    sphere->SetActive(true);
    sphere->multithread.SetInterruptRequest(false);
    testing::internal::CaptureStdout();
    Manager m;
    testing::internal::GetCapturedStdout();
    m.SetBox(VX_Box(7, 5, 3));
    m.SetClippingObjectManager(&com);
    {
        Quiet quiet;
        short* rows = m.GetCBounds(true);
        ASSERT_NE(rows, nullptr);
        for (int p = 0; p < 15; ++p) EXPECT_EQ(rows[2 * p + 1], -1);
        m.SetTransposed(true);
        short* columns = m.GetCBounds(true);
        ASSERT_NE(columns, nullptr);
        for (int p = 0; p < 21; ++p) EXPECT_TRUE(columns[2 * p] == 0 && columns[2 * p + 1] == -1) << p;
    }

    // Interrupted: null, and the array of that arrangement is gone.
    sphere->Invalidate();
    sphere->multithread.SetInterruptRequest(true);
    testing::internal::CaptureStdout();
    short* r = m.GetCBounds(true);
    std::string out = testing::internal::GetCapturedStdout();
    sphere->multithread.SetInterruptRequest(false);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(m.bounds[0], nullptr);
    EXPECT_EQ(out, Calc(m, 0) + Line("2: this = %p, setting %p(%d) to NULL\n", &m, &m.bounds[0], 0));
}
