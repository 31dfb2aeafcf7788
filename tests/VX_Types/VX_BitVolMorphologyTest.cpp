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

Grid Voxels(VX_BitVol& v, int z0 = 0)
{
    Grid g;
    for (int z = z0; z < v.GetZ(); ++z)
        for (int y = 0; y < v.GetY(); ++y)
            for (int x = 0; x < v.GetX(); ++x) g.push_back((unsigned char)v.GetBit(x, y, z));
    return g;
}

bool TailsClear(VX_BitVol& v, int z0 = 0)
{
    for (int z = z0; z < v.GetZ(); ++z)
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

}  // namespace

TEST(VX_BitVolMorphology, DilateErodeMatchVoxelRule)
{
    std::mt19937 rng(7);
    for (int X : {1, 31, 32, 33, 65})
        for (bool dense : {false, true}) {
            VX_BitVol src(X, 5, 4), dst(X, 5, 4);
            RandomFill(src, rng, dense);
            for (bool erode : {false, true}) {
                Grid want = RefMorph(src, erode, false);
                VX_BitVol same(src), self(src);
                erode ? dst.Erode6(&src) : dst.Dilate6(&src);  // this = f(src)
                erode ? same.Erode6() : same.Dilate6();
                erode ? self.Erode6(&self) : self.Dilate6(&self);
                for (VX_BitVol* v : {&dst, &same, &self})
                    EXPECT_TRUE(Voxels(*v) == want && TailsClear(*v) && v->clean) << X << " erode " << erode;
            }
            Grid want = RefMorph(src, true, true);
            src.ErodeXY();
            EXPECT_TRUE(Voxels(src) == want && TailsClear(src) && src.clean) << X;
        }
}

TEST(VX_BitVolMorphology, LargeVolumesSameOnOneAndAllThreads)
{
    std::mt19937 rng(1);
    VX_BitVol src(70, 256, 90);  // enough words for the threaded path
    RandomFill(src, rng);
    auto run = [&](int threads) {  // every word of the (clean) results
        int saved = omp_get_max_threads();
        omp_set_num_threads(threads);
        VX_BitVol d(70, 256, 90), e(70, 256, 90), xy(src);
        d.Dilate6(&src), e.Erode6(&src), xy.ErodeXY();
        std::unique_ptr<VX_BitVol> h(src.GetSlicewiseSimplyConnected());
        omp_set_num_threads(saved);
        std::vector<unsigned int> all;
        for (VX_BitVol* v : {&d, &e, &xy, h.get()})
            for (int z = 0; z < 90; ++z) all.insert(all.end(), v->GetSliceP(z), v->GetSliceP(z) + v->GetWordsPerSlice());
        return all;
    };
    EXPECT_TRUE(run(1) == run(std::max(2, omp_get_num_procs())));
}

TEST(VX_BitVolMorphology, HolesFilledAndFloods)
{
    // Random slices with dirty tails: holes against a flood from the border, and
    // Fill2D of slice 1 against a flood from the seed (slice 0 untouched; a set
    // seed clears the slice).
    std::mt19937 rng(3);
    for (int X : {1, 33, 64, 70}) {
        VX_BitVol r(X, 9, 2);
        RandomFill(r, rng);
        X == 64 ? r.SetBitOn(X / 2, 4, 1) : r.SetBitOff(X / 2, 4, 1);  // the seed set for 64 only
        std::unique_ptr<VX_BitVol> h(r.GetSlicewiseSimplyConnected());
        Grid g = Voxels(r), got = Voxels(*h);
        std::vector<std::pair<int, int>> border;
        for (int x = 0; x < X; ++x) border.insert(border.end(), {{x, 0}, {x, 8}});
        for (int y = 0; y < 9; ++y) border.insert(border.end(), {{0, y}, {X - 1, y}});
        for (int z = 0; z < 2; ++z) {
            Grid outside = RefFlood(Grid(g.begin() + X * 9 * z, g.end()), X, 9, 0, border);
            for (int i = 0; i < X * 9; ++i) ASSERT_EQ(got[i + X * 9 * z], !outside[i]) << X << " " << i;
        }
        EXPECT_TRUE(TailsClear(*h) && h->clean);
        r.Fill2D(X / 2, 4, 1);
        Grid after = Voxels(r);
        EXPECT_TRUE(Voxels(r, 1) == RefFlood(Grid(g.begin() + X * 9, g.end()), X, 9, 0, {{X / 2, 4}}) &&
                    TailsClear(r, 1) && std::equal(g.begin(), g.begin() + X * 9, after.begin()))
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
    struct Case { std::vector<float> p; int want; };
    const Case cases[] = {{{0, 0, 8, 0, 0, 8}, 28},                          // i + j + 1 < 8: the edge is out
                          {{-5, -5, 100, -5, 100, 100, -5, 100}, 40 * 12}};  // clipped
    for (Case const& k : cases) {
        v.Clear();
        v.Fill2DPolygon(k.p.data(), (int)k.p.size() / 2, 0);
        EXPECT_TRUE(v.CountBits() == k.want && TailsClear(v)) << k.want;
    }
    // Random polygons against the crossing test at every centre.
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
    EXPECT_EQ(Contour(v, 20, 1, {{20, 1}}), (std::vector<int>{20, 1}));
    v.Clear();
    for (int y = 2; y <= 4; ++y) v.SetLineOn(1, y, 0, 3);
    v.SetBitOff(2, 3, 0);  // a hole does not show; (30, 0) is another region, earlier in row order
    EXPECT_EQ(Contour(v, 3, 4, {{30, 0}}), (std::vector<int>{1, 2, 2, 2, 3, 2, 3, 3, 3, 4, 2, 4, 1, 4, 1, 3}));
    v.Clear();  // an L across a word boundary
    EXPECT_EQ(Contour(v, 33, 3, {{31, 1}, {31, 2}, {31, 3}, {32, 3}, {33, 3}}),
              (std::vector<int>{31, 1, 31, 2, 32, 3, 33, 3, 32, 3, 31, 3, 31, 2}));
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
