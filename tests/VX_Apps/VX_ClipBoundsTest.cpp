#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "VX_Apps/VX_ClipBounds.h"
#include "VX_Apps/VX_MPR.h"

namespace {

using Row = std::pair<int, int>;

// A bounds array of H rows with a few helpers to read it.
struct Bounds {
    int W, H;
    std::vector<short> b;
    Bounds(int w, int h, short left = 0, short right = -1) : W(w), H(h), b(2 * h)
    {
        for (int j = 0; j < h; ++j) Set(j, left, right);
    }
    void Set(int j, short l, short r) { b[2 * j] = l, b[2 * j + 1] = r; }
    Row At(int j) const { return {b[2 * j], b[2 * j + 1]}; }
    bool Empty(int j) const { return b[2 * j] > b[2 * j + 1]; }
    bool Kept(int i, int j) const { return i >= b[2 * j] && i <= b[2 * j + 1]; }
    void Clip(float a, float bb, float d, bool reset) { VX_ClipBounds(b.data(), W, H, a, bb, d, reset); }
    void Clip(float const (&p)[4], bool reset)
    {
        float q[4] = {p[0], p[1], p[2], p[3]};
        VX_ClipBounds(b.data(), W, H, q, reset);
    }
    void ExpectAll(Row row) const
    {
        for (int j = 0; j < H; ++j) EXPECT_EQ(At(j), row) << "row " << j;
    }
    void ExpectEmpty() const
    {
        for (int j = 0; j < H; ++j) EXPECT_TRUE(Empty(j)) << "row " << j;
    }
};

TEST(VX_ClipBounds, ResetSetsFullRows)
{
    Bounds b(8, 3, 5, 1);
    b.Clip(-1, 0, -100, true);  // x >= -100: the whole image
    b.ExpectAll({0, 7});
}

TEST(VX_ClipBounds, ParallelPlaneEmptiesOnlyForPositiveD)
{
    Bounds b(8, 4);
    b.Clip({0, 0, 1, 0.5f}, true);
    b.ExpectEmpty();
    b.Clip({0, 0, 1, 0}, true);  // d = 0 keeps
    b.ExpectAll({0, 7});
    b.Clip({0, 0, -1, -3}, true);
    b.ExpectAll({0, 7});
    // a^2 + b^2 below 1e-10 counts as parallel even with a non-zero a: as a
    // line (x <= -0.1) the row would keep column 0.
    b.Clip({1e-6f, 0, 1, 1e-7f}, true);
    b.ExpectEmpty();
    // No reset: earlier bounds survive a parallel plane with d <= 0.
    b = Bounds(8, 2, 2, 5);
    b.Clip({0, 0, 1, 0}, false);
    b.ExpectAll({2, 5});
}

TEST(VX_ClipBounds, HorizontalLines)
{
    // r = trunc((b > 0) + 0.5 - d / b) - 1; b > 0 empties r..H-1, b < 0 empties 0..r.
    Bounds b(8, 6);
    b.Clip(0, 1, -2.5f, true);  // y <= 2.5: r = 3
    for (int j = 0; j < 6; ++j) EXPECT_EQ(b.Empty(j), j >= 3) << j;
    b.Clip(0, 2, -4.8f, true);  // y <= 2.4: r = 2
    for (int j = 0; j < 6; ++j) EXPECT_EQ(b.Empty(j), j >= 2) << j;
    b.Clip(0, -1, 2.5f, true);  // y >= 2.5: r = 2, so row 2 (centre 2.5) goes too
    for (int j = 0; j < 6; ++j) EXPECT_EQ(b.Empty(j), j <= 2) << j;
    for (int j = 3; j < 6; ++j) EXPECT_EQ(b.At(j), Row(0, 7));
    b.Clip(0, -1, 100, true);  // r clamped to H - 1
    b.ExpectEmpty();
    b.Clip(0, 1, 100, true);  // r clamped to 0
    b.ExpectEmpty();
    b.Clip(0, 1, -100, true);  // r >= H: nothing
    b.ExpectAll({0, 7});
    b.Clip(0, -1, -100, true);  // r < 0: nothing
    b.ExpectAll({0, 7});
}

TEST(VX_ClipBounds, VerticalLines)
{
    // c = trunc(x0 - 0.5) + (a < 0); a > 0 caps right, a < 0 raises left.
    Bounds b(8, 3);
    b.Clip(1, 0, -2.5f, true);
    b.ExpectAll({0, 2});
    b.Clip(1, 0, -2.7f, true);
    b.ExpectAll({0, 2});
    b.Clip(-1, 0, 2.5f, true);  // x >= 2.5: pixel 2's centre is dropped
    b.ExpectAll({3, 7});
    // The rule, not the geometry: x <= 0.2 keeps column 0 (trunc(-0.3) = 0),
    // x >= 0.3 drops it (trunc(-0.2) + 1 = 1).
    b.Clip(1, 0, -0.2f, true);
    b.ExpectAll({0, 0});
    b.Clip(-1, 0, 0.3f, true);
    b.ExpectAll({1, 7});
    // No reset: the tighter of old and new.
    b = Bounds(8, 3, 4, 6);
    b.Clip(1, 0, -2.5f, false);
    b.ExpectEmpty();
    b = Bounds(8, 3, 1, 6);
    b.Clip(-1, 0, 2.5f, false);
    b.ExpectAll({3, 6});
}

TEST(VX_ClipBounds, NearlyVerticalLineIsCorrectedByHeight)
{
    // |b| < 1e-6 after normalising; when a * b > 0, x0 moves by height * |b|
    // (here 1000 * 5e-7 = 5e-4) toward the inside.
    Bounds b(8, 1000);
    b.Clip(1, 5e-7f, -2.5002f, true);  // x0 = 2.4997: c = 1
    b.ExpectAll({0, 1});
    b.Clip(1, -5e-7f, -2.5002f, true);  // a * b < 0: x0 = 2.5002, c = 2
    b.ExpectAll({0, 2});
    b.Clip(-1, -5e-7f, 2.4998f, true);  // x0 = 2.5003: c = 3
    b.ExpectAll({3, 7});
}

TEST(VX_ClipBounds, GeneralLines)
{
    // c = trunc((j + 0.5) * s + X0 + 0.5), s = -b / a, X0 = -d / a.
    Bounds b(8, 4);
    b.Clip(1, -1, -1.2f, true);  // x <= y + 1.2: c = j + 2, right = c - 1
    for (int j = 0; j < 4; ++j) EXPECT_EQ(b.At(j), Row(0, j + 1)) << j;
    b.Clip(-1, 1, 1.2f, true);  // x >= y + 1.2: left = c
    for (int j = 0; j < 4; ++j) EXPECT_EQ(b.At(j), Row(j + 2, 7)) << j;

    Bounds c(8, 6);
    c.Clip(1, 2, -5, true);  // c = trunc(4.5 - 2j): 4, 2, then c - 1 < 0 empties
    EXPECT_EQ(c.At(0), Row(0, 3));
    EXPECT_EQ(c.At(1), Row(0, 1));
    for (int j = 2; j < 6; ++j) EXPECT_TRUE(c.Empty(j)) << j;
    c.Clip(-1, 1, 3, true);  // x >= y + 3: c = j + 4; c = 8 and c = 9 leave no pixel
    for (int j = 0; j < 4; ++j) EXPECT_EQ(c.At(j), Row(j + 4, 7)) << j;
    EXPECT_TRUE(c.Empty(4));
    EXPECT_TRUE(c.Empty(5));
}

TEST(VX_ClipBounds, LineMissingTheImageTestsItsCentre)
{
    Bounds b(8, 6, 1, 5);
    b.Clip(-1, -1, -100, false);  // x + y >= -100: centre inside
    b.ExpectAll({1, 5});
    b.Clip(1, 1, -100, false);  // x + y <= 100: centre inside
    b.ExpectAll({1, 5});
    b.Clip(1, 1, 100, false);  // x + y <= -100
    b.ExpectEmpty();
    b = Bounds(8, 6, 1, 5);
    b.Clip(-1, -1, 100, false);  // x + y >= 100
    b.ExpectEmpty();
}

// For lines that are neither horizontal nor vertical the rule keeps a pixel
// exactly when its centre is inside, up to rounding at the line itself.
TEST(VX_ClipBounds, RandomLinesKeepInsideCentres)
{
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> unit(-1, 1), px(-6, 30), py(-6, 22);
    int kept = 0, dropped = 0;
    for (int trial = 0; trial < 300; ++trial) {
        int W = 24, H = 16, lines = 1 + trial % 3;
        Bounds b(W, H);
        std::vector<float> eq;
        for (int l = 0; l < lines; ++l) {
            float a = unit(rng), c = unit(rng), x = px(rng), y = py(rng);
            float d = -(a * x + c * y);
            if (trial % 7 == 0) a *= 40, c *= 40, d *= 40;  // scale must not matter
            b.Clip(a, c, d, l == 0);
            eq.insert(eq.end(), {a, c, d});
        }
        for (int j = 0; j < H; ++j)
            for (int i = 0; i < W; ++i) {
                bool inside = true, onLine = false;
                for (int l = 0; l < lines; ++l) {
                    double a = eq[3 * l], c = eq[3 * l + 1], d = eq[3 * l + 2];
                    double e = (a * (i + 0.5) + c * (j + 0.5) + d) / std::sqrt(a * a + c * c);
                    onLine |= std::fabs(e) < 2e-3;
                    inside &= e <= 0;
                }
                if (onLine) continue;
                ASSERT_EQ(b.Kept(i, j), inside) << "trial " << trial << " pixel " << i << "," << j;
                (inside ? kept : dropped)++;
            }
    }
    EXPECT_GT(kept, 10000);
    EXPECT_GT(dropped, 10000);
}

TEST(VX_ClipBounds, BoundingRectOfRows)
{
    Bounds b(10, 6);
    b.Set(1, 3, 5);
    b.Set(2, 5, 4);
    b.Set(3, 2, 4);
    b.Set(4, 7, 8);
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 6, b.b.data()), VX_Rect(2, 1, 7, 4));
    Bounds one(10, 6);
    one.Set(2, 4, 4);
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 6, one.b.data()), VX_Rect(4, 2, 1, 1));
    Bounds none(10, 6, 5, 4);
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 6, none.b.data()), VX_Rect());
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 0, none.b.data()), VX_Rect());
}

}  // namespace
