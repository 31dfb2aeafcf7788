#ifndef VX_RECT_H
#define VX_RECT_H

#include "VX_Export.h"

// A corner and a size in pixels, covering x <= px < x + w, y <= py < y + h.
// An empty or negative size is legal; all zero means empty.
class VX_EXPORT VX_Rect {
public:
    int x, y, w, h;

    VX_Rect() : x(0), y(0), w(0), h(0) {}
    VX_Rect(int x_, int y_, int w_, int h_) : x(x_), y(y_), w(w_), h(h_) {}

    bool operator==(VX_Rect const& o) const { return x == o.x && y == o.y && w == o.w && h == o.h; }
    bool operator!=(VX_Rect const& o) const { return !(*this == o); }
    bool PointInRect(int px, int py) const { return px >= x && px < x + w && py >= y && py < y + h; }
    void Offset(int dx, int dy) { x += dx; y += dy; }
    void Transpose();
    void FlipX(int W) { x = W - (x + w); }
    void FlipY(int H) { y = H - (y + h); }
    // A negative size becomes positive and the corner moves down by it.
    void Rectify();
    // The greater of the gaps on x and y; negative when the two overlap on both.
    int Distance(VX_Rect& o) const;
    // Intersection; the size is not clamped and may go negative.
    VX_Rect& operator&=(VX_Rect& o);
    // Union: an argument with w < 1 or h < 1 changes nothing; an empty this
    // becomes a copy of the argument.
    VX_Rect& operator|=(VX_Rect const& o);
    VX_Rect operator|(VX_Rect const& o) const { VX_Rect r(*this); r |= o; return r; }
    // Scales the corners: x' = trunc(x s + 0.1), w' = trunc((x + w) s + 0.1) - x'.
    VX_Rect& operator*=(float s);
    void Debug() const;
};

#endif
