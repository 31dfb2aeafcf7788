#ifndef VX_TRANSFORMABLE_H
#define VX_TRANSFORMABLE_H

#include "VX_Mat.h"

// Whatever a VX_Mat can move. A derived class supplies only Transform; the
// other operations call it. Scaling and rotation act about the world origin.
// The destructor is not virtual: derived objects are destroyed as their own type.
class VX_EXPORT VX_Transformable {
public:
    virtual void Transform(VX_Mat const& m) = 0;
    virtual void Translate(float* t);
    virtual void Translate(float x, float y, float z);
    virtual void Rotate(float angle, int axis);
    virtual void Scale(float a, float b, float c);
    virtual void Scale(float s);

protected:
    VX_Transformable() = default;
    VX_Transformable(VX_Transformable const&) = default;
    VX_Transformable& operator=(VX_Transformable const&) = default;
    ~VX_Transformable() = default;
};

#endif
