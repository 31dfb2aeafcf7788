#include "VX_ClippingObjectManager.h"

#include <math.h>

#include <algorithm>

#include "../VX_Types/VX_RealBitVol.h"

namespace {

// The range of a line query before any object narrows it, along the unit direction.
constexpr float kFarT = 1000000.0f;
// A new physical-to-virtual matrix whose columns 0-2 differ from the old one
// by at most this (sum of absolute differences) moves no object.
constexpr float kFrameTolerance = 0.001f;

// Truncation toward zero of a value held first to +-1e9 (NaN to -1e9); the
// callers clamp to the grid afterwards.
inline int truncWide(float t)
{
    if (!(t > -1e9f)) return -1000000000;
    if (t > 1e9f) return 1000000000;
    return (int)t;
}

}  // namespace

VX_ClippingObjectManager::VX_ClippingObjectManager(bool createStandardObjects) : VX_ID(), zoomPanID(), physicalToVirtual()
{
    if (createStandardObjects) {
        clippingSphere.reset(new VX_ClippingSphere());
        clippingPlane.reset(new VX_ClippingPlane());
        AddClippingObject(clippingSphere);
        AddClippingObject(clippingPlane);
    }
}

// Objects that outlive their manager no longer point at it.
VX_ClippingObjectManager::~VX_ClippingObjectManager()
{
    for (auto& o : objects)
        if (o->com == this) o->com = nullptr;
}

unsigned int VX_ClippingObjectManager::GetID()
{
    unsigned int v = id;
    for (auto& o : objects)
        if (o->IsActive()) v += o->GetID();
    return v;
}

void VX_ClippingObjectManager::AddClippingObject(boost::shared_ptr<VX_ClippingObject> o)
{
    if (!o) return;
    o->SetCOM(this);
    objects.push_back(o);
}

bool VX_ClippingObjectManager::IsClippingSphereActive() const { return clippingSphere && clippingSphere->IsActive(); }

bool VX_ClippingObjectManager::IsClippingPlaneActive() const { return clippingPlane && clippingPlane->IsActive(); }

bool VX_ClippingObjectManager::ActiveObjects() const
{
    for (auto const& o : objects)
        if (o->IsActive()) return true;
    return false;
}

// The stamp moves by 1; an object leaving the sum of GetID pays its identity
// into the stamp, so the sum never moves back to an earlier value.
void VX_ClippingObjectManager::ElementActivityChanged(VX_ClippingObject* o)
{
    id += 1;
    if (!o->IsActive()) id += o->GetID();
}

void VX_ClippingObjectManager::SetPhysicalToVirtual(VX_Mat m)
{
    float change = 0;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) change += fabsf(physicalToVirtual.m[i][j] - m.m[i][j]);
    if (change > kFrameTolerance) {
        VX_Mat d = physicalToVirtual.Inv() * m;
        for (auto& o : objects)
            if (o->IsActive() && o->IsScreenAnchored()) o->InvalidateIfNecessary(d);
    }
    physicalToVirtual = m;
}

// The objects work on the unit direction u = dir / |dir|; the result is turned
// back into parameters along dir. Screen-anchored objects see the line in the
// virtual frame.
bool VX_ClippingObjectManager::LineIntersect(VX_3Vec* point, VX_3Vec* dir, float* t0, float* t1, bool reset)
{
    // VX_3Vec::Normalize scales w by the same refined 1 / |xyz|: with w = 1 it
    // hands that factor back unchanged.
    VX_3Vec n(dir->x, dir->y, dir->z, 1.0f);
    n.Normalize();
    float r = n.w;
    VX_3Vec u = *dir * r;

    float lo, hi;
    if (reset) {
        lo = -kFarT;
        hi = kFarT;
    } else {
        lo = *t0;
        hi = *t1;
    }
    for (auto& o : objects) {
        if (!o->IsActive()) continue;
        float a = -kFarT, b = kFarT;
        bool hit;
        if (!o->IsScreenAnchored()) {
            hit = o->LineIntersect(point, &u, &a, &b);
        } else {
            VX_3Vec p = *point * physicalToVirtual;
            VX_3Vec v = u;
            v.LinearTransform(physicalToVirtual);
            hit = o->LineIntersect(&p, &v, &a, &b);
        }
        if (!hit) return false;
        lo = std::max(a, lo);
        hi = std::min(b, hi);
        if (hi < lo) return false;
    }
    *t0 = lo * r;
    *t1 = hi * r;
    return true;
}

// Each row y of slice z is the line (0, y, z) + t (1, 0, 0) in grid
// coordinates; its voxels trunc(t0) .. trunc(t1), held to the grid, are set.
VX_RealBitVol* VX_ClippingObjectManager::CreateRealBitVol(VX_Box* box)
{
    if (!ActiveObjects()) return nullptr;
    VX_RealBitVol* bv = new VX_RealBitVol(box);
    bv->Clear();
    VX_Mat m = box->GetIntToPhysTrans();
    VX_3Vec dir(0);
    dir.LinearTransform(m);
    int nx = box->GetX(), ny = box->GetY(), nz = box->GetZ();
    for (int z = 0; z < nz; ++z) {
#pragma omp parallel for schedule(static)
        for (int y = 0; y < ny; ++y) {
            VX_3Vec point = VX_3Vec(0.0f, (float)y, (float)z) * m;
            float t0 = 0, t1 = 0;
            if (!LineIntersect(&point, &dir, &t0, &t1, true)) continue;
            int a = std::max(truncWide(t0), 0);
            int b = std::min(truncWide(t1), nx - 1);
            if (a <= b) bv->SetLineOn(a, y, z, b);
        }
    }
    return bv;
}

VX_ClippingObjectManager* VX_ClippingObjectManager::Clone()
{
    VX_ClippingObjectManager* c = new VX_ClippingObjectManager(false);
    for (auto& o : objects) c->AddClippingObject(boost::shared_ptr<VX_ClippingObject>(o->Clone()));
    return c;
}
