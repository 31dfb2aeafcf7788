#ifndef VX_CLIPPINGBOUNDSMANAGER_H
#define VX_CLIPPINGBOUNDSMANAGER_H

#include "../VX_Types/VX_Box.h"
#include "../VX_Types/VX_ID.h"

class VX_ClippingObjectManager;

// Turns the active clipping objects into per-scanline bounds for the inner
// loops, for both arrangements of a volume (normal, and x-y transposed).
//
// A bounds array describes the box of its arrangement (nx, ny, nz): ny * nz
// pairs of signed 16-bit (first, last), inclusive, the pair of scanline (y, z)
// at element 2 * (z * ny + y). A fresh array has (0, nx - 1) everywhere; a
// removed row has last = -1; values may lie outside 0..nx - 1 (within
// -22222..22222) and readers clamp them. A null array means no clipping.
// The manager owns both arrays: new short[], freed with delete[].
class VX_EXPORT VX_ClippingBoundsManager {
public:
    VX_Box box;                  // the volume's box, normal arrangement
    bool transposed;             // which arrangement is current
    bool saveMemory;             // keep only what a change of arrangement needs
    short* bounds[2];            // [0] transposed arrangement, [1] normal
    VX_ID boundsID[2];           // the manager identity each array was made for
    VX_ClippingObjectManager* objectManager;   // not owned

    // Prints "4: this = %p, contruction\n".
    VX_ClippingBoundsManager();
    // Copies share the arrays: only one may be destroyed with them in place.
    VX_ClippingBoundsManager(VX_ClippingBoundsManager const& o) = default;
    VX_ClippingBoundsManager& operator=(VX_ClippingBoundsManager const& o) = default;
    ~VX_ClippingBoundsManager();

    void SetBox(VX_Box b) { box = b; }
    // box, transposed in x and y when the transposed arrangement is current.
    VX_Box GetBox();
    void SetClippingObjectManager(VX_ClippingObjectManager* m) { objectManager = m; }
    VX_ClippingObjectManager* GetClippingObjectManager() { return objectManager; }
    void SetSaveMemoryMode(bool s) { saveMemory = s; }
    void SetTransposed(bool t);
    bool GetTransposed() const { return transposed; }
    // The array of the current arrangement. update false: as it stands (for the
    // clipping objects while it is made). update true: brought up to date with
    // the object manager, by transposing the other arrangement's array when
    // that one is current, else by recalculating; null when nothing clips or
    // the calculation was interrupted.
    short* GetCBounds(bool update);

protected:
    bool CalcCBounds();
    bool TransposeCBounds();
};

#endif
