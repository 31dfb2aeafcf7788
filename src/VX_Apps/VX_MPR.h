#ifndef VX_MPR_H
#define VX_MPR_H

#include "../VX_Types/VX_Box.h"
#include "../VX_Types/VX_Rect.h"
#include "../VX_Types/VX_VolData.h"
#include "VX_Multithread.h"

// One 2D image of signed 16-bit values sampled from a volume along a plane:
// a single section (nearest or trilinear) or a slab (average, maximum or
// minimum along the image normal). The host fills the fields and calls
// CalcRaster; the picture lands in `output`. Sampling is 18-bit fixed point
// with no per-pixel bounds test: every row is clipped against the volume first.
// With rotate set, the picture is sampled in a frame turned about the image
// normal (rows along a volume axis, at a resolution that may be reduced) and
// warped into output by one bilinear 2D warp.
// Copies are shallow and share rotatedBuffer; only one of them may be destroyed.
class VX_EXPORT VX_MPR {
public:
    VX_Mat trans;              // volume physical -> image physical
    VX_Box imageBox;           // the output's placement; dims X, Y are W and H
    VX_VolData* volData;       // the source, not owned
    VX_Box volBox;             // the volume's placement for this calculation
    short* output;             // W * H values, row-major, not owned
    float slabThickness;       // mm; above 0 selects the slab path
    int interpolation;         // 0 nearest, 1 trilinear
    int curvedMode;
    bool rotate;               // sample an intermediate picture whose rows run along a
                               // volume axis, then warp it into output (background 0x8080)
    VX_Multithread multithread;  // interrupt source of the slab path
    bool slabMIP;              // slab takes the maximum (wins over slabMin)
    bool slabMin;              // slab takes the minimum
    float curvedMMPP;
    bool noInterrupt;          // the slab path does not poll
    VX_Rect boundingRect;      // result: the part of the image that holds samples
    bool curvedNoFlip;
    float rotationAngle;       // radians the image is turned about its normal (rotate)
    VX_Mat rotatedTrans;       // volume physical -> intermediate picture physical
    VX_Box rotatedBox;         // the intermediate picture: N x N pixels, centred at 0
    float avgScale;            // 1 / samples per ray, set by the slab path
    int slabAxis;              // volume axis nearest the image normal
    short* rotatedBuffer;      // the aligned picture, owned
    int rotatedBufferSide;     // rotatedBuffer holds this squared values

    VX_MPR();
    VX_MPR(VX_MPR const& o) = default;
    VX_MPR& operator=(VX_MPR const& o) = default;
    ~VX_MPR();

    // Fills output with the volume's minimum value, clips the rows against the
    // volume (both slab faces for a slab), sets boundingRect and samples. With
    // rotate, all this happens on the aligned picture in rotatedBuffer (and
    // boundingRect is that whole picture), then the warp fills output; pixels
    // it cannot reach read 0x8080.
    void CalcRaster();
    // The bounding rectangle of the non-empty rows of a bounds array.
    static VX_Rect computeBoundingRect(int w, int h, short* bounds);

    // Steps of the calculation; public for hosts that drive them directly.
    // The slab step vector in grid units with element slabAxis exactly 1;
    // returns how many such steps cover half the slab.
    int CalcZVec(VX_3Vec* out);
    // Clips bounds by the volume's six faces, the image moved by depth along its normal.
    void PrepareCBounds(short* bounds, float depth, bool reset);
    void CalcImageNN(short* bounds);
    void CalcImageTriLin(short* bounds);
    // The frame of every slab projection: average, maximum or minimum.
    void CalcImageAvgTriLin(short* bounds, int n, float* zvec);

    // Line kernels. n output pixels from out; pixel i's ray starts at
    // (x, y, z) + i (dx, dy, dz) and takes depth samples spaced (sx, sy, sz),
    // all grid coordinates in 18-bit fixed point already shifted by -0.5.
    // Average along slabAxis (maximum or minimum when slabMIP or slabMin is set).
    void CalcLine(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz, int dx,
                  int dy, int dz);
    // The three branches of the average, each on its own.
    void CalcLineX(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz, int dx,
                   int dy, int dz);
    void CalcLineY(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz, int dx,
                   int dy, int dz);
    void CalcLineYp4(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                     int dx, int dy, int dz);
    void CalcLineZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz, int dx,
                   int dy, int dz);
    // In spite of its name, the same average as CalcLineZ.
    void CalcLineZMIP(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                      int dx, int dy, int dz);

    // Maximum and minimum: dispatchers choosing the loop order by memory walk.
    void CalcLineMIP(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                     int dx, int dy, int dz);
    void CalcLineMin(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                     int dx, int dy, int dz);
    // Ray-major: each pixel's ray walked whole.
    void CalcLineMIPRays(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                         int dx, int dy, int dz);
    void CalcLineMinRays(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                         int dx, int dy, int dz);
    // Plane-major: a whole line per sample step, the running extreme kept in out.
    void CalcLineMIPLines(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);
    void CalcLineMinLines(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);
    // The same with the row (XY: no dy) or the slice pair (XZ: no dz) fixed per sample.
    void CalcLineMIPLinesXY(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                            int sz, int dx, int dz);
    void CalcLineMinLinesXY(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                            int sz, int dx, int dz);
    void CalcLineMIPLinesXZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                            int sz, int dx, int dy);
    void CalcLineMinLinesXZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                            int sz, int dx, int dy);
    // Axis-snapped: the ray's start moved onto the next grid plane of one axis,
    // then one bilinear per sample.
    void CalcLineMIPRaysX(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);
    void CalcLineMIPRaysY(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);
    void CalcLineMIPRaysZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);
    void CalcLineMinRaysX(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);
    void CalcLineMinRaysY(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);
    void CalcLineMinRaysZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy, int sz,
                          int dx, int dy, int dz);

private:
    // A row kernel of a single section: n pixels from out, the first at
    // (x, y, z), each next one (dx, dy, dz) further, in 18-bit fixed point.
    using SectionRow = void (*)(short* out, int n, short* const* slices, int X, int x, int y, int z,
                                int dx, int dy, int dz);

    // Turns the image about its normal so that the sampler's rows run along a
    // volume axis; sets rotationAngle, rotatedTrans, rotatedBox and grows
    // rotatedBuffer to hold the picture.
    void CalcRotation();
    // Fills, clips and samples the picture that trans, imageBox and output
    // describe. With toPicture (image pixels -> picture pixels) the rows are
    // also clipped to the image of origSize plus a margin.
    void calcPicture(VX_Mat const* toPicture, int const* origSize);

    // Fixed-point start and steps of pixel (0, 0); false when the guard fails.
    bool fixedPointFrame(bool shiftHalf, int* start, int* col, int* row);
    void sampleSection(short* bounds, int reach, SectionRow row);
    // The trilinear section taken along lines of constant slice (eight lanes);
    // false, having drawn nothing, where rows are as good or the lines do not apply.
    bool sampleAlongSlices(short* bounds);
};

#endif
