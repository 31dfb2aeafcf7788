#ifndef VX_VEC_H
#define VX_VEC_H

#include "VX_Export.h"

// Host framework's point: two signed 32-bit integers.
namespace FWK {
struct Point {
    int x;
    int y;
    Point() : x(0), y(0) {}
    Point(int x_, int y_) : x(x_), y(y_) {}
};
}  // namespace FWK

class VX_Mat;
class VX_3Vec;

// Two floats. The default constructor leaves both unset.
class VX_EXPORT VX_2Vec {
public:
    float x, y;

    VX_2Vec() {}
    VX_2Vec(float x_, float y_) : x(x_), y(y_) {}

    VX_2Vec operator+(VX_2Vec const& o) const { return VX_2Vec(x + o.x, y + o.y); }
    VX_2Vec& operator+=(VX_2Vec const& o) { x += o.x; y += o.y; return *this; }
    VX_2Vec operator-(VX_2Vec const& o) const { return VX_2Vec(x - o.x, y - o.y); }
    VX_2Vec& operator-=(VX_2Vec const& o) { x -= o.x; y -= o.y; return *this; }
    VX_2Vec operator*(float s) const { return VX_2Vec(x * s, y * s); }
    VX_2Vec& operator*=(float s) { x *= s; y *= s; return *this; }
    // Multiplies by the reciprocal, not a true division.
    VX_2Vec operator/(float s) const { float r = 1.0f / s; return VX_2Vec(x * r, y * r); }
    float operator*(VX_2Vec& o) const { return x * o.x + y * o.y; }
    // (x m00 + y m10 + m30, x m01 + y m11 + m31)
    VX_2Vec operator*(VX_Mat& m) const;
    // The same with the matrix's Inv(): dividing by a matrix transforms by its inverse.
    VX_2Vec operator/(VX_Mat& m) const;
    VX_2Vec& operator/=(VX_Mat& m);
    float Size2() const { return x * x + y * y; }
    float Size() const;
    void Normalize();
    bool operator==(VX_2Vec const& o) const;
    bool operator!=(VX_2Vec const& o) const { return !(*this == o); }
    operator VX_3Vec() const;
    operator float*() { return &x; }
    void Print() const;
};

// Four contiguous floats x, y, z, w. For points and directions w is ballast;
// for a plane (a, b, c, d) the inside is a x + b y + c z + d <= 0.
// Storage is not assumed to be 16-byte aligned.
class VX_EXPORT VX_3Vec {
public:
    float x, y, z, w;

    VX_3Vec() : x(0), y(0), z(0), w(0) {}
    VX_3Vec(float x_, float y_, float z_, float w_ = 0) : x(x_), y(y_), z(z_), w(w_) {}
    explicit VX_3Vec(float const* v) : x(v[0]), y(v[1]), z(v[2]), w(v[3]) {}
    VX_3Vec(VX_3Vec const& o) = default;
    // Unit vector along axis i for 0 <= i < 4; the zero vector otherwise.
    explicit VX_3Vec(int i);
    // x, y, z from the matrix's translation row; w is not written.
    explicit VX_3Vec(VX_Mat const& m);
    VX_3Vec& operator=(VX_3Vec const& o) = default;

    float& operator[](int i) { return (&x)[i]; }
    float operator[](int i) const { return (&x)[i]; }
    operator float*() { return &x; }
    operator float const*() const { return &x; }

    VX_3Vec operator+(VX_3Vec const& o) const { return VX_3Vec(x + o.x, y + o.y, z + o.z, w + o.w); }
    VX_3Vec& operator+=(VX_3Vec const& o) { x += o.x; y += o.y; z += o.z; w += o.w; return *this; }
    VX_3Vec& operator-=(VX_3Vec const& o) { x -= o.x; y -= o.y; z -= o.z; w -= o.w; return *this; }
    VX_3Vec operator-() const { return VX_3Vec(0 - x, 0 - y, 0 - z, 0 - w); }
    VX_3Vec& operator*=(float s) { x *= s; y *= s; z *= s; w *= s; return *this; }
    // Multiplies all four by the reciprocal 1.0 / s.
    VX_3Vec& operator/=(float s) { float r = 1.0f / s; return *this *= r; }
    // Dot of x, y, z with three floats.
    float operator*(float const* v) const { return x * v[0] + y * v[1] + z * v[2]; }
    // Full affine transform in place; w is left as it was.
    VX_3Vec& operator*=(VX_Mat const& m);
    // Linear part only, in place; w is left as it was.
    void LinearTransform(VX_Mat const& m);

    float Abs() const;
    float Abs2() const { return x * x + y * y + z * z; }
    void Min(VX_3Vec const& o);
    void Max(VX_3Vec const& o);
    VX_3Vec XYNormal() const { return VX_3Vec(y, -x, 0, 0); }
    // Index of the element of greatest absolute value; a tie goes to the later axis.
    int GreatestElem() const;
    bool IsInUnitBox() const;
    // Relative rule: (|a|^2 + |b|^2) * 1e-5 > |a - b|^2. Two zero vectors are unequal.
    bool operator==(VX_3Vec const& o) const;
    bool operator!=(VX_3Vec const& o) const { return !(*this == o); }
    // (int)(x + 0.5), (int)(y + 0.5), truncating.
    operator FWK::Point() const;
    void Print(char const* title = nullptr) const;
    // Prints the plane as "a x + b y + c z + d <= 0".
    void EqDebug() const;

    // Multiplies all four floats by a refined approximate 1 / |xyz|; no test for zero.
    void Normalize();
    // Narrows [*tmin, *tmax] of origin + t dir to this plane's inside; true while open.
    bool ClipLine(VX_3Vec& origin, VX_3Vec& dir, float* tmin, float* tmax) const;
    // This plane after the points are moved by m.
    VX_3Vec PlaneTransform(VX_Mat const& m) const;
    VX_3Vec PlaneTransform(VX_Mat const& m, VX_Mat const& minv) const;
    // A rotation whose third row is this vector normalised; rows right-handed.
    VX_Mat CreateZVecMat() const;
};

VX_EXPORT VX_3Vec operator-(VX_3Vec const& a, VX_3Vec const& b);
VX_EXPORT VX_3Vec operator*(VX_3Vec const& v, float s);
VX_EXPORT VX_3Vec operator*(float s, VX_3Vec const& v);
VX_EXPORT VX_3Vec operator/(VX_3Vec const& v, float s);
// Dot product of x, y, z.
VX_EXPORT float operator*(VX_3Vec const& a, VX_3Vec const& b);
// Full affine transform; the result's w is 0.
VX_EXPORT VX_3Vec operator*(VX_3Vec const& v, VX_Mat const& m);
// Full affine transform of three floats in place; the fourth is untouched.
VX_EXPORT void VX_Mul(float* v, VX_Mat const& m);
VX_EXPORT float VX_Abs(VX_3Vec const& v);
VX_EXPORT float VX_Abs2(VX_3Vec const& v);
VX_EXPORT VX_3Vec VX_Cross(VX_3Vec const& a, VX_3Vec const& b);
VX_EXPORT VX_3Vec VX_VecAbs(VX_3Vec const& v);

#endif
