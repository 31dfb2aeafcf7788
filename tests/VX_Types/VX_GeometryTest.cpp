#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <tuple>

#include "VX.h"
#include "support/VX_TestData.h"

using vxtest::Captured;

namespace {

using Rows = std::array<std::array<double, 3>, 4>;  // m[row][col] without column 3
const Rows kIdentity = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}}};
using F4 = std::array<float, 4>;
F4 Of(VX_3Vec const& v) { return {v.x, v.y, v.z, v.w}; }

// The twelve affine elements within tol, and column 3 exactly zero.
void ExpectAffine(VX_Mat const& m, Rows const& want, double tol)
{
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(m.m[i][j], want[i][j], tol) << "m[" << i << "][" << j << "]";
        EXPECT_EQ(m.m[i][3], 0.0f) << "column 3, row " << i;
    }
}

// A first, then B: linear part A * B, translation tA * linear(B) + tB, or
// tA alone with keepT (MultiplyAboutOrigin).
Rows RefProduct(VX_Mat const& a, VX_Mat const& b, bool keepT = false)
{
    Rows r{};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) {
            for (int k = 0; k < 3; ++k) r[i][j] += (double)a.m[i][k] * b.m[k][j];
            if (i == 3) r[i][j] = keepT ? a.m[3][j] : r[i][j] + b.m[3][j];
        }
    return r;
}

// |det| >= 0.5, and NaN in column 3, which no operation may read.
VX_Mat RandomAffine(std::mt19937& g)
{
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    VX_Mat m;
    do {
        for (int i = 0; i < 16; ++i) m.m[i / 4][i % 4] = i % 4 == 3 ? NAN : u(g);
    } while (std::fabs(VX_Det(m)) < 0.5f);
    return m;
}

}  // namespace

TEST(VX_3Vec, DivisionTiesTruncationAndRelativeEquality)
{
    // Division multiplies by the reciprocal: 5 * (1/3) differs from 5 / 3 in float.
    VX_3Vec five(5, 5, 5, 5);
    EXPECT_TRUE((five / 3.0f).x == 1.66666675f && (five /= 3.0f).w == 1.66666675f);
    const float greatest[][4] = {{1, 1, 1, 2}, {1, 1, 0, 1}, {-3, 1, 2, 0}, {2, 1, -2, 2}, {5, -5, 1, 1}};
    for (auto const& c : greatest)  // ties go to the later axis
        EXPECT_EQ(VX_3Vec(c[0], c[1], c[2], 100).GreatestElem(), (int)c[3]) << c[0] << "," << c[1] << "," << c[2];
    EXPECT_TRUE(VX_3Vec(-0.00009f, 1.00009f, 0, 50).IsInUnitBox() && !VX_3Vec(0.5f, 0.5f, 1.0002f, 0).IsInUnitBox());
    // (int)(v + 0.5) truncates, so negatives do not round to nearest.
    FWK::Point p = VX_3Vec(-0.7f, 0.7f, 9, 9), q = VX_3Vec(-1.6f, 2.5f, 0, 0);
    EXPECT_EQ(std::make_tuple(p.x, p.y, q.x, q.y), std::make_tuple(0, 1, -1, 3));
    // Normalize scales w too and has no guard against zero.
    VX_3Vec n(3, 4, 12, 26), zero, want = VX_3Vec(3, 4, 12, 26) / 13.0f;
    n.Normalize(), zero.Normalize();
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(n[i], want[i], 1e-6) << i;
    EXPECT_FALSE(std::isfinite(zero.x));
    // (|a|^2 + |b|^2) 1e-5 > |a - b|^2: about 0.0045 relative on one axis, at any scale; zeros are unequal.
    const float eq[][3] = {{0, 0, 0}, {1, 1.004f, 1}, {1, 1.005f, 0}, {1e-3f, 1.004e-3f, 1}, {1e4f, 1.005e4f, 0}};
    for (auto const& c : eq) {
        VX_3Vec a(0, c[0], 0, 0), b(0, c[1], 0, 100);  // w ignored
        bool want = c[2] == 1;
        EXPECT_TRUE((a == b) == want && (a != b) != want && (VX_2Vec(c[0], 0) == VX_2Vec(c[1], 0)) == want) << c[0];
    }
}

TEST(VX_3Vec, TransformsOfPointsAndPlanes)
{
    // r[j] = x m[0][j] + y m[1][j] + z m[2][j] + m[3][j]; column 3 (NaN here) is never read.
    float r0[3] = {1, 2, 0}, r1[3] = {0, 1, 3}, r2[3] = {2, 0, 1}, t[3] = {5, 6, 7}, raw[4] = {1, 2, 3, -123.0f};
    VX_Mat M(r0, r1, r2, t);
    for (int i = 0; i < 4; ++i) M.m[i][3] = NAN;
    VX_3Vec v(1, 2, 3, 9), inPlace = v, linear = v;
    linear.LinearTransform(M);
    VX_Mul(raw, M);
    EXPECT_EQ(Of(v * M), (F4{12, 10, 16, 0}));  // a new vector has w 0
    EXPECT_EQ(Of(inPlace *= M), (F4{12, 10, 16, 9}));
    EXPECT_EQ(Of(linear), (F4{7, 4, 9, 9}));
    EXPECT_EQ(Of(VX_3Vec(raw)), (F4{12, 10, 16, -123}));
    std::mt19937 g(5);
    std::uniform_real_distribution<float> u(-5.0f, 5.0f);
    for (int rep = 0; rep < 50; ++rep) {  // moved points keep their plane value
        VX_Mat R = RandomAffine(g);
        VX_3Vec plane(u(g), u(g), u(g), u(g)), q(u(g), u(g), u(g), 0), moved = plane.PlaneTransform(R), q2 = q * R;
        double scale = 1 + VX_Abs(moved) * VX_Abs(q2) + std::fabs(moved.w);
        EXPECT_NEAR(moved * q2 + moved.w, plane * q + plane.w, 1e-5 * scale);
    }
    // Rows a = e x z, b = z x a, z, with e the axis after GreatestElem (a tie picks axis 2).
    const double s = 1 / std::sqrt(3.0), h = 1 / std::sqrt(2.0);
    ExpectAffine(VX_3Vec(1, 1, 1, 7).CreateZVecMat(),
                 {{{0, -h, h}, {2 * s * h, -s * h, -s * h}, {s, s, s}, {0, 0, 0}}}, 1e-6);
    ExpectAffine(VX_3Vec(0, -2, 0, 0).CreateZVecMat(), {{{1, 0, 0}, {0, 0, 1}, {0, -1, 0}, {0, 0, 0}}}, 1e-6);
}

TEST(VX_3Vec, ClipLineNarrowsToInside)
{
    const VX_3Vec plane(0, 0, 1, -5);  // inside: z <= 5
    struct Case { float oz, dx, dz, tmin, tmax; bool ok; float wantMin, wantMax; };
    const Case cases[] = {
        {0, 0, 1, 0, 100, true, 0, 5},     {0, 0, -1, 0, 100, true, 0, 100},  // enters before tmin
        {10, 0, 1, 0, 100, false, 0, -5},  {10, 0, -1, -100, 100, true, 5, 100},
        // Parallel: strictly inside keeps the interval; on the plane empties it.
        {0, 2, 0, -1, 1, true, -1, 1},     {5, 2, 0, -1, 1, false, 2, 1},
        // Below 1e-10 of the squared cosine a line counts as parallel.
        {5, 1, 1e-6f, -1, 1, false, 2, 1}, {5, 1, 1e-4f, -1, 1, true, -1, 0},
    };
    for (Case c : cases) {
        VX_3Vec o(3, 4, c.oz, 0), dir(c.dx, 0, c.dz, 0);
        EXPECT_EQ(plane.ClipLine(o, dir, &c.tmin, &c.tmax), c.ok) << c.oz << " " << c.dz;
        EXPECT_EQ(std::make_pair(c.tmin, c.tmax), std::make_pair(c.wantMin, c.wantMax));
    }
}

TEST(VX_Mat, ProductsInversesRotationsAndTests)
{
    std::mt19937 g(7);
    for (int rep = 0; rep < 20; ++rep) {
        VX_Mat A = RandomAffine(g), B = RandomAffine(g), sq = A, s = A, about = A;
        ExpectAffine(A * B, RefProduct(A, B), 1e-5);
        ExpectAffine(sq *= sq, RefProduct(A, A), 1e-5);  // reads all inputs before writing
        about.MultiplyAboutOrigin(B);
        ExpectAffine(about, RefProduct(A, B, true), 1e-5);
        ExpectAffine(s *= 2.0f, RefProduct(A, VX_Mat(2.0f)), 1e-5);  // the translation scales too
        ExpectAffine(A * A.Inv(), kIdentity, 1e-4);
    }
    // Rigid: 90 degrees about z; translation -(t * transpose(L)).
    float t[3] = {3, 4, 5};
    ExpectAffine(VX_RotMat((float)M_PI / 2, 2).SetTranslation(t).OrthoInv(),
                 {{{0, -1, 0}, {1, 0, 0}, {0, 0, 1}, {-4, 3, -5}}}, 1e-6);
    // 2D: block [[2, 1], [1, 1]] inverts to [[1, -1], [-1, 2]]; row and column 2 become (0, 0, 1).
    float a0[3] = {2, 1, 7}, a1[3] = {1, 1, 8}, a2[3] = {9, 9, 5}, at[3] = {3, 4, 7};
    ExpectAffine(VX_Mat(a0, a1, a2, at).Inv2D(), {{{1, -1, 0}, {-1, 2, 0}, {0, 0, 1}, {1, -5, 0}}}, 1e-6);
    const double s = std::sin(0.3f), c = std::cos(0.3f);
    ExpectAffine(VX_RotMat(0.3f, 0), {{{1, 0, 0}, {0, c, -s}, {0, s, c}, {0, 0, 0}}}, 1e-7);
    ExpectAffine(VX_RotMat(0.3f, 1), {{{c, 0, -s}, {0, 1, 0}, {s, 0, c}, {0, 0, 0}}}, 1e-7);
    ExpectAffine(VX_RotMat(0.3f, 2), {{{c, s, 0}, {-s, c, 0}, {0, 0, 1}, {0, 0, 0}}}, 1e-7);
    ExpectAffine(VX_RotMat(1.234f, 5), kIdentity, 0);
    float r0[3] = {1, 2, 3}, r1[3] = {3, 1, 4}, r2[3] = {5, 6, 0}, big[3] = {1e6f, -1e6f, 1e6f};
    VX_Mat m(r0, r1, r2, big), d = VX_Mat(1.0f).SetTranslation(big);
    EXPECT_EQ(std::make_pair(VX_Det(m), VX_Det2(m)), std::make_pair(55.0f, -5.0f));  // Det2: m00 m11 - m10 m01
    d.m[0][1] = 2.9e-4f;  // 2.9e-4 / 3 < 1e-4; the translation is ignored
    EXPECT_TRUE(d.IsDiagonal());
    d.m[2][0] = -0.2e-4f;  // 3.1e-4 / 3 > 1e-4
    EXPECT_FALSE(d.IsDiagonal());
}

TEST(VX_Rect, UnionIntersectionScaleAndDistance)
{
    // Union: an argument with w or h below 1 changes nothing, an empty this becomes
    // the argument. Intersection: not clamped, so sizes may go negative.
    struct Case { VX_Rect a, b, uni, cut; };
    Case cases[] = {
        {VX_Rect(0, 0, 10, 10), VX_Rect(50, 50, 0, 5), VX_Rect(0, 0, 10, 10), VX_Rect(50, 50, -40, -40)},
        {VX_Rect(7, 7, 0, 3), VX_Rect(20, 30, 4, 5), VX_Rect(20, 30, 4, 5), VX_Rect(20, 30, -13, -20)},
        {VX_Rect(0, 0, 10, 10), VX_Rect(-5, 5, 8, 20), VX_Rect(-5, 0, 15, 25), VX_Rect(0, 5, 3, 5)},
    };
    for (Case& c : cases) {
        VX_Rect u = c.a, i = c.a;
        u |= c.b;
        i &= c.b;
        EXPECT_EQ(std::make_tuple(u, c.a | c.b, i), std::make_tuple(c.uni, c.uni, c.cut));
    }
    // x' = trunc(x s + 0.1), w' = trunc((x + w) s + 0.1) - x': 0.9 + 0.1 gives 1, trunc(-2.4) = -2.
    VX_Rect p(1, 2, 3, 4), q(3, 0, 7, 10), r(-5, 0, 10, 1);
    p *= 1.5f, q *= 0.3f, r *= 0.5f;
    EXPECT_EQ(std::make_tuple(p, q, r),
              std::make_tuple(VX_Rect(1, 3, 5, 6), VX_Rect(1, 0, 2, 3), VX_Rect(-2, 0, 4, 0)));
    VX_Rect a(0, 0, 10, 10), right(15, 0, 5, 5), inside(2, 3, 2, 2), left(-10, 20, 4, 4);
    EXPECT_EQ(std::make_tuple(a.Distance(right), a.Distance(inside), a.Distance(left)), std::make_tuple(5, -7, 10));
}

TEST(VX_Geometry, PrintedTextsAndStamps)
{
    EXPECT_EQ(Captured([] { VX_3Vec(1, 2.5f, -3, 0).Print("p"); }), "p (1, 2.5, -3)\n");
    EXPECT_EQ(Captured([] { VX_3Vec(1, 0, -2, 0.5f).EqDebug(); }), "1 x + 0 y + -2 z + 0.5 <= 0\n");
    EXPECT_EQ(Captured([] { VX_Rect(1, -2, 3, 4).Debug(); }), "VX_Rect: (x,y)=(1,-2),  (w x h)=(3 x 4)\n");
    float t[3] = {-1.5f, 0, 10};
    VX_Mat m = VX_TransMat(t);
    EXPECT_EQ(Captured([&] { m.Print("M"); }), "M\n 1.000000  0.000000  0.000000 \n 0.000000  1.000000  0.000000 \n"
                                               " 0.000000  0.000000  1.000000 \n-1.500000  0.000000 10.000000 \n\n");
    // A float change of exactly the precision (2^-23 by default) is stored without a new stamp.
    VX_IDFloat f;
    f = 1.0f;
    f = std::nextafter(1.0f, 2.0f);
    EXPECT_EQ(std::make_pair(f.GetID(), (float)f), std::make_pair(1u, std::nextafter(1.0f, 2.0f)));
    f = 1.0f + 4.0f / 8388608.0f;  // 3 * 2^-23 from the stored value
    VX_IDVec v(1, 2, 3, 4);
    v = VX_3Vec(1, 2, 3, 4);  // an equal vector still moves the stamp
    EXPECT_EQ(std::make_pair(f.GetID(), v.GetID()), std::make_pair(2u, 1u));
}
