#ifndef VX_MAT_H
#define VX_MAT_H

#include "VX_Vec.h"

// One matrix row: four floats.
class VX_EXPORT VX_MatLine {
public:
    float f[4];
    float& operator[](int i) { return f[i]; }
    float operator[](int i) const { return f[i]; }
};

// An affine transform of row vectors, v' = v * M, stored row by row.
// Rows 0-2, columns 0-2 are the linear part; row 3 is the translation.
// Column 3 is always 0, m[3][3] included: every constructor and product writes
// 0 there and nothing reads it. A * B applies A first, then B.
class VX_EXPORT VX_Mat {
public:
    VX_MatLine m[4];

    // Identity linear part, zero translation.
    VX_Mat();
    // Linear part diag(s, s, s).
    explicit VX_Mat(float s);
    VX_Mat(float a, float b, float c);
    explicit VX_Mat(float* v);
    explicit VX_Mat(int* v);
    // Rows 0-2 from the first three floats of each; row 3 from r3 or zero when null.
    VX_Mat(float* r0, float* r1, float* r2, float* r3);
    ~VX_Mat() {}

    VX_MatLine& operator[](int i) { return m[i]; }
    VX_MatLine const& operator[](int i) const { return m[i]; }

    VX_Mat& operator*=(VX_Mat const& b);
    VX_Mat& operator*=(float s);
    VX_Mat& operator+=(VX_Mat const& b);
    // Linear part = linear(this) * linear(b); translation untouched.
    void MultiplyAboutOrigin(VX_Mat& b);
    VX_Mat Linear() const;
    // 3 by 3 transpose with zero translation.
    VX_Mat Transpose() const;
    // Full affine inverse by cofactors; no test for singularity.
    VX_Mat Inv() const;
    // Inverse of a rigid transform.
    VX_Mat OrthoInv() const;
    // Inverse of the 2D part; m[2][2] = 1.
    VX_Mat Inv2D() const;
    bool IsDiagonal() const;
    VX_Mat& AddTranslation(float* t);
    VX_Mat& SetTranslation(float* t);
    VX_Mat& ResetTranslation();
    void Print(char const* title = nullptr) const;
};

VX_EXPORT VX_Mat operator*(VX_Mat const& a, VX_Mat const& b);
VX_EXPORT VX_Mat operator*(VX_Mat const& a, float s);
VX_EXPORT VX_Mat operator+(VX_Mat const& a, VX_Mat const& b);

// 3 by 3 determinant of the linear part, expanded along column 0.
VX_EXPORT float VX_Det(VX_Mat& m);
VX_EXPORT float VX_Det2(VX_Mat& m);
VX_EXPORT VX_Mat VX_TransMat(float* t);
// Rotation by angle (radians) about axis 0, 1 or 2; any other axis gives the identity.
// Axis 2: x' = x c - y s, y' = x s + y c. Axis 0: y' = y c + z s, z' = -y s + z c.
// Axis 1: x' = x c + z s, z' = -x s + z c.
VX_EXPORT VX_Mat VX_RotMat(float angle, int axis);
// Linear part m[i][j] = a[i] * b[j].
VX_EXPORT VX_Mat VX_OutProd(float const* a, float const* b);
// n >= 1; min and max start as full copies of points[0].
VX_EXPORT void VX_BoundingBox(VX_3Vec* points, int n, VX_3Vec* min, VX_3Vec* max);

class VX_EXPORT VX_CoordSystem : public VX_Mat {
public:
    VX_CoordSystem() : VX_Mat() {}
    VX_CoordSystem(VX_Mat const& o) : VX_Mat(o) {}
    // Computes the plane of axis `axis` moved by this system into a local copy;
    // the caller's array is left unchanged.
    void VX_GetPlaneEq(float* plane, int axis);
};

#endif
