#include "VX_Vec.h"

#include <math.h>
#include <stdio.h>
#if defined(__SSE__)
#include <xmmintrin.h>
#endif

#include "VX_Mat.h"

namespace {

// One hardware approximate reciprocal square root refined by a Newton step:
// r = r0 * (s * r0 * r0 - 3) * -0.5.
inline float refinedRsqrt(float s)
{
#if defined(__SSE__)
    float r0 = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(s)));
#else
    float r0 = 1.0f / sqrtf(s);
#endif
    return r0 * (s * r0 * r0 - 3.0f) * -0.5f;
}

// Relative equality: (|a|^2 + |b|^2) * 1e-5 > |a - b|^2; sums in float,
// product and comparison in double. Two zero vectors are unequal.
inline bool relativeEqual(float a2, float b2, float d2)
{
    return (double)(a2 + b2) * 1e-5 > (double)d2;
}

}  // namespace

// ---- VX_2Vec ----

VX_2Vec VX_2Vec::operator*(VX_Mat& m) const
{
    return VX_2Vec(x * m.m[0][0] + y * m.m[1][0] + m.m[3][0], x * m.m[0][1] + y * m.m[1][1] + m.m[3][1]);
}

VX_2Vec VX_2Vec::operator/(VX_Mat& m) const
{
    VX_Mat inv = m.Inv();
    return *this * inv;
}

VX_2Vec& VX_2Vec::operator/=(VX_Mat& m)
{
    *this = *this / m;
    return *this;
}

float VX_2Vec::Size() const { return sqrtf(Size2()); }

void VX_2Vec::Normalize()
{
    float r = refinedRsqrt(x * x + y * y);
    x *= r;
    y *= r;
}

bool VX_2Vec::operator==(VX_2Vec const& o) const
{
    float dx = x - o.x, dy = y - o.y;
    return relativeEqual(x * x + y * y, o.x * o.x + o.y * o.y, dx * dx + dy * dy);
}

VX_2Vec::operator VX_3Vec() const { return VX_3Vec(x, y, 0, 0); }

void VX_2Vec::Print() const { printf("VX_2Vec = (%g, %g)\n", x, y); }

// ---- VX_3Vec ----

VX_3Vec::VX_3Vec(int i) : x(0), y(0), z(0), w(0)
{
    if (i >= 0 && i < 4) (&x)[i] = 1.0f;
}

VX_3Vec::VX_3Vec(VX_Mat const& m) : x(m.m[3][0]), y(m.m[3][1]), z(m.m[3][2]) {}

VX_3Vec& VX_3Vec::operator*=(VX_Mat const& m)
{
    VX_Mul(&x, m);
    return *this;
}

void VX_3Vec::LinearTransform(VX_Mat const& m)
{
    float a = x, b = y, c = z;
    x = a * m.m[0][0] + b * m.m[1][0] + c * m.m[2][0];
    y = a * m.m[0][1] + b * m.m[1][1] + c * m.m[2][1];
    z = a * m.m[0][2] + b * m.m[1][2] + c * m.m[2][2];
}

float VX_3Vec::Abs() const { return sqrtf(Abs2()); }

void VX_3Vec::Min(VX_3Vec const& o)
{
    if (o.x < x) x = o.x;
    if (o.y < y) y = o.y;
    if (o.z < z) z = o.z;
}

void VX_3Vec::Max(VX_3Vec const& o)
{
    if (o.x > x) x = o.x;
    if (o.y > y) y = o.y;
    if (o.z > z) z = o.z;
}

int VX_3Vec::GreatestElem() const
{
    float ax = fabsf(x), ay = fabsf(y), az = fabsf(z);
    if (ax > ay) return ax > az ? 0 : 2;
    return ay > az ? 1 : 2;
}

bool VX_3Vec::IsInUnitBox() const
{
    const float lo = -0.0001f, hi = 1.0001f;
    return x >= lo && x <= hi && y >= lo && y <= hi && z >= lo && z <= hi;
}

bool VX_3Vec::operator==(VX_3Vec const& o) const
{
    VX_3Vec d = *this - o;
    return relativeEqual(Abs2(), o.Abs2(), d.Abs2());
}

VX_3Vec::operator FWK::Point() const { return FWK::Point((int)(x + 0.5f), (int)(y + 0.5f)); }

void VX_3Vec::Print(char const* title) const
{
    if (title)
        printf("%s (%g, %g, %g)\n", title, x, y, z);
    else
        printf("(%g, %g, %g)\n", x, y, z);
}

void VX_3Vec::EqDebug() const { printf("%g x + %g y + %g z + %g <= 0\n", x, y, z, w); }

void VX_3Vec::Normalize()
{
    float r = refinedRsqrt(x * x + y * y + z * z);
    x *= r;
    y *= r;
    z *= r;
    w *= r;
}

bool VX_3Vec::ClipLine(VX_3Vec& origin, VX_3Vec& dir, float* tmin, float* tmax) const
{
    float dn = x * dir.x + y * dir.y + z * dir.z;
    float ratio = dn * dn / (dir.Abs2() * Abs2());
    if (1e-10 > (double)ratio) {
        float e = x * origin.x + y * origin.y + z * origin.z + w;
        if (0 > e) return true;
        *tmin = 1.0f + *tmax;
        return false;
    }
    float t = (-w - (x * origin.x + y * origin.y + z * origin.z)) / dn;
    if (dn > 0) {
        if (t < *tmax) *tmax = t;
    } else {
        if (t > *tmin) *tmin = t;
    }
    return *tmax > *tmin;
}

VX_3Vec VX_3Vec::PlaneTransform(VX_Mat const& m) const { return PlaneTransform(m, m.Inv()); }

VX_3Vec VX_3Vec::PlaneTransform(VX_Mat const& m, VX_Mat const& minv) const
{
    VX_Mat t = minv.Transpose();
    VX_3Vec n(x, y, z, 0);
    n.LinearTransform(t);
    float d = w - (n.x * m.m[3][0] + n.y * m.m[3][1] + n.z * m.m[3][2]);
    return VX_3Vec(n.x, n.y, n.z, d);
}

VX_Mat VX_3Vec::CreateZVecMat() const
{
    VX_3Vec zv(*this);
    zv.Normalize();
    VX_3Vec e((zv.GreatestElem() + 1) % 3);
    VX_3Vec a = VX_Cross(e, zv);
    a.Normalize();
    VX_3Vec b = VX_Cross(zv, a);
    VX_Mat r;
    for (int j = 0; j < 3; ++j) {
        r.m[0][j] = a[j];
        r.m[1][j] = b[j];
        r.m[2][j] = zv[j];
    }
    return r;
}

// ---- free functions ----

VX_3Vec operator-(VX_3Vec const& a, VX_3Vec const& b) { return VX_3Vec(a.x - b.x, a.y - b.y, a.z - b.z, a.w - b.w); }
VX_3Vec operator*(VX_3Vec const& v, float s) { return VX_3Vec(v.x * s, v.y * s, v.z * s, v.w * s); }
VX_3Vec operator*(float s, VX_3Vec const& v) { return v * s; }
VX_3Vec operator/(VX_3Vec const& v, float s) { return v * (1.0f / s); }
float operator*(VX_3Vec const& a, VX_3Vec const& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

VX_3Vec operator*(VX_3Vec const& v, VX_Mat const& m)
{
    VX_3Vec r(v.x, v.y, v.z, 0);
    VX_Mul(&r.x, m);
    return r;
}

// r[j] = x m[0][j] + y m[1][j] + z m[2][j] + m[3][j]; inputs read first.
void VX_Mul(float* v, VX_Mat const& m)
{
    float a = v[0], b = v[1], c = v[2];
    v[0] = a * m.m[0][0] + b * m.m[1][0] + c * m.m[2][0] + m.m[3][0];
    v[1] = a * m.m[0][1] + b * m.m[1][1] + c * m.m[2][1] + m.m[3][1];
    v[2] = a * m.m[0][2] + b * m.m[1][2] + c * m.m[2][2] + m.m[3][2];
}

float VX_Abs(VX_3Vec const& v) { return v.Abs(); }
float VX_Abs2(VX_3Vec const& v) { return v.Abs2(); }

VX_3Vec VX_Cross(VX_3Vec const& a, VX_3Vec const& b)
{
    return VX_3Vec(a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x, 0);
}

VX_3Vec VX_VecAbs(VX_3Vec const& v) { return VX_3Vec(fabsf(v.x), fabsf(v.y), fabsf(v.z), 0); }
