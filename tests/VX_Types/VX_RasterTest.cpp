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
    // want: GetLineBytes() with lineBytes 0; rounded: lineBytes after RoundWidth().
    struct Case { int bpp; bool interleaved; int width; int want; int rounded; };
    const Case cases[] = {{3, false, 5, -1, 8},  {1, false, 33, 8, 36}, {1, false, 32, 4, 32}, {16, false, 5, 10, 12},
                          {24, false, 5, 5, 16}, {32, false, 5, 5, 20}, {32, true, 3, 12, 12}, {24, true, 5, 15, 16}};
    for (Case const& c : cases) {
        Shape(r, c.bpp, c.width, 3, c.interleaved);
        r.lineBytes = 0;
        EXPECT_EQ(std::make_pair(r.GetLineBytes(), r.GetSize()), std::make_pair(c.want, c.want * 3)) << c.bpp;
        r.RoundWidth();
        EXPECT_EQ(r.lineBytes, c.rounded) << c.bpp << " bits, width " << c.width;
    }
    EXPECT_EQ(r.GetPadding(), 1);  // the last case: 15 bytes in 16-byte lines
    VX_Raster::s0CLIENT = true;
    r.width = 2;
    r.RoundWidth();
    EXPECT_EQ(std::make_pair(r.lineBytes, r.GetPadding()), std::make_pair(16, 10));
}

TEST_F(VX_RasterTest, AllocateAlignsEveryDepthAndPlane)
{
    for (int bpp : {1, 8, 16, 24, 32})
        for (int w = 1; w <= 40; w += 3)
            for (bool round : {false, bpp > 1}) {
                VX_Raster r;
                Shape(r, bpp, w, 3, true);
                if (round) r.RoundWidth();
                r.Allocate();  // a 1-bit block is data itself
                r.Allocate();  // frees the first block
                bool aligned = bpp == 1 ? !r.allocation : r.allocation && Aligned16(r.data);
                EXPECT_TRUE(r.ownsData && aligned) << bpp << " bits, width " << w;
                TouchAll(r);
            }
    VX_Raster r;  // planar: three separate planes of lineBytes (or width) per line
    Shape(r, 24, 5, 3, false);
    r.RoundWidth();
    r.Allocate();
    unsigned char** planes = static_cast<unsigned char**>(r.data);
    for (int i = 0; i < 3; ++i) {
        VX_Raster p = r.GetPlane(i);
        EXPECT_EQ(std::make_tuple(p.data, p.bitsPerPixel, p.lineBytes, p.ownsData, p.GetSize()),
                  std::make_tuple((void*)planes[i], 8, 0, false, 15));
        std::memset(planes[i], i, (size_t)r.GetSize());  // planes do not overlap
    }
    EXPECT_TRUE(planes[0][47] == 0 && planes[1][47] == 1);
}

TEST_F(VX_RasterTest, CopiesShareAndReallocateKeepsBlockOnlyWhenNotLarger)
{
    VX_Raster r;
    Shape(r, 16, 10, 10, false);
    r.RoundWidth();
    r.Allocate();
    {
        VX_Raster c(r), a, flat = r.GetPlane(2);  // not planar: a plain shallow copy
        a = r;
        for (VX_Raster* copy : {&c, &a, &flat}) EXPECT_TRUE(copy->data == r.data && !copy->ownsData && *copy == r);
        c.interleaved = true;  // counts only at 24 bits
        a.tag = 1;
        EXPECT_TRUE(c.allocation == nullptr && c == r && a != r);
    }
    void* block = r.data;  // still owned after the copies went
    r.Reallocate(5, 5);
    EXPECT_EQ(std::make_pair(r.data, r.lineBytes), std::make_pair(block, 12));
    r.Reallocate(8, 5);  // fits the old block, but the width has shrunk to 5
    EXPECT_TRUE(r.lineBytes == 16 && Aligned16(r.data) && r.ownsData);
    TouchAll(r);
    VX_Raster::s0CLIENT = true;
    r.Reallocate(11, 30);  // lineBytes left alone
    EXPECT_EQ(r.lineBytes, 16);
    TouchAll(r);
}
