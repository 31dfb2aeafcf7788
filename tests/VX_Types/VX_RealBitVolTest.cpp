#include <gtest/gtest.h>
#include <omp.h>

#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "VX_Types/VX_Raster.h"
#include "VX_Types/VX_RealBitVol.h"
#include "support/VX_TestData.h"

using vxtest::MakeBox;

namespace {

// A random mask on `box` (fixed seed), tails clear.
std::unique_ptr<VX_RealBitVol> RandomMask(VX_Box box, unsigned seed)
{
    auto m = std::make_unique<VX_RealBitVol>(&box);
    std::mt19937 rng(seed);
    for (int z = 0; z < box.GetZ(); ++z)
        for (int i = 0; i < m->wordsPerSlice; ++i) m->slices[z][i] = rng();
    m->ClearBoundary(0);
    return m;
}

// Every voxel of r against f(x, y, z); reports the first mismatch.
template <class F>
void ExpectBits(VX_BitVol& r, F f)
{
    for (int z = 0; z < r.GetZ(); ++z)
        for (int y = 0; y < r.GetY(); ++y)
            for (int x = 0; x < r.GetX(); ++x)
                ASSERT_EQ(r.GetBit(x, y, z), f(x, y, z) ? 1 : 0) << x << "," << y << "," << z;
}

// Copies of a combined with o by |=, -=, &=, Or(o, 0) and OrNot (ops 0..4), each
// voxel against a, in(x, y, z) (o is read there) and o's voxel there, ov(x, y, z);
// &= also clears where not kept. No tail bit is written.
template <class I, class O, class K>
void ExpectOps(VX_RealBitVol& a, VX_RealBitVol& o, std::vector<int> const& ops, I in, O ov, K kept)
{
    for (int op : ops) {
        SCOPED_TRACE(op);
        VX_RealBitVol r(a);
        op == 0 ? r |= o : op == 1 ? r -= o : op == 2 ? r &= o : op == 3 ? r.Or(o, 0) : r.OrNot(o);
        ExpectBits(r, [&](int x, int y, int z) {
            bool av = a.GetBit(x, y, z), i = in(x, y, z), m = i && ov(x, y, z);
            return op == 1 ? av && !m : op == 2 ? av && m && kept(x, y, z) : op == 4 ? av || (i && !m) : av || m;
        });
        int X = r.GetX();
        EXPECT_EQ(r.GetWord(X - 1, r.GetY() - 1, r.GetZ() - 1) >> (X & 31), 0u);
    }
}

// Clears v and sets the listed voxels.
void SetOnly(VX_BitVol& v, std::vector<std::tuple<int, int, int>> const& on)
{
    v.Clear();
    for (auto const& p : on) v.SetBitOn(std::get<0>(p), std::get<1>(p), std::get<2>(p));
}

std::vector<std::tuple<int, int, int>> Walk(VX_BVSeqIterator* it)
{
    std::vector<std::tuple<int, int, int>> v;
    while (it->x != -1) {
        v.emplace_back(it->x, it->y, it->z);
        (*it)++;
    }
    return v;
}

}  // namespace

TEST(VX_RealBitVol, ConstructorsPlaceTheBox)
{
    VX_Box b = MakeBox(40, 6, 5, 0.5f, 2.0f, 3.0f, VX_3Vec(10, 20, 30));
    auto src = RandomMask(b, 1);
    src->SetInfiniteDepth();

    VX_RealBitVol copy(*src);
    EXPECT_TRUE(copy.GetInfiniteDepth() && copy.box == b);
    std::unique_ptr<VX_BitVol> clone(src->Clone());
    EXPECT_EQ(dynamic_cast<VX_RealBitVol*>(clone.get()), nullptr);

    // Step 1: the source's placement; step 2: flat in the third direction.
    VX_RealBitVol view1(src.get(), 1), view2(src.get(), 2);
    EXPECT_TRUE(!view1.GetInfiniteDepth() && view1.box == b);
    VX_PhysBox flat = b;
    flat.vecs[3] = b.vecs[0];
    EXPECT_TRUE(view2.box == VX_Box(flat, 40, 6, 2));

    VX_Raster r;
    r.width = 5, r.height = 3, r.bitsPerPixel = 8;
    r.Allocate();
    for (int i = 0; i < 15; ++i) ((unsigned char*)r.data)[(i / 5) * r.GetLineBytes() + i % 5] = i == 8;
    VX_RealBitVol fromRaster(&r);
    EXPECT_TRUE(fromRaster.box == VX_Box(5, 3, 1));
    ExpectBits(fromRaster, [](int x, int y, int) { return x == 3 && y == 1; });
}

TEST(VX_RealBitVol, RealGetBitFacesAndSphere)
{
    VX_Box b = MakeBox(8, 4, 3, 2.0f, 1.0f, 0.5f, VX_3Vec(-4, 0, 1));
    VX_RealBitVol m(&b);
    m.Unclear();
    // Truncation toward zero: up to one voxel below the low face still reads voxel 0.
    VX_3Vec inner(11.99f, 3.99f, 2.49f);
    const std::pair<VX_3Vec, int> probes[] = {{VX_3Vec(-4, 0, 1), 1}, {VX_3Vec(12, 2, 1.2f), 0},
                                              {VX_3Vec(-5.9f, 0, 1), 1}, {VX_3Vec(-6, 0, 1), 0}, {inner, 1}};
    for (auto p : probes) EXPECT_EQ(m.RealGetBit(&p.first), p.second) << p.first.x;
    m.SetBitOff(7, 3, 2);
    EXPECT_EQ(m.RealGetBit(&inner), 0);

    // Radius 4 mm is 4, 4 and 2 voxels on a 1 x 1 x 2 mm grid.
    VX_Box s = MakeBox(20, 20, 10, 1, 1, 2);
    VX_RealBitVol sphere(&s);
    sphere.Clear();
    float c[3] = {10, 9, 10};  // w is not read
    sphere.RealSphere(c, 4.0f);
    VX_BitVol ref(20, 20, 10);
    ref.Clear();
    ref.Sphere(VX_3Vec(10, 9, 5), 4, 4, 2);
    EXPECT_GT(ref.CountBits(), 0);
    ExpectBits(sphere, [&](int x, int y, int z) { return ref.GetBit(x, y, z); });
}

// On the same box the planes keep columns 1..W-1 (the low face's 0.1 margin
// rounds column 0 away), so each operator is its word rule there; column 0
// stays (OrNot does not invert it), except that &= clears it.
TEST(VX_RealBitVol, SameBoxMatchesWordRules)
{
    VX_Box b = MakeBox(70, 5, 4, 0.7f, 1.3f, 2.0f, VX_3Vec(3, -2, 5));
    auto a = RandomMask(b, 2), o = RandomMask(b, 3);
    auto all = [](int, int, int) { return true; };
    ExpectOps(*a, *o, {0, 1, 2, 3, 4}, [](int x, int, int) { return x > 0; },
              [&](int x, int y, int z) { return o->GetBit(x, y, z); }, all);

    // Trilinear at voxel centres reads the voxel itself, 0.6 voxel inside o.
    VX_RealBitVol t(*a);
    t.Or(*o, 1);
    ExpectBits(t, [&](int x, int y, int z) {
        bool in = x > 0 && x < 69 && y > 0 && y < 4 && z > 0 && z < 3;
        return a->GetBit(x, y, z) || (in && o->GetBit(x, y, z));
    });
}

// o covers columns 5..24, rows 2..7, slices 1..3 of this 40 x 10 x 5 grid;
// &= clears outside o, and column 24, the last of every row inside o, too;
// OrNot inverts only inside o.
TEST(VX_RealBitVol, ShiftedSmallerBox)
{
    VX_Box big = MakeBox(40, 10, 5, 1.5f, 1.5f, 1.5f);
    VX_Box small = MakeBox(20, 6, 3, 1.5f, 1.5f, 1.5f, VX_3Vec(7.5f, 3.0f, 1.5f));
    auto a = RandomMask(big, 4), o = RandomMask(small, 5);
    auto in = [](int x, int y, int z) { return x >= 5 && x <= 24 && y >= 2 && y <= 7 && z >= 1 && z <= 3; };
    ExpectOps(*a, *o, {0, 1, 2, 4}, in, [&](int x, int y, int z) { return o->GetBit(x - 5, y - 2, z - 1); },
              [](int x, int, int) { return x != 24; });
}

TEST(VX_RealBitVol, ScaledRotatedAndInfiniteDepth)
{
    // o at a third of the spacing: this voxel i reads o's voxel 3i + 1 (column 0 excepted).
    VX_Box coarse = MakeBox(20, 6, 4, 3, 3, 3), fine = MakeBox(60, 18, 12);
    auto all = [](int, int, int) { return true; };
    auto pastColumn0 = [](int x, int, int) { return x > 0; };
    auto o = RandomMask(fine, 6);
    ExpectOps(*RandomMask(coarse, 11), *o, {0, 4}, pastColumn0,
              [&](int x, int y, int z) { return o->GetBit(3 * x + 1, 3 * y + 1, 3 * z + 1); }, all);

    // o's x edge runs along +y and its y edge along -x: voxel (i, j) reads o (j, N - 1 - i).
    const int N = 40;
    VX_Box sq = MakeBox(N, N, 3);
    VX_PhysBox p;
    p.vecs[0] = VX_3Vec(N, 0, 0);
    p.vecs[1] = VX_3Vec(N, N, 0);
    p.vecs[2] = VX_3Vec(0, 0, 0);
    p.vecs[3] = VX_3Vec(N, 0, 3);
    VX_Box rot(p, N, N, 3);
    auto m = RandomMask(rot, 7), a = RandomMask(sq, 8);
    ExpectOps(*a, *m, {0, 1}, pastColumn0, [&](int x, int y, int z) { return m->GetBit(y, N - 1 - x, z); }, all);

    // -= in parallel equals its one-thread result.
    VX_RealBitVol one(*a), many(*a);
    int saved = omp_get_max_threads();
    omp_set_num_threads(1), one -= *m;
    omp_set_num_threads(4), many -= *m;
    omp_set_num_threads(saved);
    ExpectBits(many, [&](int x, int y, int z) { return one.GetBit(x, y, z); });

    // One slice of o stands for every depth in &= and -=, not in |= and OrNot.
    VX_Box b = MakeBox(36, 4, 5), flat = MakeBox(36, 4, 1);
    auto f = RandomMask(flat, 9), c = RandomMask(b, 10);
    f->SetInfiniteDepth();
    auto fv = [&](int x, int y, int) { return f->GetBit(x, y, 0); };
    ExpectOps(*c, *f, {1, 2}, pastColumn0, fv, all);
    ExpectOps(*c, *f, {0, 4}, [](int x, int, int z) { return z == 0 && x > 0; }, fv, all);
}

TEST(VX_RealBitVol, TightenAndShrink)
{
    VX_Box b = MakeBox(10, 10, 10, 2, 1, 1, VX_3Vec(1, 1, 1));
    VX_RealBitVol m(&b);
    m.Clear();
    EXPECT_EQ(m.Tighten(2), &m);
    EXPECT_TRUE(m.box == b);

    // A corner mask: min -2, the copy's outer cells clear, the place unchanged.
    SetOnly(m, {{0, 0, 0}, {1, 2, 1}});
    m.SetInfiniteDepth();
    EXPECT_EQ(m.Tighten(2), &m);
    EXPECT_TRUE(m.GetInfiniteDepth() && m.box == MakeBox(6, 7, 6, 2, 1, 1, VX_3Vec(-3, -1, -1)));
    ExpectBits(m, [](int x, int y, int z) { return (x == 2 && y == 2 && z == 2) || (x == 3 && y == 4 && z == 3); });

    // A one-slice mask keeps one slice.
    VX_RealBitVol s(&b);
    SetOnly(s, {{4, 5, 3}, {6, 5, 3}});
    s.Tighten(3);
    EXPECT_TRUE(s.box == MakeBox(9, 7, 1, 2, 1, 1, VX_3Vec(3, 3, 4)));
    ExpectBits(s, [](int x, int y, int) { return y == 3 && (x == 3 || x == 5); });

    VX_Box wide = MakeBox(64, 5, 3, 1, 2, 3);
    VX_RealBitVol w(&wide);
    SetOnly(w, {{0, 0, 0}, {1, 1, 1}, {10, 2, 0}});
    std::unique_ptr<VX_RealBitVol> half;
    EXPECT_EQ(vxtest::Captured([&] { half.reset(w.Shrink()); }), "original = 3\nshrunk = 2\nrbv = 2\n");
    EXPECT_TRUE(half->box == MakeBox(32, 2, 1, 2, 4, 6) && half->GetBit(5, 1, 0) == 1);
}

TEST(VX_TightBitVol, BlockOffsetsAndIterator)
{
    VX_BitVol src(40, 6, 5);
    SetOnly(src, {{33, 2, 1}, {35, 4, 3}});
    // Margin 3: x grows to 30..38; y and z clamp at 0 and at the source's end.
    VX_TightBitVol t(&src, 3);
    int size[3], min[3], lim[2];
    VX_Rect rect;
    t.CalcBoundingBox(size, min), t.CalcBoundingRect(&rect);
    EXPECT_EQ(std::make_tuple(size[0], size[1], size[2], min[0], min[1], min[2]), std::make_tuple(9, 6, 5, 30, 0, 0));
    EXPECT_EQ(rect, VX_Rect(30, 0, 9, 6));
    ExpectBits(t, [](int x, int y, int z) { return (x == 3 && y == 2 && z == 1) || (x == 5 && y == 4 && z == 3); });

    // A one-slice source still gets its third axis; z limits are in block terms.
    VX_BitVol flat(50, 50, 1);
    SetOnly(flat, {{20, 30, 0}});
    EXPECT_EQ(VX_TightBitVol(&flat, 2).GetZ(), 1);
    VX_BitVol big(70, 9, 12);
    big.Clear();
    std::mt19937 rng(10);
    for (int i = 0; i < 60; ++i) big.SetBitOn(3 + rng() % 60, 2 + rng() % 5, 4 + rng() % 6);
    VX_TightBitVol tb(&big, 1);
    EXPECT_EQ(tb.offset[2], 3);
    tb.CalcZLimits(lim);
    EXPECT_EQ(std::make_pair(lim[0], lim[1]), std::make_pair(0, tb.GetZ() - 1));
    std::unique_ptr<int[]> lines(tb.ComputeSplittingLines(3)), base(tb.VX_BitVol::ComputeSplittingLines(3));
    for (int i = 0; i <= 3; ++i) EXPECT_EQ(lines[i], base[i] + 3);

    // The iterator walks the source's voxels in full-volume coordinates.
    std::unique_ptr<VX_BVSeqIterator> is(big.CreateIterator()), it(tb.CreateIterator());
    auto expected = Walk(is.get());
    EXPECT_EQ(Walk(it.get()), expected);
    ASSERT_TRUE(it->GoToSlice(7) && is->GoToSlice(7));
    EXPECT_EQ(Walk(it.get()), Walk(is.get()));
    ASSERT_TRUE(it->GoToSlice(1));  // below the block: from its first slice
    EXPECT_EQ(Walk(it.get()), expected);
    EXPECT_TRUE(!it->GoToSlice(tb.offset[2] + tb.GetZ()) && it->z == -1);

    std::unique_ptr<VX_BitVol> c(tb.Clone());  // a block too: its iterator adds the offsets
    std::unique_ptr<VX_BVSeqIterator> ic(c->CreateIterator());
    EXPECT_EQ(Walk(ic.get()), expected);

    VX_BitVol empty(8, 8, 8);
    empty.Clear();
    EXPECT_EQ(VX_TightBitVol(&empty, 2).sliceCount, 0);
}

TEST(VX_Overlay, OrsEveryWord)
{
    VX_Overlay a(40, 3, 7), b(40, 3, 9);
    SetOnly(a, {{1, 0, 0}});
    SetOnly(b, {{33, 2, 0}, {1, 0, 0}});
    a += b;
    ExpectBits(a, [](int x, int y, int) { return (x == 1 && y == 0) || (x == 33 && y == 2); });
}
