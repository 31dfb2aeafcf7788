#ifndef VX_VOLDATA_H
#define VX_VOLDATA_H

#include "VX_Box.h"

// A 3D volume of signed 16-bit voxels: voxel (x, y, z) is slices[z][x + y * X].
// Each slice pointer is independent: a slice may be owned (Allocate), the
// host's (SetSlice) or the shared placeholder blankSlice (Init). Copies are
// shallow; exactly one of a volume and its copies may free.
class VX_EXPORT VX_VolData final : public VX_Transformable {
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
    ~VX_VolData();

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

protected:
    void Free();

private:
    // One block behind every slice made by Allocate, or null when each slice
    // was allocated on its own.
    char* sliceArena = nullptr;
};

#endif
