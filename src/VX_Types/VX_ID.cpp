#include "VX_ID.h"

#include <math.h>

VX_IDFloat& VX_IDFloat::operator=(float v)
{
    if (fabsf(v - value) > precision) Invalidate();
    value = v;
    return *this;
}
