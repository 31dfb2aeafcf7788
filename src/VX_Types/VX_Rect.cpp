#include "VX_Rect.h"

#include <stdio.h>

void VX_Rect::Transpose()
{
    int t = x; x = y; y = t;
    t = w; w = h; h = t;
}

void VX_Rect::Rectify()
{
    if (w < 0) { w = -w; x -= w; }
    if (h < 0) { h = -h; y -= h; }
}

int VX_Rect::Distance(VX_Rect& o) const
{
    int dx = o.x >= x ? o.x - (x + w) : x - (o.x + o.w);
    int dy = o.y >= y ? o.y - (y + h) : y - (o.y + o.h);
    return dx > dy ? dx : dy;
}

VX_Rect& VX_Rect::operator&=(VX_Rect& o)
{
    int l = x > o.x ? x : o.x;
    int t = y > o.y ? y : o.y;
    int r = x + w < o.x + o.w ? x + w : o.x + o.w;
    int b = y + h < o.y + o.h ? y + h : o.y + o.h;
    x = l; y = t; w = r - l; h = b - t;
    return *this;
}

VX_Rect& VX_Rect::operator|=(VX_Rect const& o)
{
    if (o.w < 1 || o.h < 1) return *this;
    if (w <= 0 || h <= 0) {
        *this = o;
        return *this;
    }
    int l = x < o.x ? x : o.x;
    int t = y < o.y ? y : o.y;
    int r = x + w > o.x + o.w ? x + w : o.x + o.w;
    int b = y + h > o.y + o.h ? y + h : o.y + o.h;
    x = l; y = t; w = r - l; h = b - t;
    return *this;
}

// The products are float; the sum with 0.1 and the truncation double.
VX_Rect& VX_Rect::operator*=(float s)
{
    int nx = (int)((double)((float)x * s) + 0.1);
    int ny = (int)((double)((float)y * s) + 0.1);
    int nr = (int)((double)((float)(x + w) * s) + 0.1);
    int nb = (int)((double)((float)(y + h) * s) + 0.1);
    x = nx; y = ny; w = nr - nx; h = nb - ny;
    return *this;
}

void VX_Rect::Debug() const { printf("VX_Rect: (x,y)=(%d,%d),  (w x h)=(%d x %d)\n", x, y, w, h); }
