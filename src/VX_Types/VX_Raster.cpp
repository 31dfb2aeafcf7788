#include "VX_Raster.h"
#include "VX_BitVol.h"

#include <stdint.h>
#include <string.h>

bool VX_Raster::s0CLIENT = false;

namespace {

inline int bytesPerPixel(int bits) { return (bits + 7) / 8; }

}  // namespace

VX_Raster::VX_Raster()
    : width(0), height(0), bitsPerPixel(0), valueFlag(false), data(nullptr), lineBytes(0),
      interleaved(false), ownsData(false), tag(0), allocation(nullptr)
{
}

VX_Raster::VX_Raster(VX_BitVol* bv) : VX_Raster()
{
    width = bv->GetX();
    height = bv->GetY();
    bitsPerPixel = 1;
    data = bv->GetSliceP(0);
}

VX_Raster::VX_Raster(VX_Raster& o)
{
    *this = o;
    allocation = nullptr;
}

VX_Raster& VX_Raster::operator=(VX_Raster const& o)
{
    if (this == &o) return *this;
    width = o.width;
    height = o.height;
    bitsPerPixel = o.bitsPerPixel;
    valueFlag = o.valueFlag;
    data = o.data;
    lineBytes = o.lineBytes;
    interleaved = o.interleaved;
    ownsData = false;
    tag = o.tag;
    allocation = o.allocation;
    return *this;
}

VX_Raster::~VX_Raster()
{
    if (ownsData) Free();
}

int VX_Raster::GetLineBytes() const
{
    if (lineBytes != 0) return lineBytes;
    if (bitsPerPixel >= 24 && !interleaved) return width;
    if (bitsPerPixel >= 8) return bytesPerPixel(bitsPerPixel) * width;
    if (bitsPerPixel == 1) return ((width + 31) / 32) * 4;
    return -1;
}

int VX_Raster::GetPadding() const
{
    return lineBytes == 0 ? 0 : lineBytes - bytesPerPixel(bitsPerPixel) * width;
}

void VX_Raster::RoundWidth()
{
    if (!s0CLIENT) lineBytes = (bytesPerPixel(bitsPerPixel) * width + 3) & ~3;
}

VX_Raster VX_Raster::GetPlane(int i)
{
    VX_Raster r;
    r = *this;
    if (bitsPerPixel == 24) {
        r.data = static_cast<unsigned char**>(data)[i];
        r.bitsPerPixel = 8;
        r.lineBytes = 0;
        r.interleaved = false;
        r.allocation = nullptr;
    }
    return r;
}

bool VX_Raster::operator==(VX_Raster& o) const
{
    if (lineBytes != o.lineBytes || tag != o.tag || width != o.width || height != o.height ||
        bitsPerPixel != o.bitsPerPixel)
        return false;
    return bitsPerPixel != 24 || interleaved == o.interleaved;
}

// 1 bit: rows of words; planar 24 bits: three planes behind an array of
// pointers; otherwise one block aligned to 16 bytes inside `allocation`.
void VX_Raster::allocateBlock()
{
    if (bitsPerPixel == 1) {
        data = new unsigned char[(size_t)((width + 31) >> 5) * height * 4];
    } else if (bitsPerPixel == 24 && !interleaved) {
        size_t plane = (size_t)(lineBytes ? lineBytes : width) * height;
        unsigned char** planes = new unsigned char*[3];
        for (int i = 0; i < 3; ++i) planes[i] = new unsigned char[plane];
        data = planes;
    } else {
        size_t line = (size_t)(lineBytes ? lineBytes : bytesPerPixel(bitsPerPixel) * width);
        unsigned char* block = new unsigned char[line * height + 16];
        allocation = block;
        data = (void*)(((uintptr_t)block + 15) & ~(uintptr_t)15);
    }
    ownsData = true;
}

void VX_Raster::Allocate()
{
    if (ownsData) Free();
    allocateBlock();
}

void VX_Raster::Free()
{
    if (data) {
        if (bitsPerPixel == 24 && !interleaved) {
            unsigned char** planes = static_cast<unsigned char**>(data);
            for (int i = 0; i < 3; ++i) delete[] planes[i];
            delete[] planes;
        } else if (allocation) {
            delete[] static_cast<unsigned char*>(allocation);
        } else {
            delete[] static_cast<unsigned char*>(data);
        }
    }
    data = nullptr;
    allocation = nullptr;
    ownsData = false;
}

void VX_Raster::Reallocate(int w, int h)
{
    if (w <= width && h <= height) {
        width = w;
        height = h;
        RoundWidth();
        return;
    }
    width = w;
    height = h;
    if (data) Free();
    RoundWidth();
    allocateBlock();
}
