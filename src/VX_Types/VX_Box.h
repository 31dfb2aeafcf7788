#ifndef VX_BOX_H
#define VX_BOX_H

#include "VX_Transformable.h"

// A placement in physical space (mm): four absolute points, the origin corner
// vecs[0] and the corners vecs[1..3] reached from it along the x, y and z edges.
// The edges need be neither axis-aligned nor orthogonal.
class VX_EXPORT VX_PhysBox : public VX_Transformable {
public:
    VX_3Vec vecs[4];

    VX_PhysBox();
    VX_PhysBox(float a, float b, float c);
    explicit VX_PhysBox(float (*const v)[3]);

    // Moves the four points by the full affine transform; their w stays.
    void Transform(VX_Mat const& m) override;
    virtual void Debug();
    virtual void TransposeXY();

    VX_3Vec* GetVecs() { return vecs; }
    // Edge vector vecs[i + 1] - vecs[0].
    VX_3Vec GetVec(int i) const { return vecs[i + 1] - vecs[0]; }
    VX_3Vec GetSideVec(int i) const { return vecs[i + 1] - vecs[0]; }
    float GetSize(int i) const;
    float GetMaxSideLength() const;
    float GetVolume() const;
    // vecs[0] plus edge k for each set bit k of i (0..7); w summed too.
    VX_3Vec GetVertex(int i) const;
    VX_3Vec GetCenter() const;
    // Translates the box so that its centre comes to the origin.
    void Centralize();
    // Maps the unit cube onto the box: rows 0-2 the edges, translation vecs[0].
    VX_Mat GetFromNormTrans() const;
    VX_Mat GetToNormTrans() const;
    VX_Mat Get2DToNormTrans() const;
};

// A placement with a grid: dims X, Y, Z cells along the three edges. Grid
// coordinates are cell-edge coordinates: voxel (i, j, k) has its centre at
// (i + 0.5, j + 0.5, k + 0.5).
class VX_EXPORT VX_Box : public VX_PhysBox {
public:
    int dims[3];

    VX_Box();
    // One cell is one unit.
    VX_Box(int x, int y, int z);
    VX_Box(VX_PhysBox& p, int x, int y, int z);

    void TransposeXY() override;
    void Debug() override;

    int* GetDims() { return dims; }
    int GetX() const { return dims[0]; }
    int GetY() const { return dims[1]; }
    int GetZ() const { return dims[2]; }
    void SetX(int v) { dims[0] = v; }
    void SetY(int v) { dims[1] = v; }
    void SetZ(int v) { dims[2] = v; }
    int GetSliceSize() const { return dims[0] * dims[1]; }
    int GetNVoxels() const { return dims[0] * dims[1] * dims[2]; }
    // Millimetres per cell along edge i.
    float GetMMPP(int i) const { return GetSize(i) / (float)dims[i]; }
    float GetGreatestMMPP() const;
    float GetSmallestMMPP() const;
    // Grid coordinates to physical and back.
    VX_Mat GetIntToPhysTrans() const;
    VX_Mat GetPhysToIntTrans() const;
    VX_Mat Get2DPhysToIntTrans() const;
    // The grid range a..X-a, b..Y-b, c..Z-c in physical coordinates.
    VX_PhysBox GetPartialPhysBox(float a, float b, float c) const;
    // Clamps pos into [margin, dims - margin - 1] per axis; false when an axis
    // with a negative margin had to be clamped.
    bool MoveToBox(int* pos, int* margin) const;
    // Equal dims and corners within a tolerance relative to the longest edge.
    bool operator==(VX_Box const& o) const;
    bool operator!=(VX_Box const& o) const { return !(*this == o); }
};

#endif
