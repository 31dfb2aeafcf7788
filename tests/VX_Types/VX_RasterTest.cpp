#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <tuple>

#include "VX.h"

namespace {

class VX_RasterTest : public testing::Test {
protected:
    void TearDown() override { VX_Raster::s0CLIENT = false; }  // process-wide

    static void Shape(VX_Raster& r, int bpp, int w, int h, bool interleaved)
    {
        r.bitsPerPixel = bpp, r.width = w, r.height = h, r.interleaved = interleaved;
    }

    // Writes every byte the raster claims; AddressSanitizer reports any overrun.
    static void TouchAll(VX_Raster& r) { std::memset(r.data, 0x5A, (size_t)r.GetSize()); }

    static bool Aligned16(void const* p) { return reinterpret_cast<std::uintptr_t>(p) % 16 == 0; }
};

}  // namespace

TEST_F(VX_RasterTest, LineBytesAndRounding)
{
    VX_Raster r;
    EXPECT_EQ(r.GetLineBytes(), -1);  // depth 0 is neither 1 nor 8 or more
    EXPECT_EQ(r.GetSize(), 0);
    EXPECT_EQ(r.GetPadding(), 0);

    // want: GetLineBytes() with lineBytes 0; rounded: lineBytes after RoundWidth().
    struct Case { int bpp; bool interleaved; int width; int want; int rounded; };
    const Case cases[] = {{3, false, 5, -1, 8},   {1, false, 33, 8, 36},  {1, false, 32, 4, 32},
                          {8, false, 5, 5, 8},    {8, false, 4, 4, 4},    {16, false, 5, 10, 12},
                          {24, true, 5, 15, 16},  {24, false, 5, 5, 16},  {32, false, 5, 5, 20},
                          {32, true, 3, 12, 12},  {16, false, 1, 2, 4}};
    for (Case const& c : cases) {
        VX_Raster t;
        Shape(t, c.bpp, c.width, 3, c.interleaved);
        EXPECT_EQ(t.GetLineBytes(), c.want) << c.bpp << " bits, width " << c.width;
        EXPECT_EQ(t.GetSize(), c.want * 3);
        t.RoundWidth();
        EXPECT_EQ(t.lineBytes, c.rounded) << c.bpp << " bits, width " << c.width;
    }
    Shape(r, 24, 5, 3, true);
    r.RoundWidth();
    EXPECT_EQ(r.GetPadding(), 1);
    EXPECT_EQ(r.GetLastLineByteOffset(), 32);
    EXPECT_EQ(r.GetLastLineOffset(), 10);

    VX_Raster::s0CLIENT = true;
    VX_Raster c;
    Shape(c, 8, 5, 2, false);
    c.RoundWidth();
    EXPECT_EQ(c.lineBytes, 0);
}

TEST_F(VX_RasterTest, AllocateAlignsEveryDepth)
{
    for (int bpp : {8, 16, 24, 32})
        for (int w = 1; w <= 7; ++w)
            for (bool round : {false, true}) {
                VX_Raster r;
                Shape(r, bpp, w, 3, true);
                if (round) r.RoundWidth();
                r.Allocate();
                EXPECT_TRUE(Aligned16(r.data)) << bpp << " bits, width " << w;
                EXPECT_NE(r.allocation, nullptr);
                EXPECT_TRUE(r.ownsData);
                TouchAll(r);
                r.Allocate();  // frees the first block
                TouchAll(r);
            }
    VX_Raster bits;
    Shape(bits, 1, 33, 3, false);
    bits.Allocate();
    EXPECT_EQ(bits.allocation, nullptr);  // the block is data itself
    EXPECT_TRUE(bits.ownsData);
    TouchAll(bits);
}

TEST_F(VX_RasterTest, PlanarAllocationAndPlanes)
{
    for (bool round : {false, true}) {
        VX_Raster r;
        Shape(r, 24, 5, 3, false);
        if (round) r.RoundWidth();  // 16-byte plane lines
        r.Allocate();
        EXPECT_TRUE(r.ownsData);
        unsigned char** planes = static_cast<unsigned char**>(r.data);
        for (int i = 0; i < 3; ++i) std::memset(planes[i], i, (size_t)r.GetSize());
        for (int i = 0; i < 3; ++i) {
            VX_Raster p = r.GetPlane(i);
            EXPECT_EQ(p.data, planes[i]);
            EXPECT_EQ(std::make_tuple(p.bitsPerPixel, p.lineBytes, p.ownsData, p.GetSize()),
                      std::make_tuple(8, 0, false, 15));
            EXPECT_EQ(static_cast<unsigned char*>(p.data)[14], i);  // planes are separate
        }
    }
}

TEST_F(VX_RasterTest, ReallocateKeepsBlockOnlyWhenNotLarger)
{
    VX_Raster r;
    Shape(r, 16, 10, 10, false);
    r.RoundWidth();
    r.Allocate();
    void* block = r.data;
    r.Reallocate(5, 5);
    EXPECT_EQ(r.data, block);
    EXPECT_EQ(r.lineBytes, 12);
    r.Reallocate(8, 5);  // fits the old block, but the width has shrunk to 5
    EXPECT_EQ(r.lineBytes, 16);
    EXPECT_TRUE(Aligned16(r.data));
    EXPECT_TRUE(r.ownsData);
    TouchAll(r);
    r.Reallocate(9, 20);
    EXPECT_EQ(r.lineBytes, 20);
    TouchAll(r);

    VX_Raster::s0CLIENT = true;
    VX_Raster c;
    Shape(c, 16, 6, 6, false);
    c.Allocate();
    c.Reallocate(4, 4);
    c.Reallocate(20, 20);
    EXPECT_EQ(c.lineBytes, 0);
    EXPECT_TRUE(c.ownsData);
    TouchAll(c);
}

TEST_F(VX_RasterTest, CopiesShareWithoutOwning)
{
    VX_Raster r;
    Shape(r, 8, 4, 2, false);
    r.tag = 7;
    r.valueFlag = true;
    r.Allocate();
    {
        VX_Raster c(r), a;
        a = r;
        for (VX_Raster* copy : {&c, &a}) {
            EXPECT_EQ(copy->data, r.data);
            EXPECT_FALSE(copy->ownsData);
            EXPECT_EQ(copy->tag, 7);
            EXPECT_TRUE(copy->valueFlag);
        }
        EXPECT_EQ(c.allocation, nullptr);
        VX_Raster flat = r.GetPlane(2);  // not planar: a plain shallow copy
        EXPECT_EQ(flat.data, r.data);
        EXPECT_FALSE(flat.ownsData);
    }
    EXPECT_TRUE(r.ownsData);
    TouchAll(r);  // still alive after the copies went
}

TEST_F(VX_RasterTest, EqualityComparesShapeNotPixels)
{
    char p1 = 0, p2 = 0;
    VX_Raster a, b;
    Shape(a, 16, 5, 3, false);
    Shape(b, 16, 5, 3, true);  // interleaving only counts at 24 bits
    a.data = &p1, b.data = &p2;
    EXPECT_TRUE(a == b);
    b.tag = 1;
    EXPECT_TRUE(a != b);
    b.tag = 0, b.lineBytes = 12;
    EXPECT_TRUE(a != b);
    b.lineBytes = 0, a.bitsPerPixel = b.bitsPerPixel = 24;
    EXPECT_TRUE(a != b);
    a.interleaved = true;
    EXPECT_TRUE(a == b);
}
