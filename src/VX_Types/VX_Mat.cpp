#include "VX_Mat.h"

#include <math.h>
#include <stdio.h>

namespace {

inline void zeroColumn3(VX_Mat& a)
{
    a.m[0][3] = a.m[1][3] = a.m[2][3] = a.m[3][3] = 0;
}

inline void setDiag(VX_Mat& a, float x, float y, float z)
{
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) a.m[i][j] = 0;
    a.m[0][0] = x;
    a.m[1][1] = y;
    a.m[2][2] = z;
}

}  // namespace

VX_Mat::VX_Mat() { setDiag(*this, 1, 1, 1); }
VX_Mat::VX_Mat(float s) { setDiag(*this, s, s, s); }
VX_Mat::VX_Mat(float a, float b, float c) { setDiag(*this, a, b, c); }
VX_Mat::VX_Mat(float* v) { setDiag(*this, v[0], v[1], v[2]); }
VX_Mat::VX_Mat(int* v) { setDiag(*this, (float)v[0], (float)v[1], (float)v[2]); }

VX_Mat::VX_Mat(float* r0, float* r1, float* r2, float* r3)
{
    float* rows[3] = {r0, r1, r2};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] = rows[i][j];
    for (int j = 0; j < 3; ++j) m[3][j] = r3 ? r3[j] : 0.0f;
    zeroColumn3(*this);
}

// Linear part A * B; translation tA * linear(B) + tB. Inputs are read first.
VX_Mat operator*(VX_Mat const& a, VX_Mat const& b)
{
    VX_Mat r;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j)
            r.m[i][j] = a.m[i][0] * b.m[0][j] + a.m[i][1] * b.m[1][j] + a.m[i][2] * b.m[2][j];
    for (int j = 0; j < 3; ++j) r.m[3][j] += b.m[3][j];
    zeroColumn3(r);
    return r;
}

VX_Mat& VX_Mat::operator*=(VX_Mat const& b)
{
    *this = *this * b;
    return *this;
}

VX_Mat& VX_Mat::operator*=(float s)
{
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] *= s;
    zeroColumn3(*this);
    return *this;
}

VX_Mat operator*(VX_Mat const& a, float s)
{
    VX_Mat r(a);
    r *= s;
    return r;
}

VX_Mat& VX_Mat::operator+=(VX_Mat const& b)
{
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] += b.m[i][j];
    return *this;
}

VX_Mat operator+(VX_Mat const& a, VX_Mat const& b)
{
    VX_Mat r(a);
    r += b;
    return r;
}

void VX_Mat::MultiplyAboutOrigin(VX_Mat& b)
{
    VX_Mat a(*this);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            m[i][j] = a.m[i][0] * b.m[0][j] + a.m[i][1] * b.m[1][j] + a.m[i][2] * b.m[2][j];
    zeroColumn3(*this);
}

VX_Mat VX_Mat::Linear() const
{
    VX_Mat r(*this);
    return r.ResetTranslation();
}

VX_Mat VX_Mat::Transpose() const
{
    VX_Mat r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r.m[i][j] = m[j][i];
    return r;
}

VX_Mat VX_Mat::Inv() const
{
    // Adjugate of the linear part scaled by one reciprocal of the determinant.
    VX_MatLine const* a = m;
    VX_Mat r;
    r.m[0][0] = a[1][1] * a[2][2] - a[1][2] * a[2][1];
    r.m[0][1] = a[0][2] * a[2][1] - a[0][1] * a[2][2];
    r.m[0][2] = a[0][1] * a[1][2] - a[0][2] * a[1][1];
    r.m[1][0] = a[1][2] * a[2][0] - a[1][0] * a[2][2];
    r.m[1][1] = a[0][0] * a[2][2] - a[0][2] * a[2][0];
    r.m[1][2] = a[0][2] * a[1][0] - a[0][0] * a[1][2];
    r.m[2][0] = a[1][0] * a[2][1] - a[1][1] * a[2][0];
    r.m[2][1] = a[0][1] * a[2][0] - a[0][0] * a[2][1];
    r.m[2][2] = a[0][0] * a[1][1] - a[0][1] * a[1][0];
    float det = a[0][0] * r.m[0][0] + a[1][0] * r.m[0][1] + a[2][0] * r.m[0][2];
    float d = 1.0f / det;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r.m[i][j] *= d;
    for (int j = 0; j < 3; ++j)
        r.m[3][j] = -(a[3][0] * r.m[0][j] + a[3][1] * r.m[1][j] + a[3][2] * r.m[2][j]);
    zeroColumn3(r);
    return r;
}

VX_Mat VX_Mat::OrthoInv() const
{
    VX_Mat r = Transpose();
    for (int j = 0; j < 3; ++j)
        r.m[3][j] = -(m[3][0] * r.m[0][j] + m[3][1] * r.m[1][j] + m[3][2] * r.m[2][j]);
    return r;
}

VX_Mat VX_Mat::Inv2D() const
{
    VX_Mat r;
    float d = 1.0f / (m[0][0] * m[1][1] - m[0][1] * m[1][0]);
    r.m[0][0] = m[1][1] * d;
    r.m[0][1] = -m[0][1] * d;
    r.m[1][0] = -m[1][0] * d;
    r.m[1][1] = m[0][0] * d;
    float tx = m[3][0], ty = m[3][1];
    r.m[3][0] = -tx * r.m[0][0] - ty * r.m[1][0];
    r.m[3][1] = -tx * r.m[0][1] - ty * r.m[1][1];
    r.m[3][2] = 0;
    return r;
}

bool VX_Mat::IsDiagonal() const
{
    double off = 0, diag = 0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            (i == j ? diag : off) += fabs((double)m[i][j]);
    return off / diag < 0.0001;
}

VX_Mat& VX_Mat::AddTranslation(float* t)
{
    for (int j = 0; j < 3; ++j) m[3][j] += t[j];
    return *this;
}

VX_Mat& VX_Mat::SetTranslation(float* t)
{
    for (int j = 0; j < 3; ++j) m[3][j] = t[j];
    return *this;
}

VX_Mat& VX_Mat::ResetTranslation()
{
    m[3][0] = m[3][1] = m[3][2] = 0;
    return *this;
}

void VX_Mat::Print(char const* title) const
{
    if (title) printf("%s\n", title);
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 3; ++j) printf("%9.6f ", m[i][j]);
        printf("\n");
    }
    printf("\n");
}

float VX_Det(VX_Mat& a)
{
    VX_MatLine const* m = a.m;
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[1][0] * (m[0][1] * m[2][2] - m[0][2] * m[2][1]) +
           m[2][0] * (m[0][1] * m[1][2] - m[0][2] * m[1][1]);
}

float VX_Det2(VX_Mat& a) { return a.m[0][0] * a.m[1][1] - a.m[1][0] * a.m[0][1]; }

VX_Mat VX_TransMat(float* t)
{
    VX_Mat r;
    return r.AddTranslation(t);
}

VX_Mat VX_RotMat(float angle, int axis)
{
    VX_Mat r;
    float s = sinf(angle), c = cosf(angle);
    switch (axis) {
    case 0:
        r.m[1][1] = c; r.m[1][2] = -s; r.m[2][1] = s; r.m[2][2] = c;
        break;
    case 1:
        r.m[0][0] = c; r.m[0][2] = -s; r.m[2][0] = s; r.m[2][2] = c;
        break;
    case 2:
        r.m[0][0] = c; r.m[0][1] = s; r.m[1][0] = -s; r.m[1][1] = c;
        break;
    default:
        break;
    }
    return r;
}

VX_Mat VX_OutProd(float const* a, float const* b)
{
    VX_Mat r(0.0f);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r.m[i][j] = a[i] * b[j];
    return r;
}

void VX_BoundingBox(VX_3Vec* points, int n, VX_3Vec* min, VX_3Vec* max)
{
    *min = points[0];
    *max = points[0];
    for (int i = 1; i < n; ++i) {
        min->Min(points[i]);
        max->Max(points[i]);
    }
}

void VX_CoordSystem::VX_GetPlaneEq(float* plane, int axis)
{
    VX_3Vec p(plane);
    p = VX_3Vec(axis);
    p = p.PlaneTransform(*this);
    (void)p;
}
