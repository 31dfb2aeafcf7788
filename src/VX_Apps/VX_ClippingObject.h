#ifndef VX_CLIPPINGOBJECT_H
#define VX_CLIPPINGOBJECT_H

#include "../VX_Types/VX_ID.h"
#include "../VX_Types/VX_Transformable.h"
#include "VX_Multithread.h"

class VX_ClippingObjectManager;
class VX_ClippingBoundsManager;

// One convex region of physical space that limits what is shown. It cuts the
// per-scanline bounds of a bounds manager down to itself, and narrows a
// parametric line to itself. Its identity is its own stamp plus the manager's
// zoom-and-pan stamp, so every change of the view moves it.
class VX_EXPORT VX_ClippingObject : public VX_Transformable, public VX_ID {
public:
    VX_ClippingObjectManager* com;   // the owning manager; null until added
    bool active;                     // only active objects clip
    bool screenAnchored;             // coordinates of the screen-fixed virtual frame

    // Stamp 0, no manager, inactive, screen-anchored; with other, its manager
    // and flags (the stamp stays 0).
    explicit VX_ClippingObject(VX_ClippingObject* other = nullptr);
    VX_ClippingObject(VX_ClippingObject const& o);
    VX_ClippingObject& operator=(VX_ClippingObject const& o);
    ~VX_ClippingObject() override;

    // Cuts the manager's current bounds array down to this region; false when
    // interrupted.
    virtual bool UpdateClippingBounds(VX_ClippingBoundsManager* bm) = 0;
    // Narrows point + t * dir to the region through *t0, *t1; false when the
    // line misses. The base form always fails.
    virtual bool LineIntersect(VX_3Vec* point, VX_3Vec* dir, float* t0, float* t1);
    // A new object of the kind built from this one; the caller owns it.
    virtual VX_ClippingObject* Clone() = 0;
    // The virtual frame moved by m: invalidates and returns true.
    virtual bool InvalidateIfNecessary(VX_Mat const& m);

    // The own stamp plus the manager's zoom-and-pan stamp.
    unsigned int GetID() override;

    bool IsActive() const { return active; }
    // On a change, tells the manager (its stamp moves; see the manager).
    void SetActive(bool a);
    bool IsScreenAnchored() const { return screenAnchored; }
    void SetCOM(VX_ClippingObjectManager* m) { com = m; }
};

// The half-space a x + b y + c z + d <= 0.
class VX_EXPORT VX_ClippingPlane : public VX_ClippingObject {
public:
    VX_3Vec plane;   // a, b, c, d

    // (0, 0, -1, 0), or other's plane.
    explicit VX_ClippingPlane(VX_ClippingPlane* other = nullptr);
    ~VX_ClippingPlane() override;

    void Transform(VX_Mat const& m) override;
    bool UpdateClippingBounds(VX_ClippingBoundsManager* bm) override;
    bool LineIntersect(VX_3Vec* point, VX_3Vec* dir, float* t0, float* t1) override;
    VX_ClippingObject* Clone() override;
    // Invalidates only when the plane really moved under m.
    bool InvalidateIfNecessary(VX_Mat const& m) override;

    // Stored as given, not normalised; the stamp stays.
    void SetPlane(VX_3Vec p) { plane = p; }
    VX_3Vec GetPlane() const { return plane; }
};

// The space between two parallel planes: |a x + b y + c z + d| <= thickness / 2
// for the normalised plane. Never screen-anchored in effect; line queries fail.
class VX_EXPORT VX_ClippingSlab : public VX_ClippingObject {
public:
    VX_3Vec plane;
    float thickness;

    // Plane zero, thickness unset (a clone must be set again).
    explicit VX_ClippingSlab(VX_ClippingSlab* other = nullptr);
    ~VX_ClippingSlab() override;

    void Transform(VX_Mat const& m) override;
    bool UpdateClippingBounds(VX_ClippingBoundsManager* bm) override;
    VX_ClippingObject* Clone() override;

    // Stored normalised; the stamp stays.
    void SetPlane(VX_3Vec p);
    void SetThickness(float t) { thickness = t; }
    VX_3Vec GetPlane() const { return plane; }
    float GetThickness() const { return thickness; }
};

// A sphere in physical space, not screen-anchored.
class VX_EXPORT VX_ClippingSphere : public VX_ClippingObject {
public:
    VX_3Vec center;
    VX_IDFloat radius;
    VX_Multithread multithread;   // polled for interrupts while the bounds are cut

    // Zero centre, radius unset; with other, its centre and radius.
    explicit VX_ClippingSphere(VX_ClippingSphere* other = nullptr);
    ~VX_ClippingSphere() override;

    void Transform(VX_Mat const& m) override;
    // False when interrupted (the remaining slices are left as they were).
    bool UpdateClippingBounds(VX_ClippingBoundsManager* bm) override;
    bool LineIntersect(VX_3Vec* point, VX_3Vec* dir, float* t0, float* t1) override;
    VX_ClippingObject* Clone() override;

    // A move of squared length 0.01 or less is ignored; otherwise invalidates.
    void SetCenter(VX_3Vec c);
    // A change of 0.1 or less is ignored; otherwise invalidates.
    void SetRadius(float r);
    VX_3Vec GetCenter() const { return center; }
    VX_IDFloat* GetRadius() { return &radius; }
};

#endif
