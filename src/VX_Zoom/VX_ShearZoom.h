#ifndef VX_SHEARZOOM_H
#define VX_SHEARZOOM_H

#include "../VX_Types/VX_Mat.h"
#include "../VX_Types/VX_Raster.h"

// The shear zoom family: 2D affine warps of an intermediate image to the
// screen. m maps destination pixels to source pixels (pixel centres at
// half-integers on both sides); each destination row is clipped in advance to
// the pixels whose reads stay inside the source, and the rest of the row gets
// the background. Source coordinates step in 14.18 fixed point.
//
// An RGBA source raster holds four 16-bit elements per pixel and its width
// counts elements, so its width in pixels is width / 4.

// Bilinear, to four bytes per pixel (the high byte of each element's
// interpolation), rows written bottom-up, pixels outside cleared to 0. OpenMP
// over bands of 32 rows in a scattered order. With SSE2, runs of 9 pixels or
// more but their last five take a vector form that stays within one level of
// the scalar rule (its rounding leans low); shorter runs and the last five are
// exact.
// Destination rows are lineBytes apart, else packed.
VX_EXPORT void VX_LinRGBAShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m);
// The same to three bytes per pixel from elements 1, 2 and 3, bands in order.
VX_EXPORT void VX_LinRGBA2RGBShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m);
// As VX_LinRGBA2RGBShearZoom when the image is enlarged; when it shrinks,
// warps to twice the size and halves, four samples per destination pixel, and
// dst takes the halved pixels: all four bytes when it has 32 bits per pixel,
// else the three of elements 1, 2 and 3.
VX_EXPORT void VX_SlowLinRGBAShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m);
// Nearest, to three bytes per pixel (high bytes of elements 0, 1, 2), top-down.
VX_EXPORT void VX_NNRGBAShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m);
// Bilinear on signed 16-bit images of srcSize and dstSize (width, height),
// rows top-down; pixels outside the source get background. The vector form
// (taken when VX_CPU_ID() has its value-1 bit) equals the scalar rule bit for bit.
VX_EXPORT void VX_LinShearZoom(short* src, short* dst, int* srcSize, int* dstSize, VX_Mat m,
                               int background);
// Each byte of dst the mean (a + b + c + d) >> 2 of its 2x2 block in src,
// over dst's width and height; the vector form is exact.
VX_EXPORT void VX_HalfRGBARaster(VX_Raster* src, VX_Raster* dst);

#endif
