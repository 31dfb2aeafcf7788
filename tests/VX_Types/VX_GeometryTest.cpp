#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <string>

#include "VX.h"

namespace {

using Rows = std::array<std::array<double, 3>, 4>;  // m[row][col] without column 3
const Rows kIdentity = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}}};

void ExpectVec(VX_3Vec const& v, double x, double y, double z, double w, double tol = 0)
{
    EXPECT_NEAR(v.x, x, tol);
    EXPECT_NEAR(v.y, y, tol);
    EXPECT_NEAR(v.z, z, tol);
    EXPECT_NEAR(v.w, w, tol);
}

Rows ToRows(VX_Mat const& m)
{
    Rows r;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) r[i][j] = m.m[i][j];
    return r;
}

// A first, then B: linear part A * B, translation tA * linear(B) + tB.
Rows RefProduct(Rows const& a, Rows const& b)
{
    Rows r{};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) {
            for (int k = 0; k < 3; ++k) r[i][j] += a[i][k] * b[k][j];
            if (i == 3) r[i][j] += b[3][j];
        }
    return r;
}

// The twelve affine elements within tol, and column 3 exactly zero.
void ExpectAffine(VX_Mat const& m, Rows const& want, double tol)
{
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(m.m[i][j], want[i][j], tol) << "m[" << i << "][" << j << "]";
        EXPECT_EQ(m.m[i][3], 0.0f) << "column 3, row " << i;
    }
}

// Column 3 is never read, so NaN there must not reach any result.
VX_Mat Poisoned(VX_Mat m)
{
    for (int i = 0; i < 4; ++i) m.m[i][3] = NAN;
    return m;
}

VX_Mat RandomAffine(std::mt19937& g)
{
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    VX_Mat m;
    do {
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 3; ++j) m.m[i][j] = u(g);
    } while (std::fabs(VX_Det(m)) < 0.5f);
    return m;
}

VX_3Vec RandomVec(std::mt19937& g, float range = 5.0f)
{
    std::uniform_real_distribution<float> u(-range, range);
    float x = u(g), y = u(g), z = u(g), w = u(g);
    return VX_3Vec(x, y, z, w);
}

template <class F>
std::string Captured(F f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(VX_3Vec, FourthFloatHandling)
{
    ExpectVec(VX_3Vec(4), 0, 0, 0, 0);
    ExpectVec(VX_3Vec(-1), 0, 0, 0, 0);
    ExpectVec(VX_3Vec(3), 0, 0, 0, 1);
    ExpectVec(VX_3Vec(1), 0, 1, 0, 0);
    VX_3Vec a(1, 2, 3, 4), b(10, 20, 30, 40);
    ExpectVec(-a, -1, -2, -3, -4);
    EXPECT_EQ(a * b, 140.0f);  // w ignored
    // Division multiplies by the reciprocal: 5 * (1/3) differs from 5 / 3 in float.
    VX_3Vec five(5, 5, 5, 5);
    EXPECT_EQ((five / 3.0f).x, 1.66666675f);
    five /= 3.0f;
    EXPECT_EQ(five.w, 1.66666675f);
    ExpectVec(VX_Cross(VX_3Vec(1, 2, 3, 5), VX_3Vec(4, 5, 6, 7)), -3, 6, -3, 0);
    ExpectVec(VX_VecAbs(VX_3Vec(-1, 2, -3, -4)), 1, 2, 3, 0);
    a.Min(VX_3Vec(0, 5, 1, -9));
    ExpectVec(a, 0, 2, 1, 4);
}

TEST(VX_3Vec, AffineTransformForms)
{
    float t[3] = {10, 20, 30};
    VX_3Vec p(1, 2, 3, 7);
    ExpectVec(p * VX_TransMat(t), 11, 22, 33, 0);
    p *= VX_TransMat(t);
    ExpectVec(p, 11, 22, 33, 7);

    std::mt19937 g(1);
    for (int rep = 0; rep < 20; ++rep) {
        VX_Mat M = RandomAffine(g);
        VX_3Vec v = RandomVec(g);
        double lin[3], full[3];
        for (int j = 0; j < 3; ++j) {
            lin[j] = (double)v.x * M.m[0][j] + (double)v.y * M.m[1][j] + (double)v.z * M.m[2][j];
            full[j] = lin[j] + M.m[3][j];
        }
        M = Poisoned(M);
        ExpectVec(v * M, full[0], full[1], full[2], 0, 1e-5);
        VX_3Vec inPlace = v, linear = v;
        inPlace *= M;
        ExpectVec(inPlace, full[0], full[1], full[2], v.w, 1e-5);
        linear.LinearTransform(M);
        ExpectVec(linear, lin[0], lin[1], lin[2], v.w, 1e-5);
        float raw[4] = {v.x, v.y, v.z, -123.0f};
        VX_Mul(raw, M);
        ExpectVec(VX_3Vec(raw), full[0], full[1], full[2], -123.0, 1e-5);
    }
}

TEST(VX_3Vec, EqualityIsRelativeAndZerosAreUnequal)
{
    EXPECT_FALSE(VX_3Vec() == VX_3Vec());
    EXPECT_TRUE(VX_3Vec() != VX_3Vec());
    // (|a|^2 + |b|^2) 1e-5 > |a - b|^2: about 0.0045 relative on one axis, at any scale.
    EXPECT_TRUE(VX_3Vec(1, 0, 0, 0) == VX_3Vec(1.004f, 0, 0, 0));
    EXPECT_TRUE(VX_3Vec(1, 0, 0, 0) != VX_3Vec(1.005f, 0, 0, 0));
    EXPECT_TRUE(VX_3Vec(1e-3f, 0, 0, 0) == VX_3Vec(1.004e-3f, 0, 0, 0));
    EXPECT_TRUE(VX_3Vec(1e4f, 0, 0, 0) != VX_3Vec(1.005e4f, 0, 0, 0));
    EXPECT_TRUE(VX_3Vec(1, 2, 3, 0) == VX_3Vec(1, 2, 3, 100));  // w ignored
    EXPECT_FALSE(VX_2Vec(0, 0) == VX_2Vec(0, 0));
    EXPECT_TRUE(VX_2Vec(1000, 0) == VX_2Vec(1000.5f, 0));
    EXPECT_TRUE(VX_2Vec(1, 0) != VX_2Vec(1.005f, 0));
}

TEST(VX_3Vec, GreatestElemTiesGoToLaterAxis)
{
    struct Case { float x, y, z; int want; };
    const Case cases[] = {{1, 1, 1, 2}, {1, 1, 0, 1}, {-3, 1, 2, 0}, {2, 1, -2, 2}, {1, -2, 2, 2},
                          {5, 5, 1, 1}, {0, 0, 0, 2}, {1, 0, 0, 0}, {0, -5, 1, 1}, {0, 0, -1, 2}};
    for (Case const& c : cases)
        EXPECT_EQ(VX_3Vec(c.x, c.y, c.z, 100).GreatestElem(), c.want) << c.x << "," << c.y << "," << c.z;
}

TEST(VX_3Vec, UnitBoxAndPointConversion)
{
    EXPECT_TRUE(VX_3Vec(0, 0.5f, 1, 50).IsInUnitBox());
    EXPECT_TRUE(VX_3Vec(-0.00009f, 1.00009f, 0, 0).IsInUnitBox());
    EXPECT_FALSE(VX_3Vec(-0.0002f, 0.5f, 0.5f, 0).IsInUnitBox());
    EXPECT_FALSE(VX_3Vec(0.5f, 0.5f, 1.0002f, 0).IsInUnitBox());
    // (int)(v + 0.5) truncates, so negatives do not round to nearest.
    auto point = [](float x, float y) { FWK::Point p = VX_3Vec(x, y, 9, 9); return std::make_pair(p.x, p.y); };
    EXPECT_EQ(point(-0.7f, 0.7f), std::make_pair(0, 1));
    EXPECT_EQ(point(-1.6f, 2.5f), std::make_pair(-1, 3));
}

TEST(VX_3Vec, NormalizeMatchesReciprocalSqrt)
{
    std::mt19937 g(3);
    for (int rep = 0; rep < 200; ++rep) {
        VX_3Vec v = RandomVec(g, 100.0f), n = v;
        double r = 1.0 / std::sqrt((double)v.x * v.x + (double)v.y * v.y + (double)v.z * v.z);
        n.Normalize();
        for (int i = 0; i < 4; ++i) EXPECT_NEAR(n[i], v[i] * r, 1e-6 * std::fabs(v[i] * r) + 1e-12);
    }
    VX_3Vec zero;
    zero.Normalize();  // no guard
    EXPECT_FALSE(std::isfinite(zero.x));
    VX_2Vec v2(-5, 12);
    v2.Normalize();
    EXPECT_NEAR(v2.x, -5.0 / 13, 1e-6);
    EXPECT_NEAR(v2.y, 12.0 / 13, 1e-6);
}

TEST(VX_3Vec, ClipLineNarrowsToInside)
{
    const VX_3Vec plane(0, 0, 1, -5);  // inside: z <= 5
    struct Case { VX_3Vec o, dir; float tmin, tmax; bool ok; float wantMin, wantMax; };
    const Case cases[] = {
        {VX_3Vec(0, 0, 0, 0), VX_3Vec(0, 0, 1, 0), 0, 100, true, 0, 5},
        {VX_3Vec(0, 0, 0, 0), VX_3Vec(0, 0, -1, 0), 0, 100, true, 0, 100},  // enters before tmin
        {VX_3Vec(0, 0, 10, 0), VX_3Vec(0, 0, 1, 0), 0, 100, false, 0, -5},
        {VX_3Vec(0, 0, 10, 0), VX_3Vec(0, 0, -1, 0), -100, 100, true, 5, 100},
        // Parallel: strictly inside keeps the interval; on the plane or outside empties it.
        {VX_3Vec(0, 0, 0, 0), VX_3Vec(2, 0, 0, 0), -1, 1, true, -1, 1},
        {VX_3Vec(3, 4, 5, 0), VX_3Vec(2, 0, 0, 0), -1, 1, false, 2, 1},
        {VX_3Vec(3, 4, 6, 0), VX_3Vec(2, 0, 0, 0), -1, 1, false, 2, 1},
        // Below 1e-10 of the squared cosine a line counts as parallel.
        {VX_3Vec(0, 0, 5, 0), VX_3Vec(1, 0, 1e-6f, 0), -1, 1, false, 2, 1},
        {VX_3Vec(0, 0, 5, 0), VX_3Vec(1, 0, 1e-4f, 0), -1, 1, true, -1, 0},
    };
    for (Case c : cases) {
        EXPECT_EQ(plane.ClipLine(c.o, c.dir, &c.tmin, &c.tmax), c.ok) << c.o.z << " " << c.dir.z;
        EXPECT_FLOAT_EQ(c.tmin, c.wantMin);
        EXPECT_FLOAT_EQ(c.tmax, c.wantMax);
    }
}

TEST(VX_3Vec, PlaneTransformKeepsPlaneValueOfMovedPoints)
{
    std::mt19937 g(5);
    for (int rep = 0; rep < 50; ++rep) {
        VX_Mat M = RandomAffine(g);
        VX_3Vec plane = RandomVec(g), q = RandomVec(g), moved = plane.PlaneTransform(M), q2 = q * M;
        double scale = 1 + VX_Abs(moved) * VX_Abs(q2) + std::fabs(moved.w);
        EXPECT_NEAR(moved * q2 + moved.w, plane * q + plane.w, 1e-5 * scale);
    }
    // The two-argument form trusts the given inverse: identity keeps n, and d' = d - n . t.
    float t[3] = {1, 2, 3};
    VX_Mat scaled = VX_Mat(2.0f).SetTranslation(t);
    ExpectVec(VX_3Vec(1, 1, 2, 4).PlaneTransform(scaled, VX_Mat()), 1, 1, 2, -5, 1e-6);
    ExpectVec(VX_3Vec(0, 0, 1, -5).PlaneTransform(VX_TransMat(t)), 0, 0, 1, -8, 1e-5);  // z <= 8

    VX_CoordSystem cs(VX_RotMat(0.5f, 1) * VX_TransMat(t));
    float eq[4] = {9, 8, 7, 6};
    cs.VX_GetPlaneEq(eq, 1);  // works on a local copy only
    ExpectVec(VX_3Vec(eq), 9, 8, 7, 6);
}

TEST(VX_3Vec, CreateZVecMatIsRightHandedFrame)
{
    // (0,0,2): z = (0,0,1), e = x axis, a = e x z = (0,-1,0), b = z x a = (1,0,0).
    ExpectAffine(VX_3Vec(0, 0, 2, 4).CreateZVecMat(), {{{0, -1, 0}, {1, 0, 0}, {0, 0, 1}, {0, 0, 0}}}, 1e-6);
    // A three-way tie picks axis 2, so e is the x axis again.
    const double s = 1 / std::sqrt(3.0), h = 1 / std::sqrt(2.0);
    ExpectAffine(VX_3Vec(1, 1, 1, 0).CreateZVecMat(),
                 {{{0, -h, h}, {2 * s * h, -s * h, -s * h}, {s, s, s}, {0, 0, 0}}}, 1e-6);

    std::mt19937 g(9);
    for (int rep = 0; rep < 50; ++rep) {
        VX_3Vec v = RandomVec(g);
        VX_Mat M = v.CreateZVecMat();
        VX_3Vec a(M.m[0][0], M.m[0][1], M.m[0][2], 0), b(M.m[1][0], M.m[1][1], M.m[1][2], 0);
        VX_3Vec z = VX_3Vec(0, 0, 1, 0) * M;
        double len = VX_Abs(v);
        ExpectVec(z, v.x / len, v.y / len, v.z / len, 0, 2e-6);
        EXPECT_NEAR(a * a, 1.0, 1e-5);
        EXPECT_NEAR(a * b, 0.0, 1e-5);
        ExpectVec(VX_Cross(a, b), z.x, z.y, z.z, 0, 1e-5);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(M.m[i][3], 0.0f);
        for (int j = 0; j < 3; ++j) EXPECT_EQ(M.m[3][j], 0.0f);
    }
}

TEST(VX_2Vec, MatrixForms)
{
    float t[3] = {5, -6, 100};
    VX_Mat M = VX_RotMat(0.7f, 2) * VX_Mat(2, 3, 4);
    M.SetTranslation(t);
    VX_Mat zRow = M;
    zRow.m[2][0] = 50;  // the z row does not contribute
    VX_2Vec v(1.5f, -2.0f), r = v * zRow;
    ExpectVec(r, 1.5 * M.m[0][0] - 2.0 * M.m[1][0] + 5, 1.5 * M.m[0][1] - 2.0 * M.m[1][1] - 6, 0, 0, 1e-5);
    ExpectVec(r / M, 1.5, -2.0, 0, 0, 1e-5);  // dividing transforms by the inverse
    r /= M;
    ExpectVec(r, 1.5, -2.0, 0, 0, 1e-5);
}

TEST(VX_Mat, ConstructorsWriteZeroColumn3)
{
    float d[4] = {2, 3, 4, 9};
    int di[3] = {5, 6, 7};
    float r0[4] = {1, 2, 3, 9}, r1[4] = {4, 5, 6, 9}, r2[4] = {7, 8, 9, 9}, r3[4] = {10, 11, 12, 9};
    ExpectAffine(VX_Mat(), kIdentity, 0);
    ExpectAffine(VX_CoordSystem(), kIdentity, 0);
    ExpectAffine(VX_Mat(2.0f), {{{2, 0, 0}, {0, 2, 0}, {0, 0, 2}, {0, 0, 0}}}, 0);
    ExpectAffine(VX_Mat(1.0f, 2.0f, 3.0f), {{{1, 0, 0}, {0, 2, 0}, {0, 0, 3}, {0, 0, 0}}}, 0);
    ExpectAffine(VX_Mat(d), {{{2, 0, 0}, {0, 3, 0}, {0, 0, 4}, {0, 0, 0}}}, 0);
    ExpectAffine(VX_Mat(di), {{{5, 0, 0}, {0, 6, 0}, {0, 0, 7}, {0, 0, 0}}}, 0);
    ExpectAffine(VX_Mat(r0, r1, r2, r3), {{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}, {10, 11, 12}}}, 0);
    ExpectAffine(VX_Mat(r0, r1, r2, nullptr), {{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}, {0, 0, 0}}}, 0);
}

TEST(VX_Mat, ProductsAgainstRowVectorRule)
{
    std::mt19937 g(7);
    for (int rep = 0; rep < 20; ++rep) {
        VX_Mat A = RandomAffine(g), B = RandomAffine(g), pa = Poisoned(A), pb = Poisoned(B);
        Rows want = RefProduct(ToRows(A), ToRows(B));
        ExpectAffine(pa * pb, want, 1e-5);
        VX_Mat c = pa, sq = pa, s = pa, about = pa;
        c *= pb;
        ExpectAffine(c, want, 1e-5);
        sq *= sq;  // reads all inputs before writing
        ExpectAffine(sq, RefProduct(ToRows(A), ToRows(A)), 1e-5);
        VX_3Vec v = RandomVec(g), chained = (v * A) * B;
        ExpectVec(v * (A * B), chained.x, chained.y, chained.z, 0, 1e-4);

        Rows scaled = ToRows(A), sum = ToRows(A);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 3; ++j) scaled[i][j] *= 2, sum[i][j] += B.m[i][j];
        s *= 2.0f;
        ExpectAffine(s, scaled, 1e-5);
        VX_Mat added = A + B;
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 3; ++j) EXPECT_NEAR(added.m[i][j], sum[i][j], 1e-6);
        want[3] = ToRows(A)[3];  // MultiplyAboutOrigin keeps the translation
        about.MultiplyAboutOrigin(pb);
        ExpectAffine(about, want, 1e-5);
    }
}

TEST(VX_Mat, InversesAgainstHandValues)
{
    ExpectAffine(VX_Mat().Inv(), kIdentity, 0);
    float t[3] = {1, 2, 3};
    VX_Mat D = VX_Mat(2.0f, 4.0f, 8.0f).SetTranslation(t);
    ExpectAffine(D.Inv(), {{{0.5, 0, 0}, {0, 0.25, 0}, {0, 0, 0.125}, {-0.5, -0.5, -0.375}}}, 1e-7);
    // Shear y' = 2x + y: the inverse subtracts it; translation -(t * Linv).
    float s0[3] = {1, 2, 0}, s1[3] = {0, 1, 0}, s2[3] = {0, 0, 1}, st[3] = {3, 4, 5};
    ExpectAffine(Poisoned(VX_Mat(s0, s1, s2, st)).Inv(), {{{1, -2, 0}, {0, 1, 0}, {0, 0, 1}, {-3, 2, -5}}}, 1e-6);
    EXPECT_FALSE(std::isfinite(VX_Mat(0.0f).Inv().m[0][0]));  // no singularity test
    // Rigid: 90 degrees about z, translation (1, 2, 3).
    VX_Mat R = VX_RotMat((float)M_PI / 2, 2).SetTranslation(t);
    ExpectAffine(R.OrthoInv(), {{{0, -1, 0}, {1, 0, 0}, {0, 0, 1}, {-2, 1, -3}}}, 1e-6);
    // 2D: block [[2, 1], [1, 1]] inverts to [[1, -1], [-1, 2]]; row and column 2 become (0, 0, 1).
    float a0[3] = {2, 1, 7}, a1[3] = {1, 1, 8}, a2[3] = {9, 9, 5}, at[3] = {3, 4, 7};
    ExpectAffine(VX_Mat(a0, a1, a2, at).Inv2D(), {{{1, -1, 0}, {-1, 2, 0}, {0, 0, 1}, {1, -5, 0}}}, 1e-6);

    std::mt19937 g(11);
    for (int rep = 0; rep < 20; ++rep) {
        VX_Mat M = RandomAffine(g);
        ExpectAffine(M * M.Inv(), kIdentity, 1e-4);
        ExpectAffine(M.Inv() * M, kIdentity, 1e-4);
    }
}

TEST(VX_Mat, RotMatElementPlacement)
{
    const float a = 0.3f;
    const double s = std::sin(a), c = std::cos(a);
    ExpectAffine(VX_RotMat(a, 0), {{{1, 0, 0}, {0, c, -s}, {0, s, c}, {0, 0, 0}}}, 1e-7);
    ExpectAffine(VX_RotMat(a, 1), {{{c, 0, -s}, {0, 1, 0}, {s, 0, c}, {0, 0, 0}}}, 1e-7);
    ExpectAffine(VX_RotMat(a, 2), {{{c, s, 0}, {-s, c, 0}, {0, 0, 1}, {0, 0, 0}}}, 1e-7);
    for (int axis : {-1, 3, 5}) ExpectAffine(VX_RotMat(1.234f, axis), kIdentity, 0);
}

TEST(VX_Mat, SmallOperations)
{
    VX_Mat d(1.0f, 1.0f, 1.0f);
    float big[3] = {1e6f, -1e6f, 1e6f};
    d.SetTranslation(big);
    EXPECT_TRUE(d.IsDiagonal());  // translation ignored
    d.m[0][1] = 2.9e-4f;          // 2.9e-4 / 3 < 1e-4
    EXPECT_TRUE(d.IsDiagonal());
    d.m[2][0] = -0.2e-4f;         // 3.1e-4 / 3 > 1e-4
    EXPECT_FALSE(d.IsDiagonal());

    float r0[3] = {1, 2, 3}, r1[3] = {3, 1, 4}, r2[3] = {5, 6, 0};
    VX_Mat m(r0, r1, r2, big);
    EXPECT_NEAR(VX_Det(m), 55.0f, 1e-5);
    EXPECT_EQ(VX_Det2(m), -5.0f);  // m00 m11 - m10 m01

    VX_3Vec pts[3] = {VX_3Vec(1, 5, -2, 7), VX_3Vec(3, -1, 0, 9), VX_3Vec(-4, 2, 8, 11)}, lo, hi;
    VX_BoundingBox(pts, 3, &lo, &hi);
    ExpectVec(lo, -4, -1, -2, 7);  // w stays that of the first point
    ExpectVec(hi, 3, 5, 8, 7);
}

TEST(VX_Rect, UnionAndIntersection)
{
    const VX_Rect r(0, 0, 10, 10);
    for (VX_Rect empty : {VX_Rect(50, 50, 0, 5), VX_Rect(50, 50, 5, 0), VX_Rect(50, 50, -3, 5)}) {
        VX_Rect u = r;
        u |= empty;
        EXPECT_EQ(u, r);
        EXPECT_EQ(r | empty, r);
    }
    VX_Rect e(7, 7, 0, 3);  // an empty this becomes the argument
    e |= VX_Rect(20, 30, 4, 5);
    EXPECT_EQ(e, VX_Rect(20, 30, 4, 5));
    EXPECT_EQ(VX_Rect(1, 1, 5, -1) | VX_Rect(2, 3, 4, 5), VX_Rect(2, 3, 4, 5));
    EXPECT_EQ(r | VX_Rect(-5, 5, 8, 20), VX_Rect(-5, 0, 15, 25));

    VX_Rect i = r, far(20, 5, 10, 10), overlap(5, -5, 10, 10);
    i &= far;  // disjoint: not clamped
    EXPECT_EQ(i, VX_Rect(20, 5, -10, 5));
    i = r;
    i &= overlap;
    EXPECT_EQ(i, VX_Rect(5, 0, 5, 5));
}

TEST(VX_Rect, ScaleDistanceAndRectify)
{
    struct Case { VX_Rect in; float s; VX_Rect want; };
    const Case cases[] = {{VX_Rect(1, 2, 3, 4), 1.5f, VX_Rect(1, 3, 5, 6)},
                          {VX_Rect(3, 0, 7, 10), 0.3f, VX_Rect(1, 0, 2, 3)},   // 0.9 + 0.1 gives 1
                          {VX_Rect(-5, 0, 10, 1), 0.5f, VX_Rect(-2, 0, 4, 0)}};  // trunc(-2.4) = -2
    for (Case c : cases) {
        c.in *= c.s;
        EXPECT_EQ(c.in, c.want) << c.s;
    }
    VX_Rect a(0, 0, 10, 10), right(15, 0, 5, 5), inside(2, 3, 2, 2), left(-10, 20, 4, 4);
    EXPECT_EQ(a.Distance(right), 5);
    EXPECT_EQ(a.Distance(inside), -7);
    EXPECT_EQ(a.Distance(left), 10);

    VX_Rect n(10, 10, -4, 3), m(0, 0, -2, -3);
    n.Rectify();
    m.Rectify();
    EXPECT_EQ(n, VX_Rect(6, 10, 4, 3));
    EXPECT_EQ(m, VX_Rect(-2, -3, 2, 3));
}

TEST(VX_Geometry, PrintedTexts)
{
    EXPECT_EQ(Captured([] { VX_3Vec(1, 2.5f, -3, 0).Print("p"); }), "p (1, 2.5, -3)\n");
    EXPECT_EQ(Captured([] { VX_3Vec(1, 2.5f, -3, 0).Print(); }), "(1, 2.5, -3)\n");
    EXPECT_EQ(Captured([] { VX_3Vec(1, 0, -2, 0.5f).EqDebug(); }), "1 x + 0 y + -2 z + 0.5 <= 0\n");
    EXPECT_EQ(Captured([] { VX_2Vec(1, -0.25f).Print(); }), "VX_2Vec = (1, -0.25)\n");
    EXPECT_EQ(Captured([] { VX_Rect(1, -2, 3, 4).Debug(); }), "VX_Rect: (x,y)=(1,-2),  (w x h)=(3 x 4)\n");
    float t[3] = {-1.5f, 0, 10};
    VX_Mat m = VX_TransMat(t);
    const std::string rows = " 1.000000  0.000000  0.000000 \n"
                             " 0.000000  1.000000  0.000000 \n"
                             " 0.000000  0.000000  1.000000 \n"
                             "-1.500000  0.000000 10.000000 \n"
                             "\n";
    EXPECT_EQ(Captured([&] { m.Print("M"); }), "M\n" + rows);
    EXPECT_EQ(Captured([&] { m.Print(); }), rows);
}

TEST(VX_Transformable, BaseOperationsGoThroughTransform)
{
    struct Recording : VX_Transformable {
        VX_Mat last;
        int calls = 0;
        void Transform(VX_Mat const& m) override { last = m, ++calls; }
    } r;
    float t[3] = {1, 2, 3};
    r.Translate(t);
    ExpectAffine(r.last, {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 2, 3}}}, 0);
    r.Translate(-4, 5, 6);
    ExpectAffine(r.last, {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {-4, 5, 6}}}, 0);
    r.Rotate(0.4f, 1);
    ExpectAffine(r.last, ToRows(VX_RotMat(0.4f, 1)), 0);
    r.Scale(2, 3, 4);
    ExpectAffine(r.last, {{{2, 0, 0}, {0, 3, 0}, {0, 0, 4}, {0, 0, 0}}}, 0);
    r.Scale(5);
    ExpectAffine(r.last, {{{5, 0, 0}, {0, 5, 0}, {0, 0, 5}, {0, 0, 0}}}, 0);
    EXPECT_EQ(r.calls, 5);
}

TEST(VX_ID, StampRulesOfTheFamily)
{
    VX_ID id(0xFFFFFFFFu);
    id.Invalidate();  // wraps
    EXPECT_EQ(id.GetID(), 0u);
    struct Overriding : VX_ID {
        unsigned int GetID() override { return 42; }
    } o;
    id.SetID(&o);  // through the virtual GetID of the source
    EXPECT_EQ(id.GetID(), 42u);

    VX_IDInt i, j;
    auto setInt = [&](int v) { i = v; return i.GetID(); };
    EXPECT_EQ(setInt(5), 1u);
    EXPECT_EQ(setInt(5), 1u);
    EXPECT_EQ(setInt(6), 2u);
    j = i;  // stamp and value, no Invalidate
    EXPECT_EQ(std::make_pair(j.GetID(), (int)j), std::make_pair(2u, 6));

    VX_IDFloat f, g;
    auto setFloat = [](VX_IDFloat& x, float v) { x = v; return x.GetID(); };
    const unsigned int s = setFloat(f, 1.0f);
    const float oneUlp = std::nextafter(1.0f, 2.0f);
    EXPECT_EQ(setFloat(f, oneUlp), s);  // a change of exactly the precision, 2^-23
    EXPECT_EQ((float)f, oneUlp);        // stored anyway
    EXPECT_EQ(setFloat(f, 1.0f + 4.0f / 8388608.0f), s + 1);  // 3 * 2^-23 from the stored value
    f.SetPrecision(0.5f);
    EXPECT_EQ(setFloat(f, 1.4f), s + 1);
    g = f;  // stamp, value and precision
    EXPECT_EQ(setFloat(g, 1.8f), s + 1);
    EXPECT_EQ(setFloat(g, 2.4f), s + 2);

    VX_IDVec v(1, 2, 3, 4), other(5, 6, 7, 8);
    v = VX_3Vec(1, 2, 3, 4);  // equal, still moves
    EXPECT_EQ(v.GetID(), 1u);
    other.SetID(100);
    v = other;  // keeps its own stamp and moves it
    EXPECT_EQ(v.GetID(), 2u);
    ExpectVec(v.Vec(), 5, 6, 7, 8);
}
