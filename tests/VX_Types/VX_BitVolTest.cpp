#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "VX.h"
#include "support/VX_TestData.h"

namespace {

const int kWidths[] = {1, 31, 32, 33, 40, 63, 64, 65, 100};
using Pos = std::tuple<int, int, int>;
const Pos kEnd(-1, -1, -1);

// Every word random, tails included; sparse gives about one bit in eight.
void Randomize(VX_BitVol& v, std::mt19937& rng, bool sparse = false)
{
    for (int z = 0; z < v.GetZ(); ++z)
        for (int i = 0; i < v.wordsPerSlice; ++i) v.slices[z][i] = sparse ? rng() & rng() & rng() : rng();
}

std::vector<unsigned> Words(VX_BitVol const& v)
{
    std::vector<unsigned> w;
    for (int z = 0; z < v.GetZ(); ++z) w.insert(w.end(), v.slices[z], v.slices[z] + v.wordsPerSlice);
    return w;
}

// The bits of line (y, z) above X (only for X not a multiple of 32).
unsigned Tail(VX_BitVol const& v, int y, int z) { return v.GetLineAddress(y, z)[v.wordsPerLine - 1] >> (v.GetX() & 31); }

// Restores the vector paths after a case that forced the scalar ones.
class VX_BitVolPaths : public testing::Test {
protected:
    void TearDown() override { VX_SetCPUIDMask(-1); }
};

}  // namespace

TEST(VX_BitVol, LineAndBlockOpsMatchBitByBit)
{
    std::mt19937 rng(1);
    for (int X : kWidths) {
        VX_BitVol v(X, 3, 3);
        Randomize(v, rng);
        for (int t = 0; t < 60; ++t) {
            int x0 = rng() % X, x1 = x0 + rng() % (X - x0), y = rng() % 3, z = rng() % 3, op = t % 4;
            std::unique_ptr<VX_BitVol> ref(v.Clone());
            for (int x = x0; x <= x1; ++x)  // op 3 clears the block x0..x1, 1..y, 0..z
                for (int zz = (op == 3 ? 0 : z); zz <= z; ++zz)
                    for (int yy = (op == 3 ? 1 : y); yy <= y; ++yy)
                        op >= 2 ? ref->SetBitOff(x, yy, zz) : ref->SetBitOn(x, yy, zz);
            op == 0 ? v.OneLine(x0, y, z, x1) : op == 1 ? v.SetLineOn(x0, y, z, x1)
                : op == 2 ? v.SetLineOff(x0, y, z, x1) : v.ZeroSubBlock(x0, x1, 1, y, 0, z);
            ASSERT_EQ(Words(v), Words(*ref)) << "X " << X << " op " << op << " " << x0 << ".." << x1;
        }
        auto before = Words(v);
        v.SetLineOn(X - 1, 0, 0, X - 2);
        v.OneLine(X - 1, 1, 0, X - 2);
        v.ZeroSubBlock(0, X - 1, 0, 2, 2, 1);
        EXPECT_EQ(Words(v), before);
    }
}

TEST(VX_BitVol, UnclearAndCleanFlag)
{
    std::mt19937 rng(2);
    for (int X : kWidths) {  // Unclear leaves every tail 0, and Negate keeps it so
        VX_BitVol v(X, 4, 2);
        Randomize(v, rng);
        v.Unclear();
        EXPECT_EQ(v.CountBits(), X * 8);
        v.Negate();
        EXPECT_EQ(v.CountBits(), 0);
        v.clean = false;
        EXPECT_EQ(v.IsClean(), (X & 31) == 0);
    }
    // The flag after: copy, =, |= with one unclean, |= both clean, &=, -=, Negate, OrNot, Allocate.
    VX_BitVol v(33, 2, 1), w(33, 2, 1);
    v.Clear();
    v.Negate();
    std::vector<bool> flags = {VX_BitVol(v).clean, (w = v).clean};
    w.clean = false;
    flags.push_back((v |= w).clean);
    v.Clear(), w.Clear();
    for (int op = 0; op < 3; ++op) flags.push_back((op == 0 ? v |= w : op == 1 ? v &= w : v -= w).clean);
    v.Negate();
    flags.push_back(v.clean);
    flags.push_back(v.OrNot(w).clean);
    v.Allocate(true);
    flags.push_back(v.clean);
    EXPECT_EQ(flags, std::vector<bool>({false, true, false, true, true, true, true, false, false}));
    EXPECT_EQ(VX_BitVol(5, 5, 0).CountBits(), 0);
}

// Logic operators, Negate, CountBits and Thresh, each path against the plain rules;
// the largest size forks a team.
TEST_F(VX_BitVolPaths, LogicCountAndThreshMatchRules)
{
    std::mt19937 rng(3);
    const int sizes[][3] = {{33, 5, 3}, {40, 1, 1}, {100, 7, 2}, {64, 3, 4}, {1030, 512, 16}};
    std::pair<std::string, std::vector<unsigned>> team[2];
    for (int mask : {-1, 0}) {
        VX_SetCPUIDMask(mask);
        for (auto const& d : sizes) {
            VX_BitVol a(d[0], d[1], d[2]), b(d[0], d[1], d[2]);
            Randomize(a, rng);
            Randomize(b, rng);
            const auto wa = Words(a), wb = Words(b);
            long long bits = 0;
            for (unsigned w : wa) bits += __builtin_popcount(w);
            EXPECT_EQ(a.CountBits(), bits);
            const int wpl = a.wordsPerLine;
            const unsigned tail = d[0] & 31 ? (1u << (d[0] & 31)) - 1 : ~0u;
            for (int op = 0; op < 5; ++op) {
                VX_BitVol r(a);
                if (op == 4)
                    r.Negate();  // the last word of a line keeps its tail bits
                else
                    op == 0 ? r |= b : op == 1 ? r &= b : op == 2 ? r -= b : r.OrNot(b);
                auto e = wa;
                for (size_t i = 0; i < e.size(); ++i)
                    e[i] = op == 0 ? e[i] | wb[i] : op == 1 ? e[i] & wb[i] : op == 2 ? e[i] & ~wb[i]
                           : op == 3 ? e[i] | ~wb[i] : e[i] ^ (i % wpl == (size_t)wpl - 1 ? tail : ~0u);
                EXPECT_TRUE(Words(r) == e) << "op " << op << " mask " << mask << " X " << d[0];
            }
            if (d[0] > 128) {  // both paths give the same message and words
                auto vol = vxtest::MakeVolume(vxtest::MakeBox(d[0], d[1], d[2]), [](int x, int y, int z) {
                    return (int)((unsigned)(x + 1030 * (y + 512 * z)) * 2654435761u >> 16);
                });
                a.Clear();
                team[mask + 1].first = vxtest::Captured([&] { a.Thresh(vol.get(), 100); });
                team[mask + 1].second = Words(a);
                continue;
            }
            // Only whole words are stored; a partial last word is the old one shifted down.
            auto vol = vxtest::RandomVolume(vxtest::MakeBox(d[0], d[1], d[2]), rng);
            for (int t : {-40000, -32768, -1, 0, 1000, 32767}) {
                Randomize(a, rng);
                const auto old = Words(a);
                std::string out = vxtest::Captured([&] { a.Thresh(vol.get(), t); });
                int count = 0, r = d[0] & 31;
                for (int z = 0; z < d[2]; ++z)
                    for (int y = 0; y < d[1]; ++y) {
                        for (int x = 0; x < d[0]; ++x) {
                            bool on = vxtest::Voxel(*vol, x, y, z) > t;
                            count += on;
                            if (x < d[0] - r) { ASSERT_EQ(a.GetBit(x, y, z), on) << x << " t " << t; }
                        }
                        size_t last = (size_t)(z * d[1] + y) * wpl + wpl - 1;
                        if (r) { EXPECT_EQ(a.GetLineAddress(y, z)[wpl - 1], old[last] >> (32 - r)); }
                    }
                EXPECT_EQ(out, std::to_string(count) + " / " + std::to_string(d[0] * d[1] * d[2]) +
                                   " voxels above threshold\n");
            }
        }
    }
    EXPECT_TRUE(team[0] == team[1]);
}

TEST(VX_BitVol, CountOverlapBitsMatchesReference)
{
    std::mt19937 rng(4);
    for (int t = 0; t < 300; ++t) {
        int X = kWidths[rng() % 9], oX = kWidths[rng() % 9];
        VX_BitVol a(X, 4, 3), b(oX, 3, 4);
        Randomize(a, rng);
        Randomize(b, rng);
        for (int z = 0; z < 4; ++z)  // the guards are read; give them known contents
            for (int g = 0; g < 4; ++g) b.slices[z][-1 - g] = rng(), b.slices[z][b.wordsPerSlice + g] = rng();
        int dx = t % 3 == 0 ? 32 * ((int)(rng() % 5) - 2) : (int)(rng() % (X + oX + 8)) - oX - 4;
        int dy = (int)(rng() % 7) - 3, dz = (int)(rng() % 7) - 3, n = 0;
        for (int z = 0; z < 3; ++z)
            for (int y = 0; y < 4; ++y)
                for (int x = 0; x < X; ++x) {
                    int ox = x - dx, oy = y - dy, oz = z - dz;
                    if (ox < 0 || oy < 0 || oz < 0 || ox >= oX || oy >= 3 || oz >= 4 || !a.GetBit(x, y, z)) continue;
                    unsigned bit = b.GetBit(ox, oy, oz);
                    if ((dx & 31) == 0)  // the successor word is ored in
                        bit |= b.slices[oz][oy * b.wordsPerLine + (ox >> 5) + 1] >> (ox & 31) & 1;
                    n += bit;
                }
        ASSERT_EQ(a.CountOverlapBits(&b, dx, dy, dz), n) << X << " " << oX << " " << dx << " " << dy << " " << dz;
    }
}

TEST(VX_BitVol, CopySubVolumeBothPaths)
{
    std::mt19937 rng(5);
    for (int t = 0; t < 200; ++t) {
        int X = kWidths[rng() % 9], sX = kWidths[rng() % 9] + 40;
        VX_BitVol src(sX, 5, 4), dst(X, 4, 3);
        Randomize(src, rng);
        Randomize(dst, rng);
        std::unique_ptr<VX_BitVol> old(dst.Clone());
        int off[3] = {t % 4 ? (int)(rng() % 70) - 6 : 32 * (int)(rng() % 2), (int)(rng() % 5) - 2, (int)(rng() % 5) - 2};
        dst.clean = true;
        dst.CopySubVolume(&src, off);
        EXPECT_FALSE(dst.clean);
        int n[3] = {std::min(X, sX - off[0]), std::min(4, 5 - off[1]), std::min(3, 4 - off[2])};
        for (int z = 0; z < n[2]; ++z)
            for (int y = 0; y < n[1]; ++y) {
                int sy = y + off[1], sz = z + off[2];
                bool skipped = off[0] >= 0 && (sy < 0 || sz < 0);  // left as it was
                for (int x = 0; x < (skipped ? X : n[0]); ++x) {
                    int sx = x + off[0];
                    int want = skipped ? old->GetBit(x, y, z) : (sx < 0 || sy < 0 || sz < 0) ? 0 : src.GetBit(sx, sy, sz);
                    ASSERT_EQ(dst.GetBit(x, y, z), want) << t << ": " << x << "," << y << "," << z;
                }
            }
    }
    // An aligned extent of 32 moves two words: the next source line's first word lands at bit 32.
    VX_BitVol src(64, 3, 1), dst(33, 3, 1);
    Randomize(src, rng);
    int off[3] = {32, 0, 0};
    dst.CopySubVolume(&src, off);
    for (int y = 0; y < 2; ++y) EXPECT_EQ(dst.GetBit(32, y, 0), src.GetBit(0, y + 1, 0));
}

TEST(VX_BitVol, ShrinkOrsBlocksAndPlacesALoneWordHigh)
{
    std::mt19937 rng(6);
    for (int X : {32, 33, 64, 65, 96, 100, 128, 160}) {
        VX_BitVol v(X, 5, 5);
        Randomize(v, rng, true);
        std::unique_ptr<VX_BitVol> s(v.Shrink());
        ASSERT_EQ(Pos(s->GetX(), s->GetY(), s->GetZ()), Pos(X / 2, 2, 2));
        const int last = s->wordsPerLine - 1, lone = 2 * last + 1 >= v.wordsPerLine ? last : -1;
        for (int z = 0; z < 2; ++z)
            for (int y = 0; y < 2; ++y) {
                if (lone >= 0) { EXPECT_EQ(s->GetLineAddress(y, z)[lone] & 0xffff, 0u); }
                for (int x = 0; x < X / 2; ++x) {
                    int want = 0;
                    for (int i = 0; i < 8; ++i) want |= v.GetBit(2 * x + (i & 1), 2 * y + (i >> 1 & 1), 2 * z + (i >> 2));
                    ASSERT_EQ(s->GetBit((x >> 5) == lone ? x + 16 : x, y, z), want) << X << ": " << x;
                }
            }
    }
}

// The sequential iterator visits the set bits in order. The bit iterator delivers
// every bit; the first word from the start voxel, and the first word after the
// wrap, are delivered whole (32 bits), every other line stops at X.
TEST(VX_BitVol, IteratorsWalkTheBits)
{
    std::mt19937 rng(7);
    for (int X : kWidths) {
        VX_BitVol v(X, 4, 5);
        Randomize(v, rng, X != 64);
        v.ClearBoundary(0);
        std::vector<Pos> ref;
        for (int z = 0; z < 5; ++z)
            for (int y = 0; y < 4; ++y)
                for (int x = 0; x < X; ++x)
                    if (v.GetBit(x, y, z)) ref.emplace_back(x, y, z);
        std::unique_ptr<VX_BVSeqIterator> it(v.CreateIterator());
        for (size_t i = 0; i < ref.size(); ++i) {
            ASSERT_EQ(Pos(it->x, it->y, it->z), ref[i]) << X << " at " << i;
            auto [x, y, z] = ref[i];  // true only for the next voxel on the line
            bool next = i + 1 < ref.size() && ref[i + 1] == Pos(x + 1, y, z);
            EXPECT_EQ((*it)++, next);
        }
        EXPECT_EQ(Pos(it->x, it->y, it->z), kEnd);
        for (int z = -2; z <= 5; ++z) {  // below 0: from slice 0
            auto first = std::find_if(ref.begin(), ref.end(), [&](Pos const& p) { return std::get<2>(p) >= z; });
            EXPECT_EQ(it->GoToSlice(z), first != ref.end());
            EXPECT_EQ(Pos(it->x, it->y, it->z), first != ref.end() ? *first : kEnd);
        }

        std::vector<int> want;
        for (int l = 1; l < 40; ++l) {  // lines y + 4 z from (X / 2, 1, 0), wrapping twice
            int x0 = l == 1 ? X / 2 : 0, end = l == 1 || l == 20 ? std::max(X, (x0 | 31) + 1) : X;
            for (int x = x0; x < end; ++x) want.push_back(x < X ? v.GetBit(x, l % 4, l / 4 % 5) : 0);
        }
        VX_BitVolIterator bit(&v, X / 2, 1, 0);
        for (size_t i = 0; i < want.size(); ++i) {
            ASSERT_EQ(*bit, want[i]) << X << " at " << i;
            ASSERT_EQ(bit++, want[i]);
        }
        EXPECT_EQ(Pos(bit.x, bit.y, bit.z), Pos(0, 0, 0));
    }
    VX_BitVol e(10, 2, 2), none(10, 2, 0);
    e.Clear();
    EXPECT_EQ(Pos(VX_BVSeqIterator(&e).z, VX_BVSeqIterator(&none).z, 0), Pos(-1, -1, 0));
}

TEST(VX_BitVol, TriLinGetBitFollowsFixedPointRule)
{
    std::mt19937 rng(9);
    VX_BitVol v(66, 4, 4);
    Randomize(v, rng);
    auto ref = [&](int x, int y, int z, int th) {
        int a[3] = {x - 131072, y - 131072, z - 131072}, f[3], tab[4], all = 0, any = 0;
        if ((a[0] | a[1] | a[2]) < 0) return 0;
        for (int i = 0; i < 3; ++i) f[i] = (a[i] >> 3) & 32767;
        for (int i = 0; i < 4; ++i) {
            int yy = (a[1] >> 18) + (i & 1), zz = (a[2] >> 18) + (i >> 1);
            int pat = v.GetBit(a[0] >> 18, yy, zz) | v.GetBit((a[0] >> 18) + 1, yy, zz) << 1;
            tab[i] = pat == 0 ? 0 : pat == 1 ? 32768 - f[0] : pat == 2 ? f[0] : 32768;
            all += pat == 3, any |= pat;
        }
        if (all == 4 || any == 0) return all == 4 ? 1 : 0;
        int p = tab[0] + (((tab[1] - tab[0]) * f[1]) >> 15), q = tab[2] + (((tab[3] - tab[2]) * f[1]) >> 15);
        return p + ((f[2] * (q - p)) >> 15) >= ((th >> 3) & 32767) ? 1 : 0;
    };
    for (int t = 0; t < 20000; ++t) {
        int x = rng() % (65 << 18), y = rng() % (3 << 18), z = rng() % (3 << 18), th = (int)rng();
        if (t % 3 == 0) x = (31 << 18) + 131072 + (int)(rng() % 262144);  // the pair straddles two words
        ASSERT_EQ(v.TriLinGetBit(x, y, z, th), ref(x, y, z, th)) << x << " " << y << " " << z << " " << th;
    }
    v.Unclear();
    EXPECT_EQ(v.TriLinGetBit(131071, 300000, 300000, 0) * 2 + v.TriLinGetBit(131072, 300000, 300000, 0), 1);
}

TEST(VX_BitVol, ClearBoundaryShells)
{
    std::mt19937 rng(10);
    for (int X : {1, 32, 33, 40, 64, 65, 100})
        for (int Z : {1, 7})
            for (int n : {-1, 0, 1, 2, 3, 9}) {
                VX_BitVol v(X, 8, Z);
                Randomize(v, rng);
                std::unique_ptr<VX_BitVol> old(v.Clone());
                v.ClearBoundary(n);
                EXPECT_EQ(v.clean, n >= 0);
                for (int z = 0; z < Z; ++z)
                    for (int y = 0; y < 8; ++y) {
                        bool shell = n > 0 && ((Z > 1 && (z < n || z >= Z - n)) || y < n || y >= 8 - n);
                        for (int x = 0; x < X; ++x) {
                            bool off = shell || (n > 0 && (x < n || x >= X - n));
                            ASSERT_EQ(v.GetBit(x, y, z), off ? 0 : old->GetBit(x, y, z)) << X << " n " << n;
                        }
                        if (X & 31) { EXPECT_EQ(Tail(v, y, z), n < 0 ? Tail(*old, y, z) : 0u); }
                    }
            }
}

TEST(VX_BitVol, ViewsRastersAndDebugText)
{
    std::mt19937 rng(11);
    VX_BitVol src(40, 3, 10);
    Randomize(src, rng);
    VX_BitVol view(&src, 3);
    EXPECT_EQ(std::make_tuple(view.GetZ(), view.slices[0], view.slices[2]), std::make_tuple(3, src.slices[1], src.slices[7]));
    short px[2][3] = {{-5, 7, 0}, {100, -32768, 8}};
    unsigned char bytes[2][3] = {{0, 3, 0}, {255, 0, 0}};
    VX_Raster r16, r8, r1(&src);
    r16.width = r8.width = 3, r16.height = r8.height = 2;
    r16.bitsPerPixel = 16, r16.data = px, r8.bitsPerPixel = 8, r8.data = bytes;
    VX_BitVol a(&r16, 7, 2, 1), b(&r8, 1000), c(&r1, 0, 5, 5);
    EXPECT_EQ(std::make_tuple(a.GetX(), a.GetY(), a.CountBits(), a.GetBit(2, 2, 0), a.GetBit(4, 2, 0), a.clean),
              std::make_tuple(7, 4, 2, 1, 1, true));
    EXPECT_EQ(std::make_tuple(b.CountBits(), b.GetBit(1, 0, 0), b.GetBit(0, 1, 0), b.clean), std::make_tuple(2, 1, 1, true));
    EXPECT_EQ(std::make_tuple(c.GetX(), c.GetY(), c.slices[0]), std::make_tuple(40, 3, src.slices[0]));
    c.Resize(8, 8, 2);  // the views' slices are never freed, the new ones once (the sanitizer build)
    EXPECT_EQ(src.SafeGetBit(40, 0, 0) + src.SafeGetBit(0, -1, 0) + src.SafeGetBit(0, 0, 10), 0);

    VX_BitVol d(12, 2, 1);
    d.Clear();
    d.SetBitOn(0, 0, 0), d.SetBitOn(11, 1, 0);
    EXPECT_EQ(vxtest::Captured([&] { d.Debug(); }),
              "bv size 12 x 2 x 1\n\n     000000000011\n     012345678901\n  0  x...........\n  1  ...........x\n");
}

TEST(VX_BitVol, BoundsCentreAndSplit)
{
    VX_BitVol v(70, 9, 12);
    v.Clear();
    int size[3], min[3], lim[2];
    VX_Rect r(1, 1, 1, 1);
    auto bounds = [&] {
        v.CalcBoundingBox(size, min), v.CalcBoundingRect(&r), v.CalcZLimits(lim);
        return std::make_tuple(size[0], size[1], size[2], min[0], min[1], min[2], lim[0], lim[1]);
    };
    EXPECT_EQ(bounds(), std::make_tuple(0, 0, 0, 0, 0, 0, 0, -1));
    EXPECT_TRUE(r == VX_Rect() && v.CenterOfMass().x == -1.0f);
    v.SetBitOn(3, 4, 5);
    VX_3Vec c = v.CenterOfMass();
    EXPECT_EQ(std::make_tuple(c.x, c.y, c.z), std::make_tuple(3.5f, 4.5f, 5.5f));
    v.SetBitOn(66, 2, 9), v.SetBitOn(40, 8, 7);
    EXPECT_EQ(bounds(), std::make_tuple(64, 7, 5, 3, 2, 5, 5, 9));
    EXPECT_EQ(r, VX_Rect(3, 2, 64, 7));

    for (int z = 0; z < 12; ++z) v.SetLineOn(0, 0, z, 9);  // ten bits a slice, one more in 5, 7, 9
    for (int n : {1, 3, 4, 12, 15}) {
        std::unique_ptr<int[]> lines(v.ComputeSplittingLines(n));
        EXPECT_EQ(std::make_pair(lines[0], lines[n]), std::make_pair(0, 12));
        for (int i = 0; i < n; ++i) EXPECT_LE(lines[i], lines[i + 1]);
        VX_BitVol** parts = v.Split(n);
        VX_BitVol sum(70, 9, 12);
        sum.Clear();
        for (int i = 0; i < n; ++i) {
            int want = 0;
            for (int z = lines[i]; z < lines[i + 1]; ++z) want += 10 + (z == 5 || z == 7 || z == 9);
            EXPECT_EQ(parts[i]->CountBits(), want);
            sum |= *parts[i];
            delete parts[i];
        }
        delete[] parts;
        EXPECT_EQ(Words(sum), Words(v));
    }
}
