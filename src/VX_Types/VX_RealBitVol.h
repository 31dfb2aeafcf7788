#ifndef VX_REALBITVOL_H
#define VX_REALBITVOL_H

#include "VX_BitVol.h"
#include "VX_Box.h"

// A bit volume placed in physical space by a box whose dims equal the grid's.
// The combining operators resample the other mask onto this grid row by row,
// through scanline bounds and fixed-point stepping, so the two may lie on any
// grids. With infiniteDepth the mask is one slice standing for every depth.
class VX_EXPORT VX_RealBitVol : public VX_BitVol {
public:
    VX_Box box;
    bool infiniteDepth;

    VX_RealBitVol();
    // A new (uninitialised) grid of the box's dims; box copied.
    explicit VX_RealBitVol(VX_Box* b);
    // A copy of bits placed by VX_Box(*place, X, Y, Z).
    VX_RealBitVol(VX_PhysBox* place, VX_BitVol* bits);
    // The raster constructor with threshold and padding 0, on a box of the
    // raster's width and height by 1.
    explicit VX_RealBitVol(VX_Raster* r);
    // The sampling view of src with step (shares src's slices). Its box is flat
    // in the third direction for any step above 1.
    VX_RealBitVol(VX_RealBitVol* src, int step);
    VX_RealBitVol(VX_RealBitVol const& o);
    VX_RealBitVol& operator=(VX_RealBitVol& o);
    ~VX_RealBitVol() override;

    using VX_BitVol::OrNot;

    VX_Box* GetBox() { return &box; }
    bool GetInfiniteDepth() const { return infiniteDepth; }
    void SetInfiniteDepth() { infiniteDepth = true; }

    // The bit at a physical point; 0 outside the grid.
    int RealGetBit(VX_3Vec* p);
    // Sets the physical sphere (centre: four floats, radius in mm).
    void RealSphere(float* center, float radius);

    // Combine with a mask on any grid; voxels outside o's box count as absent
    // for |= and -=, are cleared by &= (with one more voxel at the right-hand
    // end of each row that ends inside o), and stay as they were for OrNot.
    VX_RealBitVol& operator|=(VX_RealBitVol& o);
    VX_RealBitVol& operator&=(VX_RealBitVol& o);
    VX_RealBitVol& operator-=(VX_RealBitVol& o);
    // interpolate 0: as |=; otherwise each sample is o's trilinear mask at
    // least one half, kept 0.6 voxel inside o's faces.
    VX_RealBitVol& Or(VX_RealBitVol& o, int interpolate);
    virtual VX_RealBitVol& OrNot(VX_RealBitVol& o);

    // Crops to the content plus margin (min may go negative; the new outer
    // cells are clear), keeping the mask in place physically.
    VX_RealBitVol* Tighten(int margin);
    // A new owned mask at half resolution on the even part of the box. Prints
    // "original = %d\n", "shrunk = %d\n" and "rbv = %d\n".
    VX_RealBitVol* Shrink();

private:
    enum class Combine { Or, OrInterp, OrNot, And, AndNot };
    void combine(VX_RealBitVol& o, Combine op);
};

// The bounding block of a source mask plus a margin, clamped to the source.
// Reports full-volume coordinates through offset and its iterator.
class VX_EXPORT VX_TightBitVol : public VX_BitVol {
public:
    int offset[3];      // the block's origin in the full volume
    int fullDims[3];    // the source's X, Y, Z

    VX_TightBitVol();
    VX_TightBitVol(VX_BitVol* src, int margin);
    ~VX_TightBitVol() override;

    VX_BitVol* Clone() override;
    VX_BitVol* EmptyClone() override;
    VX_BVSeqIterator* CreateIterator() override;
    // Answered from the fields, without a scan. CalcZLimits is in block
    // coordinates (0, Z - 1); the others include offset.
    void CalcBoundingRect(VX_Rect* r) override;
    void CalcBoundingBox(int* size, int* min) override;
    void CalcZLimits(int* limits) override;
    int* ComputeSplittingLines(int n) override;
};

// A sequential iterator over a tight block, in full-volume coordinates.
class VX_EXPORT VX_TBVSeqIterator : public VX_BVSeqIterator {
public:
    int offX, offY, offZ;

    explicit VX_TBVSeqIterator(VX_TightBitVol* v);
    bool operator++(int) override;
    bool GoToSlice(int z) override;
};

// A one-slice mask with a group number.
class VX_EXPORT VX_Overlay : public VX_BitVol {
public:
    unsigned short group;

    VX_Overlay(int w, int h, unsigned short g);
    ~VX_Overlay() override;

    // Ors every word of o (same dims) into this.
    VX_Overlay& operator+=(VX_Overlay& o);
    void SetGroup(unsigned short g) { group = g; }
    unsigned short GetGroup() const { return group; }
};

#endif
