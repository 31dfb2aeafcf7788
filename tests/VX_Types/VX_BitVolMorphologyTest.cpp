#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "VX.h"

namespace {

using Grid = std::vector<unsigned char>;  // one byte per voxel below X, x fastest

Grid Voxels(VX_BitVol& v)
{
    Grid g;
    for (int z = 0; z < v.GetZ(); ++z)
        for (int y = 0; y < v.GetY(); ++y)
            for (int x = 0; x < v.GetX(); ++x) g.push_back((unsigned char)v.GetBit(x, y, z));
    return g;
}

// The tails of every slice, or of slice `only`.
bool TailsClear(VX_BitVol& v, int only = -1)
{
    for (int z = std::max(only, 0); z < (only < 0 ? v.GetZ() : only + 1); ++z)
        for (int y = 0; y < v.GetY(); ++y)
            for (int x = v.GetX(); x < v.GetWordsPerLine() * 32; ++x)
                if (v.GetBit(x, y, z)) return false;
    return true;
}

// Every word random, tails included; dense: about 3/4 of the bits set, else 1/2.
void RandomFill(VX_BitVol& v, std::mt19937& rng, bool dense = false)
{
    for (int z = 0; z < v.GetZ(); ++z)
        for (int w = 0; w < v.GetWordsPerSlice(); ++w) v.GetSliceP(z)[w] = rng() | (dense ? rng() : 0u);
    v.clean = false;
}

// Each voxel against its six (planar: four) face neighbours, outside clear.
Grid RefMorph(VX_BitVol& v, bool erode, bool planar)
{
    int X = v.GetX(), Y = v.GetY(), Z = v.GetZ();
    Grid g = Voxels(v), out(g.size());
    for (int i = 0; i < X * Y * Z; ++i) {
        int x = i % X, y = i / X % Y, z = i / X / Y;
        int n = (x > 0 && g[i - 1]) + (x < X - 1 && g[i + 1]) + (y > 0 && g[i - X]) + (y < Y - 1 && g[i + X]);
        if (!planar) n += (z > 0 && g[i - X * Y]) + (z < Z - 1 && g[i + X * Y]);
        out[i] = erode ? g[i] && n == (planar ? 4 : 6) : g[i] || n > 0;
    }
    return out;
}

// 4- (diagonal: 8-) connected flood of the voxels of grid slice g equal to value.
Grid RefFlood(Grid const& g, int X, int Y, int value, std::vector<std::pair<int, int>> seeds, bool diagonal = false)
{
    Grid r(X * Y);
    std::deque<std::pair<int, int>> q(seeds.begin(), seeds.end());
    for (; !q.empty(); q.pop_front()) {
        auto [x, y] = q.front();
        if (x < 0 || x >= X || y < 0 || y >= Y || r[x + X * y] || g[x + X * y] != value) continue;
        r[x + X * y] = 1;
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                if (dx * dy == 0 || diagonal) q.push_back({x + dx, y + dy});
    }
    return r;
}

std::vector<int> Contour(VX_BitVol& v, int x, int y, std::initializer_list<std::pair<int, int>> pts = {})
{
    for (auto p : pts) v.SetBitOn(p.first, p.second, 0);
    std::vector<int> xy(64);
    int n = v.Extract2DContour(x, y, 0, xy.data(), 32);
    xy.resize(2 * std::min(n, 32));
    return xy;
}

// Sets as many threads as there are processors, at least two, while alive.
class VX_BitVolMorphologyTeam : public testing::Test {
protected:
    void SetUp() override { omp_set_num_threads(std::max(2, omp_get_num_procs())); }
    void TearDown() override { omp_set_num_threads(saved); }
    int saved = omp_get_max_threads();
};

// The last size has enough words for the threaded path.
const int kSizes[][3] = {{1, 9, 2}, {31, 9, 2}, {32, 9, 2}, {33, 9, 2}, {65, 9, 2}, {70, 256, 90}};

}  // namespace

TEST_F(VX_BitVolMorphologyTeam, DilateErodeMatchVoxelRule)
{
    std::mt19937 rng(7);
    for (auto const& d : kSizes)
        for (bool dense : {false, true}) {
            VX_BitVol src(d[0], d[1], d[2]), dst(d[0], d[1], d[2]);
            RandomFill(src, rng, dense);
            for (bool erode : {false, true}) {
                Grid want = RefMorph(src, erode, false);
                VX_BitVol same(src), self(src);
                erode ? dst.Erode6(&src) : dst.Dilate6(&src);  // this = f(src)
                erode ? same.Erode6() : same.Dilate6();
                erode ? self.Erode6(&self) : self.Dilate6(&self);
                for (VX_BitVol* v : {&dst, &same, &self})
                    EXPECT_TRUE(Voxels(*v) == want && TailsClear(*v) && v->clean) << d[0] << " erode " << erode;
            }
            Grid want = RefMorph(src, true, true);
            src.ErodeXY();
            EXPECT_TRUE(Voxels(src) == want && TailsClear(src) && src.clean) << d[0];
        }
}

TEST_F(VX_BitVolMorphologyTeam, HolesFilledAndFloods)
{
    // Random slices with dirty tails: holes against a flood from the border, and
    // Fill2D of slice 1 against a flood from the seed (slice 0 untouched; a set
    // seed clears the slice).
    std::mt19937 rng(3);
    for (auto const& d : kSizes) {
        const int X = d[0], Y = d[1], S = X * Y;
        VX_BitVol r(X, Y, d[2]);
        RandomFill(r, rng);
        X == 32 ? r.SetBitOn(X / 2, 4, 1) : r.SetBitOff(X / 2, 4, 1);  // the seed set for 32 only
        std::unique_ptr<VX_BitVol> h(r.GetSlicewiseSimplyConnected());
        Grid g = Voxels(r), got = Voxels(*h);
        std::vector<std::pair<int, int>> border;
        for (int x = 0; x < X; ++x) border.insert(border.end(), {{x, 0}, {x, Y - 1}});
        for (int y = 0; y < Y; ++y) border.insert(border.end(), {{0, y}, {X - 1, y}});
        for (int z = 0; z < d[2]; ++z) {
            Grid outside = RefFlood(Grid(g.begin() + S * z, g.begin() + S * (z + 1)), X, Y, 0, border);
            for (int i = 0; i < S; ++i) ASSERT_EQ(got[i + S * z], !outside[i]) << X << " " << z << " " << i;
        }
        EXPECT_TRUE(TailsClear(*h) && h->clean);
        r.Fill2D(X / 2, 4, 1);
        Grid after = Voxels(r);
        EXPECT_TRUE(std::equal(after.begin() + S, after.begin() + 2 * S,
                               RefFlood(Grid(g.begin() + S, g.begin() + 2 * S), X, Y, 0, {{X / 2, 4}}).begin()) &&
                    TailsClear(r, 1) && std::equal(g.begin(), g.begin() + S, after.begin()))
            << X;
    }

    // On a tight block the result is a block with the same offsets; a ring round (3, 2) fills.
    VX_BitVol v(40, 6, 2);
    v.Clear();
    for (int y = 1; y <= 3; ++y) v.SetLineOn(2, y, 0, 4);
    v.SetBitOff(3, 2, 0);
    VX_TightBitVol t(&v, 1);
    std::unique_ptr<VX_BitVol> tf(t.GetSlicewiseSimplyConnected());
    auto* tb = dynamic_cast<VX_TightBitVol*>(tf.get());
    ASSERT_NE(tb, nullptr);
    EXPECT_TRUE(std::equal(tb->offset, tb->offset + 3, t.offset) && tb->GetBit(3 - t.offset[0], 2 - t.offset[1], 0));
}

TEST(VX_BitVolMorphology, PolygonFillByCentres)
{
    VX_BitVol v(40, 12, 1);
    const float tri[] = {0, 0, 8, 0, 0, 8};  // i + j + 1 < 8: a centre on the edge is out
    v.Clear();
    v.Fill2DPolygon(tri, 3, 0);
    EXPECT_EQ(v.CountBits(), 28);
    // Random polygons, clipped, against the crossing test at every centre.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-3.0f, 43.0f);
    for (int t = 0; t < 20; ++t) {
        float p[14];
        for (int i = 0; i < 14; ++i) p[i] = u(rng) * (i % 2 ? 0.3f : 1.0f);
        v.Clear();
        v.Fill2DPolygon(p, 7, 0);
        for (int i = 0; i < 40 * 12; ++i) {
            double px = i % 40 + 0.5, py = i / 40 + 0.5;
            bool in = false;
            for (int a = 0, b = 6; a < 7; b = a++)
                if ((p[2 * a + 1] > py) != (p[2 * b + 1] > py) &&
                    px < (p[2 * b] - p[2 * a]) * (py - p[2 * a + 1]) / (p[2 * b + 1] - p[2 * a + 1]) + p[2 * a])
                    in = !in;
            ASSERT_EQ(v.GetBit(i % 40, i / 40, 0), (int)in) << t << " " << i;
        }
    }
}

TEST(VX_BitVolMorphology, SphereIsTheEllipsoidRule)
{
    VX_BitVol v(33, 20, 12);
    struct Case { VX_3Vec c; float r0, r1, r2; int want; };  // want < 0: count by the formula
    const VX_3Vec mid(5.5f, 5.5f, 5.5f);
    const Case cases[] = {{mid, 1, 1, 1, 7}, {mid, 1.5f, 1.5f, 1.5f, 19}, {mid, 0, 2, 2, 0}, {mid, 3, 0.4f, 0.4f, 7},
                          {{30.2f, 1.3f, 6.1f}, 7.3f, 4.1f, 2.6f, -1}, {{16, 10, 6}, 20, 20, 20, 33 * 20 * 12}};
    for (Case const& k : cases) {
        v.Clear();
        v.Sphere(k.c, k.r0, k.r1, k.r2);
        int want = std::max(k.want, 0);
        for (int i = 0; k.want < 0 && i < 33 * 20 * 12; ++i) {
            double dx = (i % 33 + 0.5 - k.c.x) / k.r0, dy = (i / 33 % 20 + 0.5 - k.c.y) / k.r1,
                   dz = (i / 660 + 0.5 - k.c.z) / k.r2;
            want += dx * dx + dy * dy + dz * dz <= 1.0;
        }
        EXPECT_TRUE(v.CountBits() == want && TailsClear(v)) << k.r0;
    }
}

TEST(VX_BitVolMorphology, ContourTracesOuterBorderClockwise)
{
    VX_BitVol v(40, 8, 1);
    v.Clear();
    EXPECT_EQ(v.Extract2DContour(0, 0, 0, nullptr, 0) + v.Extract2DContour(-1, 0, 0, nullptr, 0), 0);
    for (int y = 2; y <= 4; ++y) v.SetLineOn(1, y, 0, 3);
    v.SetBitOff(2, 3, 0);  // a hole does not show; (30, 0) is another region, earlier in row order
    EXPECT_EQ(Contour(v, 3, 4, {{30, 0}}), (std::vector<int>{1, 2, 2, 2, 3, 2, 3, 3, 3, 4, 2, 4, 1, 4, 1, 3}));
    v.Clear();  // a diagonal and a line are walked both ways
    EXPECT_EQ(Contour(v, 7, 7, {{5, 5}, {6, 6}, {7, 7}, {9, 5}, {10, 5}, {11, 5}}),
              (std::vector<int>{5, 5, 6, 6, 7, 7, 6, 6}));
    std::vector<int> xy(2);
    EXPECT_EQ(v.Extract2DContour(10, 5, 0, xy.data(), 1), 4);  // 9, 10, 11, 10; one written
    EXPECT_EQ(xy, (std::vector<int>{9, 5}));

    // Random blobs: a closed 8-connected walk over set voxels from the region's first voxel.
    std::mt19937 rng(9);
    VX_BitVol r(37, 9, 1);
    for (int t = 0; t < 30; ++t) {
        RandomFill(r, rng, true);
        int n = r.Extract2DContour(18, 4, 0, nullptr, 0);
        if (n == 0) continue;
        Grid region = RefFlood(Voxels(r), 37, 9, 1, {{18, 4}}, true);
        int first = (int)(std::find(region.begin(), region.end(), 1) - region.begin());
        std::vector<int> p(2 * n);
        r.Extract2DContour(18, 4, 0, p.data(), n);
        ASSERT_EQ(std::make_pair(p[0], p[1]), std::make_pair(first % 37, first / 37)) << t;
        for (int i = 0; i < n; ++i) {
            int j = (i + 1) % n, dx = p[2 * j] - p[2 * i], dy = p[2 * j + 1] - p[2 * i + 1];
            ASSERT_TRUE(region[p[2 * i] + 37 * p[2 * i + 1]] && dx * dx <= 1 && dy * dy <= 1) << t << " " << i;
        }
    }
}

TEST(VX_BitVolMorphology, SegmentsAreInclusiveRuns)
{
    VX_BitVol v(65, 2, 1);
    v.Clear();
    v.SetLineOn(0, 0, 0, 0), v.SetLineOn(30, 0, 0, 33), v.SetLineOn(40, 0, 0, 64);
    v.GetLineAddress(0, 0)[2] |= 0xfffffffeu;  // a dirty tail
    int runs[6] = {0};
    EXPECT_EQ(v.GetSegments(0, 0, runs, 2), 3);
    EXPECT_EQ(std::vector<int>(runs, runs + 6), (std::vector<int>{0, 0, 30, 33, 0, 0}));
    EXPECT_EQ(v.GetSegments(0, 0, runs, 3) + v.GetSegments(1, 0, runs + 4, 1), 3);
    EXPECT_EQ(std::make_pair(runs[4], runs[5]), std::make_pair(40, 64));
    v.Unclear();
    EXPECT_EQ(v.GetSegments(1, 0, runs, 3), 1);
    EXPECT_EQ(std::make_pair(runs[0], runs[1]), std::make_pair(0, 64));
}
