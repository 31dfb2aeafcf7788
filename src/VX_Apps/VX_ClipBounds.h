#ifndef VX_CLIPBOUNDS_H
#define VX_CLIPBOUNDS_H

#include "../VX_Types/VX_Export.h"

// Scanline bounds: one (left, right) pair of signed 16-bit values per row,
// inclusive; a row with left > right is empty, and right = -1 empties a row.
//
// Clips such an array of `height` rows by the line a x + b y + d <= 0 in pixel
// coordinates, keeping the inside. With reset every row first becomes
// (0, width - 1). The array form reads (a, b, ?, d) from plane[0], [1], [3]; a
// line parallel to the image (a^2 + b^2 < 1e-10) empties every row when d > 0
// and keeps them otherwise.
VX_EXPORT void VX_ClipBounds(short* bounds, int width, int height, float* plane, bool reset);
VX_EXPORT void VX_ClipBounds(short* bounds, int width, int height, float a, float b, float d,
                             bool reset);

#endif
