#include "VX_Transformable.h"

void VX_Transformable::Translate(float* t) { Translate(t[0], t[1], t[2]); }

void VX_Transformable::Translate(float x, float y, float z)
{
    VX_Mat m;
    m.m[3][0] += x;
    m.m[3][1] += y;
    m.m[3][2] += z;
    Transform(m);
}

void VX_Transformable::Rotate(float angle, int axis) { Transform(VX_RotMat(angle, axis)); }
void VX_Transformable::Scale(float a, float b, float c) { Transform(VX_Mat(a, b, c)); }
void VX_Transformable::Scale(float s) { Transform(VX_Mat(s, s, s)); }
