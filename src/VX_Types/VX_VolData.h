#ifndef VX_VOLDATA_H
#define VX_VOLDATA_H

#include "VX_Box.h"

class VX_BitVol;

// A 3D volume of signed 16-bit voxels: voxel (x, y, z) is slices[z][x + y * X].
// Each slice pointer is independent: a slice may be owned (Allocate), the
// host's (SetSlice) or the shared placeholder blankSlice (Init). Copies are
// shallow; exactly one of a volume and its copies may free.
class VX_EXPORT VX_VolData : public VX_Transformable {
public:
    VX_VolData* lowRes;          // reduced copy, owned; null until made
    VX_Box box;
    VX_Box transposedBox;        // box with x and y exchanged
    bool ownsSlices;
    short** slices;
    short** transposedSlices;    // built on demand; null until then
    short** transposedAlloc;     // the blocks behind transposedSlices
    int sliceCount;
    int minPixelValue, maxPixelValue;
    short* blankSlice;           // placeholder of a slice not yet loaded
    float thickness;             // nominal slice thickness, mm
    float rescaleSlope, rescaleIntercept;

    // Copies the box and allocates the slice pointer array, but no slices.
    explicit VX_VolData(VX_Box* b);
    VX_VolData(VX_VolData const& o) = default;
    VX_VolData& operator=(VX_VolData const& o) = default;
    virtual ~VX_VolData();

    // Makes every slice, staggered by ((i * 179) & 480) * 2 bytes.
    void Allocate();
    // Points every slice at one placeholder whose voxels read 0x8080.
    void Init();
    bool IsLoaded() const;

    VX_Box* GetBox() { return &box; }
    VX_Box* GetTransposedBox() { return &transposedBox; }
    short** GetSlices() { return slices; }
    VX_VolData* GetLowRes() { return lowRes; }
    void SetSlice(int i, short* p) { slices[i] = p; }
    int GetMinPixelValue() const { return minPixelValue; }
    void SetMinPixelValue(int v) { minPixelValue = v; }
    int GetMaxPixelValue() const { return maxPixelValue; }
    void SetMaxPixelValue(int v) { maxPixelValue = v; }
    float GetRescaleSlope() const { return rescaleSlope; }
    void SetRescaleSlope(float v) { rescaleSlope = v; }
    float GetRescaleIntercept() const { return rescaleIntercept; }
    void SetRescaleIntercept(float v) { rescaleIntercept = v; }
    void SetThickness(float t) { thickness = t; }
    // The greater of thickness and the z spacing of box.
    float GetThickness() const;

    float RawToHU(float r) const { return r * rescaleSlope + rescaleIntercept; }
    float HUToRaw(float h) const { return (h - rescaleIntercept) / rescaleSlope; }
    // The same, rounded half away from zero.
    int RawToHU(int r) const;
    int HUToRaw(int h) const;

    // Reads the voxel holding grid point p (truncated toward zero); false outside.
    bool GetValueAtIntCoords(int* out, VX_3Vec p, int = 0) const;
    bool GetValueAtPhysCoords(int* out, VX_3Vec p, int = 0) const;

    // Moves box only; transposedBox and the voxels stay.
    void Transform(VX_Mat const& m) override;
    // A new volume on a copy of box sharing these slices (not owned); the caller owns it.
    VX_VolData* Clone() const;

    // Derived volumes and voxel writing.
    //
    // Builds or completes the x-y transposed slice set (t[y + x * Y] =
    // s[x + y * X]) for every slice that has arrived since the last call and
    // returns transposedSlices. A slice replaced after it was transposed is not
    // renewed. Forks OpenMP threads.
    short** GetTransposedSlices();
    // Replaces lowRes by a volume of dims / factor (integer division) over the
    // whole extent: the mean of each cell for useMax false and factor 2 or 3,
    // the maximum of the 2x2x2 cell at the doubled position for useMax true
    // and factor 2 or 3, undefined voxels for any other factor.
    void CreateLowRes(bool useMax, int factor);
    // Fill this volume from src, which has 2 or 3 times its dims.
    void CalcLowResAvg2(VX_VolData* src);
    void CalcLowResAvg3(VX_VolData* src);
    void CalcLowResMax2(VX_VolData* src);
    void CalcLowResMax3(VX_VolData* src);
    // A new owned volume of twice the dims, same placement; odd positions are
    // the mean of their two neighbours ((a + b) >> 1), and the last column,
    // row and slice repeat the one before. The caller owns it.
    VX_VolData* CreateDoubleRes();
    // A view of every step-th slice (from (step - 1) / 2), sharing this
    // volume's slices and transposed slices. The caller owns it; it must not
    // outlive this volume.
    VX_VolData* CreateZSparseVoldata(int step);
    // Sets every voxel to v.
    void ClearData(short v);
    // Writes v at every set bit of a mask of this volume's dims.
    void SetValue(VX_BitVol* mask, short v);
    // Writes a cube of size voxels on a side from (x, y, z) - size / 2; no
    // bounds check.
    void WriteValue(int x, int y, int z, short v, int size);
    // Voxels whose centre lies within r mm of c become trunc(d * (b - a) / r + a).
    void GenerateGradualSphere(VX_3Vec c, float r, float a, float b);
    // Synthetic vessels: a cylinder between two axis points p0 and p1 (grid
    // coordinates, flat ends) of radius r voxels, whose edge is a linear
    // partial-volume ramp one voxel wide centred on the surface. The first
    // draws value v over the existing voxels (old + w * (v - old), rounded,
    // for the part w of each voxel inside). The second fills the whole volume:
    // soft tissue of 40 HU around a lumen of 300 HU, plus Gaussian-like noise
    // of 12 HU standard deviation from a fixed seed (the same volume on every
    // call), stored through HUToRaw. p0 == p1 means no vessel.
    void GenerateVirtualCylinder(VX_3Vec& p0, VX_3Vec& p1, float r, short v);
    void GenerateNoisyVirtualCylinder(VX_3Vec& p0, VX_3Vec& p1, float r);

    // The volume file: "VX_VolDat2", a 212-byte header, then the slices. Both
    // print their failures and return false; a failed Save leaves its file
    // open. Load frees the placeholder too. A header no saved volume can have
    // (negative dims, sliceCount other than Z, X * Y * Z beyond 32 bits) fails
    // with "error reading\n", and a file shorter than its header promises never
    // makes Load allocate much beyond its own size. A failed Load leaves the
    // object fit only for destruction or another Load.
    bool Save(char const* path);
    bool Load(char const* path);

protected:
    void Free();

private:
    // One block behind every slice made by Allocate, or null when each slice
    // was allocated on its own.
    char* sliceArena = nullptr;
};

#endif
