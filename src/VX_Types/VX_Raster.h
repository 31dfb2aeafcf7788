#ifndef VX_RASTER_H
#define VX_RASTER_H

#include "VX_Export.h"

class VX_BitVol;

// A 2D image. Pixel (x, y) lies at byte y * GetLineBytes() + x * bytesPerPixel
// from data, line 0 first. A planar 24-bit raster's data is an array of three
// 8-bit plane pointers; a 1-bit raster has rows of 32-bit words. Blocks of 8 or
// more bits per pixel are 16-byte aligned. Copies are shallow and never own.
class VX_EXPORT VX_Raster {
public:
    int width;
    int height;
    int bitsPerPixel;    // 1, 8, 16, 24 or 32
    bool valueFlag;      // carried by copies; read by the 16-bit linear zoom
    void* data;
    int lineBytes;       // row stride in bytes; 0 means packed rows
    bool interleaved;    // 24 or more bits: interleaved channels (true) or planar
    bool ownsData;
    int tag;             // a caller's value, carried and compared, never interpreted
    void* allocation;    // the allocator's address when data is aligned inside it

    // When set, RoundWidth and Reallocate leave lineBytes alone.
    static bool s0CLIENT;

    VX_Raster();
    VX_Raster(VX_Raster& o);
    // A 1-bit view of the first slice of a bit volume: its width and height,
    // data its slice 0 (not owned), everything else zero.
    VX_Raster(VX_BitVol* bv);
    VX_Raster& operator=(VX_Raster const& o);
    ~VX_Raster();

    int GetLineBytes() const;
    int GetSize() const { return GetLineBytes() * height; }
    int GetPadding() const;
    void RoundWidth();
    int GetLastLineOffset() const { return (height - 1) * width; }
    int GetLastLineByteOffset() const { return (height - 1) * GetLineBytes(); }
    // Plane i of a 24-bit planar raster as an 8-bit raster; otherwise a shallow copy.
    VX_Raster GetPlane(int i);
    bool operator==(VX_Raster& o) const;
    bool operator!=(VX_Raster& o) const { return !(*this == o); }

    // Allocates for the current width, height and depth; pixels are not cleared.
    void Allocate();
    // Frees data whatever ownsData says; only for rasters that allocated it.
    void Free();
    // Keeps the block when it is no larger; otherwise reallocates.
    void Reallocate(int w, int h);

private:
    void allocateBlock();
};

#endif
