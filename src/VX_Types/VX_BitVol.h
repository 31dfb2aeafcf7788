#ifndef VX_BITVOL_H
#define VX_BITVOL_H

#include "VX_Vec.h"
#include "VX_Rect.h"

class VX_Raster;
class VX_VolData;
class VX_BVSeqIterator;

// A one-bit-per-voxel volume. Voxel (x, y, z) is bit x & 31 (least significant
// first) of 32-bit word (x >> 5) + y * wordsPerLine of slice z. Lines start on
// word boundaries and the lines of a slice are contiguous; slices are separate
// blocks, each with a 16-byte guard before its first word and after its last
// (the iterator and the shifted word reads touch them; their contents mean
// nothing). `clean` means every bit of a line above X is known to be 0.
//
// Access is unchecked except for the Safe forms; the logic operators require
// equal dims and do not test them.
class VX_EXPORT VX_BitVol {
public:
    int dims[3];              // X, Y, Z
    unsigned int** slices;    // one entry per slice, at its first word
    int sliceCount;           // entries in slices; equals Z
    int wordsPerLine;         // (X + 31) >> 5
    int wordsPerSlice;        // Y * wordsPerLine
    bool ownsSlices;          // the destructor frees the slice blocks
    bool clean;

    // All dims 0, no slices, not owning.
    VX_BitVol();
    // Owned slices, contents undefined, not clean.
    VX_BitVol(int x, int y, int z);
    explicit VX_BitVol(int* d);
    // Copies every word; not clean even if o was.
    VX_BitVol(const VX_BitVol& o);
    // A view of every step-th slice of src: slice i is src slice
    // (step - 1) / 2 + i * step, Z = src.Z / step. Shares src's slices and must
    // not outlive it.
    VX_BitVol(const VX_BitVol* src, int step);
    // One slice from a raster. Depth 1 is aliased (padding ignored, not owned,
    // the raster must outlive this). Otherwise the slice is owned, padded by
    // padX, padY on each side and cleared; depth 8 sets a bit where the byte is
    // non-zero, depths 9 to 16 where the signed pixel exceeds threshold.
    VX_BitVol(VX_Raster* raster, int threshold = 0, int padX = 0, int padY = 0);

    // Resizes like Resize when the dims differ, then copies every word and clean.
    VX_BitVol& operator=(const VX_BitVol& o);

    // Copies with every word; uninitialised; an iterator on the first set bit.
    // The caller owns each result.
    virtual VX_BitVol* Clone();
    virtual VX_BitVol* EmptyClone();
    virtual VX_BVSeqIterator* CreateIterator();
    // Declared here to keep the virtual slots in their order: Clone,
    // EmptyClone, CreateIterator, the destructor, OrNot, the bounding
    // operations.
    virtual ~VX_BitVol();

    // Frees what is held (slices only if owned), recomputes the word counts
    // and sliceCount from dims, makes the table and, with withSlices, owned
    // uninitialised slices. Never clean afterwards.
    void Allocate(bool withSlices);
    // Nothing when the dims are unchanged; otherwise owned uninitialised slices.
    void Resize(int x, int y, int z);

    int GetX() const { return dims[0]; }
    int GetY() const { return dims[1]; }
    int GetZ() const { return dims[2]; }
    int* GetDims() { return dims; }
    int GetWordsPerLine() const { return wordsPerLine; }
    int GetWordsPerSlice() const { return wordsPerSlice; }
    unsigned int* GetSliceP(int z) const { return slices[z]; }
    unsigned int* GetLineAddress(int y, int z) const { return slices[z] + y * wordsPerLine; }
    // The word holding voxel (x, y, z).
    unsigned int& GetWord(int x, int y, int z) const { return slices[z][(x >> 5) + y * wordsPerLine]; }
    int GetBit(int x, int y, int z) const { return (GetWord(x, y, z) >> (x & 31)) & 1; }
    int FastGetBit(int x, int y, int z) const {
        unsigned int w = GetWord(x, y, z);
        return w == 0 ? 0 : (int)((w >> (x & 31)) & 1);
    }
    // 0, or 0x80000000 when the bit is set: for callers that gather bits from
    // the top of a word.
    int FastGetBitMSB(int x, int y, int z) const {
        return (int)((GetWord(x, y, z) << (31 - (x & 31))) & 0x80000000u);
    }
    void SetBitOn(int x, int y, int z) { GetWord(x, y, z) |= 1u << (x & 31); }
    void SetBitOff(int x, int y, int z) { GetWord(x, y, z) &= ~(1u << (x & 31)); }
    // 0 / nothing for a coordinate outside the dims.
    int SafeGetBit(int x, int y, int z) const;
    void SafeSetBitOn(int x, int y, int z);
    void SafeSetBitOff(int x, int y, int z);

    // Bits x0..x1 of one line, inclusive. OneLine and SetLineOn are the same and
    // do nothing for x0 > x1; SetLineOff requires x0 <= x1.
    void OneLine(int x0, int y, int z, int x1);
    void SetLineOn(int x0, int y, int z, int x1);
    void SetLineOff(int x0, int y, int z, int x1);
    // Clears the inclusive block; returns at once when z0 > z1.
    void ZeroSubBlock(int x0, int x1, int y0, int y1, int z0, int z1);

    // Every word 0 / every bit below X set and the tails 0; both set clean.
    void Clear();
    void Unclear();
    // The flag, or X a multiple of 32.
    bool IsClean() const { return clean || (dims[0] & 31) == 0; }
    // Inverts every voxel; the tail bits keep their value.
    void Negate();
    // Set bits over all words, tails included (exact on a clean volume).
    int CountBits();
    // Word-by-word logic over equal dims: or, and, and-not, or-not.
    VX_BitVol& operator|=(VX_BitVol& o);
    VX_BitVol& operator&=(VX_BitVol& o);
    VX_BitVol& operator-=(VX_BitVol& o);
    virtual VX_BitVol& OrNot(VX_BitVol& o);

    // Rebuilds the bits from a volume of equal dims: set where the voxel is
    // strictly greater than threshold. When X is not a multiple of 32 the last
    // partial word of each line is not stored (its word is shifted right by
    // 32 - (X & 31) instead). Prints "%d / %d voxels above threshold\n".
    void Thresh(VX_VolData* vol, int threshold);
    // Set bits common to this and o laid over it with o's origin at (dx, dy, dz).
    int CountOverlapBits(VX_BitVol* o, int dx, int dy, int dz);
    // Fills this from src so that this (0, 0, 0) takes src at offset. Not clean.
    void CopySubVolume(VX_BitVol* src, int offset[3]);
    // Per axis 0.5 + the mean coordinate of the set voxels; (-1, -1, -1) when none.
    VX_3Vec CenterOfMass();
    // A new owned volume of half the dims (truncating): each bit the OR of its
    // 2x2x2 block. With an odd number of words per line the last output word
    // holds its 16 bits in its upper half. The caller owns the result.
    VX_BitVol* Shrink();
    // A new array of n full-size volumes; volume i holds this volume's slices
    // from splitting line i up to splitting line i + 1, the rest clear. The
    // caller owns the array and the volumes.
    VX_BitVol** Split(int n);
    // Whether the trilinearly interpolated mask at (x, y, z) reaches threshold;
    // all four in 18-bit fixed point, only the threshold's fraction counts.
    // Voxel index + 1 must lie inside the volume on every axis.
    int TriLinGetBit(int x, int y, int z, int threshold);
    // Prints the dims and every slice as rows of "x" and ".".
    void Debug();
    // n > 0: clears a shell of n voxels on every face (only x and y when Z is
    // 1); n == 0: clears the line tails; both set clean. n < 0: nothing.
    void ClearBoundary(int n);

    // Extent (last - first + 1) and least coordinate of the set bits per axis;
    // all zero when none is set.
    virtual void CalcBoundingRect(VX_Rect* r);
    virtual void CalcBoundingBox(int* size, int* min);
    // First and last slice holding a set bit.
    virtual void CalcZLimits(int* limits);
    // n + 1 ascending slice boundaries dividing the slices into n groups of
    // about equal count of set bits, from 0 to Z. The caller frees it (delete[]).
    virtual int* ComputeSplittingLines(int n);

    // Morphology, filling and drawing. Bits above X are ignored on input; the
    // operations that rewrite whole slices (all but Fill2DPolygon and Sphere,
    // which only set bits) leave those slices' tails clear.
    //
    // Dilate6 / Erode6: by one voxel across the six faces. The no-argument form
    // works in place; the form with a source makes this volume the dilation
    // (erosion) of src, which has this volume's dims (src may be this volume).
    // Outside the volume counts as clear (so erosion clears the outer faces).
    // The result is clean.
    void Dilate6();
    void Dilate6(VX_BitVol* src);
    void Erode6();
    void Erode6(VX_BitVol* src);
    // Erosion in place by one voxel across the four in-plane faces of each
    // slice, outside clear. The result is clean.
    void ErodeXY();
    // A new clean volume (caller owns; made by EmptyClone, so of this
    // volume's kind) holding, slice by slice, the set voxels and every clear
    // voxel that cannot reach the slice border through clear voxels
    // (4-connected): the mask with its holes filled.
    VX_BitVol* GetSlicewiseSimplyConnected();
    // Flood fill in slice z from the seed (x, y) through clear voxels,
    // 4-connected. Afterwards slice z holds exactly the flooded region; with
    // the seed set or outside, the slice becomes clear. z outside: nothing.
    void Fill2D(int x, int y, int z);
    // Sets in slice z every voxel whose centre lies inside the polygon of n
    // points (xy pairs in grid coordinates, closed implicitly), by the even-odd
    // rule: an odd number of the row's edge crossings lie strictly beyond the
    // centre in x. So a centre on an edge is inside when the inside lies
    // towards larger x (on a horizontal edge, towards larger y). Clipped to
    // the slice; n < 3 sets nothing.
    void Fill2DPolygon(float const* xy, int n, int z);
    // Sets the solid ellipsoid of voxels whose centres lie within radii r0, r1,
    // r2 (in voxels) of centre c (grid coordinates), clipped to the volume:
    // sum(((i + 0.5 - cx) / r0)^2, ...) <= 1, evaluated in double with the
    // divisions multiplied out, so that exact inputs on the surface are in.
    // Any radius not above 0 sets nothing.
    void Sphere(VX_3Vec c, float r0, float r1, float r2);
    // Traces the outer border of the 8-connected region of slice z that holds
    // the set voxel (x, y) by Moore-neighbour tracing: voxel coordinates as xy
    // pairs, clockwise in screen terms (y down), starting at the region's first
    // voxel in row order, a voxel listed at each visit (a lone voxel gives one
    // point, a line of three gives four). The walk stops on being back at the
    // start about to repeat its first step in the same way. Writes at most
    // maxPoints points and returns the number the border has; 0 when the seed
    // is clear or outside.
    int Extract2DContour(int x, int y, int z, int* xy, int maxPoints);
    // The runs of set voxels on line y of slice z as inclusive (first, last)
    // pairs, at most maxRuns of them; returns the number of runs on the line.
    int GetSegments(int y, int z, int* runs, int maxRuns);

protected:
    void freeStorage();
};

// Walks the set bits of a volume in slice, line, x order. At the end x, y and
// z are all -1. Use on clean volumes: a set tail bit is reported at x >= X.
class VX_EXPORT VX_BVSeqIterator {
public:
    int x, y, z;
    unsigned int* wordPtr;    // the current word
    unsigned int word;        // the current word shifted so bit 0 is the current voxel
    VX_BitVol* vol;

    // Positions on the first set bit.
    explicit VX_BVSeqIterator(VX_BitVol* v);
    // Moves to the next set bit. True exactly when it is the immediate
    // successor of the old position and no scan was needed.
    virtual bool operator++(int);
    // The first set bit of slice z or later: true, or all -1 and false.
    // z must not exceed Z; a negative z starts at slice 0.
    virtual bool GoToSlice(int z);
    // After the two walking operations, so that they keep the first slots.
    virtual ~VX_BVSeqIterator() = default;

protected:
    // Scans from the word after wordPtr at (x, y, z) for the next set bit.
    bool scan();
};

// Delivers every bit of a volume from a start voxel, line by line.
class VX_EXPORT VX_BitVolIterator {
public:
    int x, y, z;              // x of the first bit of the current word
    unsigned int* wordPtr;    // the next word to load
    unsigned int bits;        // the current word shifted so bit 0 is the current voxel
    int bitsLeft;             // bits still to deliver from this word, the current one included
    int bitsInWord;           // bits this word was loaded for
    VX_BitVol* vol;

    VX_BitVolIterator(VX_BitVol* v, int x, int y, int z);
    // The current bit.
    int operator*() const { return (int)(bits & 1); }
    // Returns the current bit and advances.
    int operator++(int);
    // Reloads from x, y, z after they have been set.
    void Update();
};

#endif
