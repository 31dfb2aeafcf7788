#ifndef VX_CLIPPINGOBJECTMANAGER_H
#define VX_CLIPPINGOBJECTMANAGER_H

#include <list>

#include <boost/shared_ptr.hpp>

#include "../VX_Types/VX_Box.h"
#include "VX_ClippingObject.h"

class VX_RealBitVol;

// The clipping objects of one view, in order of addition. Its identity is its
// own stamp plus the identity of every active object, so a cached result can
// tell whether clipping changed. It also holds the matrix from physical space
// to the screen-fixed virtual frame of screen-anchored objects.
class VX_EXPORT VX_ClippingObjectManager : public VX_ID {
public:
    std::list<boost::shared_ptr<VX_ClippingObject>> objects;
    VX_ID zoomPanID;                                      // moved by the caller on zoom or pan
    boost::shared_ptr<VX_ClippingSphere> clippingSphere;  // the standard sphere, or empty
    boost::shared_ptr<VX_ClippingPlane> clippingPlane;    // the standard plane, or empty
    VX_Mat physicalToVirtual;                             // identity after construction

    // With createStandardObjects, an inactive sphere and plane are made and
    // added, sphere first.
    explicit VX_ClippingObjectManager(bool createStandardObjects);
    ~VX_ClippingObjectManager() override;

    // Own stamp plus GetID() of every active object, wrapping.
    unsigned int GetID() override;
    // Narrows point + t * dir to every active object; the range is held for
    // the unit direction (reset: from -1e6 to 1e6) and returned as parameters
    // along dir. False when an object misses or the range empties.
    virtual bool LineIntersect(VX_3Vec* point, VX_3Vec* dir, float* t0, float* t1, bool reset);

    // Sets the object's manager to this and appends it.
    void AddClippingObject(boost::shared_ptr<VX_ClippingObject> o);
    boost::shared_ptr<VX_ClippingSphere> GetClippingSphere() { return clippingSphere; }
    boost::shared_ptr<VX_ClippingPlane> GetClippingPlane() { return clippingPlane; }
    bool IsClippingSphereActive() const;
    bool IsClippingPlaneActive() const;
    // True when any listed object is active.
    bool ActiveObjects() const;
    // Called by an object whose active flag changed: the stamp moves by 1, and
    // by the object's identity when it has just become inactive.
    void ElementActivityChanged(VX_ClippingObject* o);
    unsigned int GetZoomPanID() { return zoomPanID.GetID(); }
    void SetZoomPanID(unsigned int v) { zoomPanID.SetID(v); }
    VX_Mat GetPhysicalToVirtual() const { return physicalToVirtual; }
    // Stores m; when it differs noticeably from the old matrix, the active
    // screen-anchored objects are told how the frame moved.
    void SetPhysicalToVirtual(VX_Mat m);
    // The active region as a mask on box, or null when nothing is active. The
    // caller owns it.
    VX_RealBitVol* CreateRealBitVol(VX_Box* box);
    // A new manager holding clones of the objects in order (no standard
    // pointers, matrix or stamps carried over). The caller owns it.
    VX_ClippingObjectManager* Clone();
};

#endif
