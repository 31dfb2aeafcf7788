#include "VX_ClipBounds.h"

#include <math.h>

namespace {

// Truncation toward zero, held inside the 16-bit range of a bound so that a
// line far outside the image cannot wrap around into it.
inline int truncBound(double v)
{
    if (v > 32767.0) return 32767;
    if (!(v >= -32768.0)) return -32768;   // NaN too, from a degenerate line
    return (int)v;
}

inline void resetRows(short* bounds, int width, int height)
{
    for (int j = 0; j < height; ++j) {
        bounds[2 * j] = 0;
        bounds[2 * j + 1] = (short)(width - 1);
    }
}

inline void emptyRows(short* bounds, int from, int to)
{
    for (int j = from; j <= to; ++j) bounds[2 * j + 1] = -1;
}

}  // namespace

void VX_ClipBounds(short* bounds, int width, int height, float* plane, bool reset)
{
    if (reset) resetRows(bounds, width, height);
    float a = plane[0], b = plane[1];
    if (a * a + b * b < 1e-10f) {
        if (plane[3] > 0) emptyRows(bounds, 0, height - 1);
        return;
    }
    VX_ClipBounds(bounds, width, height, a, b, plane[3], false);
}

// Keeps the pixels whose centres lie inside a x + b y + d <= 0: horizontal and
// vertical lines cut whole rows or one column; otherwise each row gets its
// crossing c = trunc((j + 0.5) * s + X0 + 0.5), s = -b / a, X0 = -d / a.
void VX_ClipBounds(short* bounds, int width, int height, float a, float b, float d, bool reset)
{
    if (reset) resetRows(bounds, width, height);
    float n = sqrtf(a * a + b * b);
    a /= n;
    b /= n;
    d /= n;

    if (fabsf(a) < 1e-6f) {
        float y0 = -d / b;
        int r = truncBound((b > 0 ? 1 : 0) + 0.5 + (double)y0) - 1;
        if (r >= height && b < 0) r = height - 1;
        if (r < 0 && b > 0) r = 0;
        if (b < 0) {
            if (r >= 0) emptyRows(bounds, 0, r);
        } else if (r < height) {
            emptyRows(bounds, r, height - 1);
        }
        return;
    }

    if (fabsf(b) < 1e-6f) {
        double x0 = -(double)d / (double)a;
        if (a * b > 0) {
            double corr = (double)height * fabsf(b);
            x0 += a < 0 ? corr : -corr;
        }
        int c = truncBound(x0 - 0.5) + (a < 0 ? 1 : 0);
        if (c > 32767) c = 32767;
        for (int j = 0; j < height; ++j) {
            short* row = bounds + 2 * j;
            if (a < 0) {
                if (c > row[0]) row[0] = (short)c;
            } else {
                if (c < row[1]) row[1] = (short)c;
            }
        }
        return;
    }

    float X0 = -d / a;
    float Y0 = -d / b;
    float YW = (-a * width - d) / b;
    float XH = (-b * height - d) / a;
    float top = (X0 >= 0 && X0 <= width) ? 0.0f : (Y0 < YW ? Y0 : YW);
    float bottom = (XH >= 0 && XH <= width) ? (float)height : (Y0 > YW ? Y0 : YW);
    if (bottom < 0 || top > height) {
        if (a * width + b * height + 2 * d > 0) emptyRows(bounds, 0, height - 1);
        return;
    }

    float s = -b / a;
    for (int j = 0; j < height; ++j) {
        short* row = bounds + 2 * j;
        int c = truncBound((j + 0.5) * s + X0 + 0.5);
        if (a > 0) {
            if (c - 1 >= 0) {
                if (c - 1 < row[1]) row[1] = (short)(c - 1);
            } else {
                row[1] = -1;
            }
        } else {
            if (c <= width) {
                if (c > row[0]) row[0] = (short)c;
            } else {
                row[1] = -1;
            }
        }
    }
}
