#include "VX_ClippingObject.h"

#include <math.h>

#include <atomic>
#include <vector>

#include "../VX_Types/VX_Box.h"
#include "VX_ClippingBoundsManager.h"
#include "VX_ClippingObjectManager.h"

namespace {

// Bounds stay within +-22222 so that they fit 16 bits for planes almost
// parallel to the scanlines and spheres far outside the box.
constexpr int kBoundLimit = 22222;
// Below this |a| of the normalised plane the plane is parallel to the scanlines.
constexpr float kParallelA = 0.0001f;
// The slice order of the sphere: slice (kSliceStride * i) mod nz for index i.
constexpr long long kSliceStride = 7919;
// Call-site code of the sphere's interrupt poll.
constexpr int kSphereInterruptCode = 0x345;

// Truncation toward zero of a value first held to +-1e9 (NaN to -1e9), so that
// the conversion to int is always defined; every caller then clamps to
// kBoundLimit or to the grid, so the hold never changes a result.
inline int truncWide(float t)
{
    if (!(t > -1e9f)) return -1000000000;
    if (t > 1e9f) return 1000000000;
    return (int)t;
}

inline int clampBound(int v)
{
    if (v > kBoundLimit) return kBoundLimit;
    if (v < -kBoundLimit) return -kBoundLimit;
    return v;
}

// Cuts the bounds of box (ny * nz pairs, scanline (y, z) at pair z * ny + y)
// down to the physical half-space a x + b y + c z + d <= 0. In voxel indices
// and normalised, a row's limit is trunc(t) with
// t = -(d + 0.5 + (z + 0.5) c + 0.5 b) / a - y b / a (stepped along y);
// a < 0 keeps x >= limit, a > 0 keeps x <= limit. A plane parallel to the
// scanlines (|a| < 0.0001) removes the rows whose centre line is outside.
void cutHalfSpace(VX_Box const& box, short* bounds, VX_3Vec const& plane)
{
    VX_3Vec p = plane.PlaneTransform(box.GetPhysToIntTrans());
    p.Normalize();
    float a = p.x, b = p.y, c = p.z, d = p.w;
    int ny = box.GetY(), nz = box.GetZ();
    if (fabsf(a) >= kParallelA) {
        float i = 1.0f / a;
        for (int z = 0; z < nz; ++z) {
            float fz = z + 0.5f;
            float t = (0 - (d + 0.5f + fz * c + b * 0.5f)) * i;
            short* row = bounds + 2 * (size_t)z * ny;
            for (int y = 0; y < ny; ++y, row += 2) {
                int limit = truncWide(t);
                if (a < 0) {
                    if (limit > kBoundLimit - 1) limit = kBoundLimit;
                    if (limit > row[0]) row[0] = (short)limit;
                } else {
                    if (limit < -kBoundLimit) limit = -kBoundLimit;
                    if (limit < row[1]) row[1] = (short)limit;
                }
                t -= b * i;
            }
        }
        return;
    }
    for (int z = 0; z < nz; ++z) {
        float fz = z + 0.5f;
        short* row = bounds + 2 * (size_t)z * ny;
        for (int y = 0; y < ny; ++y, row += 2) {
            float fy = y + 0.5f;
            float v = fz * c + d + fy * b;
            if (v > 0) row[1] = -1;
        }
    }
}

}  // namespace

// ---- VX_ClippingObject ----

VX_ClippingObject::VX_ClippingObject(VX_ClippingObject* other)
    : VX_Transformable(), VX_ID(), com(nullptr), active(false), screenAnchored(true)
{
    if (other) {
        com = other->com;
        active = other->active;
        screenAnchored = other->screenAnchored;
    }
}

VX_ClippingObject::VX_ClippingObject(VX_ClippingObject const& o)
    : VX_Transformable(o), VX_ID(o), com(o.com), active(o.active), screenAnchored(o.screenAnchored)
{
}

VX_ClippingObject& VX_ClippingObject::operator=(VX_ClippingObject const& o)
{
    VX_Transformable::operator=(o);
    VX_ID::operator=(o);
    com = o.com;
    active = o.active;
    screenAnchored = o.screenAnchored;
    return *this;
}

VX_ClippingObject::~VX_ClippingObject() {}

bool VX_ClippingObject::LineIntersect(VX_3Vec*, VX_3Vec*, float*, float*) { return false; }

bool VX_ClippingObject::InvalidateIfNecessary(VX_Mat const&)
{
    Invalidate();
    return true;
}

unsigned int VX_ClippingObject::GetID()
{
    unsigned int v = id;
    if (com) v += com->GetZoomPanID();
    return v;
}

void VX_ClippingObject::SetActive(bool a)
{
    if (a == active) return;
    active = a;
    if (com) com->ElementActivityChanged(this);
}

// ---- VX_ClippingPlane ----

VX_ClippingPlane::VX_ClippingPlane(VX_ClippingPlane* other) : VX_ClippingObject(other), plane(0, 0, -1, 0)
{
    if (other) plane = other->plane;
}

VX_ClippingPlane::~VX_ClippingPlane() {}

void VX_ClippingPlane::Transform(VX_Mat const& m) { plane = plane.PlaneTransform(m); }

bool VX_ClippingPlane::UpdateClippingBounds(VX_ClippingBoundsManager* bm)
{
    VX_Box box = bm->GetBox();
    short* bounds = bm->GetCBounds(false);
    if (!bounds) return true;
    VX_ClippingObjectManager* m = com ? com : bm->GetClippingObjectManager();
    // Compare with the volume as it now stands in the screen-fixed frame.
    if (screenAnchored && m) box.Transform(m->GetPhysicalToVirtual());
    cutHalfSpace(box, bounds, plane);
    return true;
}

// A line nearly parallel to the plane (|q| < 0.001) is wholly in or out.
bool VX_ClippingPlane::LineIntersect(VX_3Vec* point, VX_3Vec* dir, float* t0, float* t1)
{
    float p = point->x * plane.x + point->y * plane.y + point->z * plane.z;
    float q = dir->x * plane.x + dir->y * plane.y + dir->z * plane.z;
    if (fabsf(q) < 0.001f) return p + plane.w <= 0.001f;
    float t = (0 - plane.w - p) / q;
    if (q > 0) {
        if (t < *t1) *t1 = t;
    } else {
        if (t > *t0) *t0 = t;
    }
    return true;
}

VX_ClippingObject* VX_ClippingPlane::Clone() { return new VX_ClippingPlane(this); }

// Both planes normalised; a move of the normal by more than 1e-6 (squared) or
// of the offset by more than 0.01 counts.
bool VX_ClippingPlane::InvalidateIfNecessary(VX_Mat const& m)
{
    VX_3Vec p0 = plane;
    p0.Normalize();
    VX_3Vec p1 = p0.PlaneTransform(m);
    p1.Normalize();
    VX_3Vec diff = p1 - p0;
    if (diff.x * diff.x + diff.y * diff.y + diff.z * diff.z > 1e-06f || fabsf(diff.w) > 0.01f) {
        Invalidate();
        return true;
    }
    return false;
}

// ---- VX_ClippingSlab ----

VX_ClippingSlab::VX_ClippingSlab(VX_ClippingSlab* other) : VX_ClippingObject(other), plane(), thickness(0) {}

VX_ClippingSlab::~VX_ClippingSlab() {}

void VX_ClippingSlab::Transform(VX_Mat const& m) { plane = plane.PlaneTransform(m); }

void VX_ClippingSlab::SetPlane(VX_3Vec p)
{
    plane = p;
    plane.Normalize();
}

// Two half-spaces: plane - h <= 0 and -(plane + h) <= 0, h = thickness / 2.
// The slab is cut in physical coordinates whatever screenAnchored says.
bool VX_ClippingSlab::UpdateClippingBounds(VX_ClippingBoundsManager* bm)
{
    VX_Box box = bm->GetBox();
    short* bounds = bm->GetCBounds(false);
    if (!bounds) return true;
    float h = thickness * 0.5f;
    cutHalfSpace(box, bounds, VX_3Vec(plane.x, plane.y, plane.z, plane.w - h));
    cutHalfSpace(box, bounds, VX_3Vec(-plane.x, -plane.y, -plane.z, -(plane.w + h)));
    return true;
}

VX_ClippingObject* VX_ClippingSlab::Clone() { return new VX_ClippingSlab(this); }

// ---- VX_ClippingSphere ----

VX_ClippingSphere::VX_ClippingSphere(VX_ClippingSphere* other) : VX_ClippingObject(other), center(), radius(), multithread()
{
    if (other) {
        center = other->center;
        radius = other->radius;
    }
    screenAnchored = false;
}

VX_ClippingSphere::~VX_ClippingSphere() {}

void VX_ClippingSphere::Transform(VX_Mat const& m) { center *= m; }

// The threshold is the float 0.1f * 0.1f = 0.0100000007.
void VX_ClippingSphere::SetCenter(VX_3Vec c)
{
    const float kMinMove2 = 0.1f * 0.1f;
    float dx = c.x - center.x, dy = c.y - center.y, dz = c.z - center.z;
    if (dx * dx + dy * dy + dz * dz > kMinMove2) {
        Invalidate();
        center = c;
    }
}

void VX_ClippingSphere::SetRadius(float r)
{
    if (fabsf(r - radius.value) > 0.1f) {
        Invalidate();
        radius = r;
    }
}

// In the frame of dir (rows of CreateZVecMat), the offset (u, v, w) of point
// from the centre gives the chord t = -w -+ sqrt(r^2 - u^2 - v^2). dir must be
// a unit vector. The range is replaced, not narrowed.
bool VX_ClippingSphere::LineIntersect(VX_3Vec* point, VX_3Vec* dir, float* t0, float* t1)
{
    VX_3Vec q = (*point - center) * dir->CreateZVecMat().Transpose();
    float r = radius.value;
    float e = r * r - q.x * q.x - q.y * q.y;
    if (e < 0) return false;
    float s = sqrtf(e);
    *t0 = 0 - q.z - s;
    *t1 = s - q.z;
    return true;
}

VX_ClippingObject* VX_ClippingSphere::Clone() { return new VX_ClippingSphere(this); }

// In voxel indices the sphere is the ellipsoid dG d' <= R^2, d = (x - cx, v, w)
// measured from the centre in voxel centres, G = IntToPhys * transpose. For a
// row that is Gxx dx^2 + B dx + C <= 0 with discriminant D; the row keeps
// trunc(m - s) .. trunc(m + s), m = cx - B / 2Gxx, s = sqrt(D) / 2Gxx, or
// nothing when D < 0. Slices go in the scattered order (7919 i) mod nz.
bool VX_ClippingSphere::UpdateClippingBounds(VX_ClippingBoundsManager* bm)
{
    VX_Box box = bm->GetBox();
    short* bounds = bm->GetCBounds(false);
    if (!bounds) return true;
    int ny = box.GetY(), nz = box.GetZ();
    VX_3Vec c = center * box.GetPhysToIntTrans() - VX_3Vec(0.5f, 0.5f, 0.5f);
    VX_Mat itp = box.GetIntToPhysTrans();
    VX_Mat g = itp * itp.Transpose();
    const float gxx = g.m[0][0], gxy = g.m[0][1], gxz = g.m[0][2];
    const float gyy = g.m[1][1], gyz = g.m[1][2], gzz = g.m[2][2];
    const float r = radius.value;
    const float twoGxx = 2 * gxx;

    // Per row: 2 Gxy v, 4 Gxx v, (Gyy v^2 - R^2) 4 Gxx.
    std::vector<float> table(3 * (size_t)ny);
    for (int y = 0; y < ny; ++y) {
        float v = y - c.y;
        table[3 * y] = 2 * gxy * v;
        table[3 * y + 1] = 4 * gxx * v;
        table[3 * y + 2] = (gyy * v * v - r * r) * 4 * gxx;
    }
    const float* tab = table.data();

    std::atomic<bool> go{true};
#pragma omp parallel for schedule(static)
    for (int i = 0; i < nz; ++i) {
        if (multithread.InterruptRequest(kSphereInterruptCode)) go.store(false, std::memory_order_relaxed);
        if (!go.load(std::memory_order_relaxed)) continue;
        int z = (int)(kSliceStride * i % nz);
        float w = z - c.z;
        float e = 2 * gxz * w;
        float g4 = 4 * gxx * gzz * w * w;
        short* row = bounds + 2 * (size_t)z * ny;
        for (int y = 0; y < ny; ++y, row += 2) {
            const float* t = tab + 3 * y;
            float B = t[0] + e;
            float D = B * B - g4 - t[1] * w * 2 * gyz - t[2];
            if (D >= 0) {
                float m = c.x - B / twoGxx;
                float s = sqrtf(D) / twoGxx;
                int lo = clampBound(truncWide(m - s));
                int hi = clampBound(truncWide(m + s));
                if (lo > row[0]) row[0] = (short)lo;
                if (hi < row[1]) row[1] = (short)hi;
            } else {
                row[1] = -1;
            }
        }
    }
    return go.load();
}
