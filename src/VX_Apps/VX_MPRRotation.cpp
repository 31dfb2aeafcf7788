#include "VX_MPR.h"

#include <math.h>
#include <algorithm>

namespace {

// The target direction of the turn, the picture's y axis, in radians.
constexpr double kQuarterTurn = 1.570796326795;

// The turn follows grid point (0, 1, 0) unless its in-plane extent, squared and
// times this factor, does not exceed that of (0, 0, 1).
constexpr double kFirstAxisWeight = 10.0;

// Slabs thicker than kThinSlabMM sample a coarser picture, by up to
// kMaxReduction from kThickSlabMM on.
constexpr float kThinSlabMM = 20.0f;
constexpr float kThickSlabMM = 80.0f;
constexpr double kMaxReduction = 3.0;

// 2^-20 = 1 / 1024^2: a picture of more than 1024 x 1024 pixels is brought down
// to that area (within kMaxReduction).
constexpr double kInvMaxArea = 1.0 / 1048576.0;

// A grown buffer holds a side this much larger than the picture that asked.
constexpr double kBufferSlack = 1.1;

// The 16-bit scanline bounds address no wider picture; beyond it (or for a
// degenerate image box) the picture is empty.
constexpr double kMaxSide = 32767.0;

}  // namespace

// The rows of the picture are turned onto the direction of a volume axis in
// the image plane: a and b are grid points (0, 1, 0) and (0, 0, 1) carried to
// image physical space by the full transform, translation included (points,
// not directions, deliberately), and the turn brings a's direction (b's when
// a's in-plane part is small) onto y. The picture is a square of the image's
// diagonal about the image's centre, at the image's pixels per mm divided by
// the reduction r.
void VX_MPR::CalcRotation()
{
    VX_Mat T = volBox.GetIntToPhysTrans() * trans;
    VX_3Vec a = VX_3Vec(0, 1, 0, 0) * T, b = VX_3Vec(0, 0, 1, 0) * T;
    double ax = a.x, ay = a.y, bx = b.x, by = b.y;
    double angle = (ax * ax + ay * ay) * kFirstAxisWeight > bx * bx + by * by ? atan2(ay, ax)
                                                                           : atan2(by, bx);
    rotationAngle = (float)(kQuarterTurn - angle);

    VX_3Vec c = imageBox.GetCenter();
    float w = imageBox.GetSize(0), h = imageBox.GetSize(1);
    float diag = sqrtf(w * w + h * h);
    VX_PhysBox p(diag, diag, 1.0f);
    p.Centralize();
    VX_3Vec toCentre = -c;
    rotatedTrans = trans * VX_TransMat(&toCentre.x) * VX_RotMat(rotationAngle, 2);

    float scale = 1.0f / (w / (float)imageBox.dims[0]);  // image pixels per mm
    if (slabThickness >= 0) CalcZVec(nullptr);

    // The reduction, in double from the float thickness, scale and sides.
    double r = 1.0;
    float t = slabThickness;
    if (t > kThickSlabMM)
        r = kMaxReduction;
    else if (t > kThinSlabMM)
        r = 1.0 + ((double)t - kThinSlabMM) * (kMaxReduction - 1.0) / (kThickSlabMM - kThinSlabMM);
    double A = p.GetSize(0), B = p.GetSize(1);
    r = std::max(r, std::min(kMaxReduction, sqrt(kInvMaxArea * scale * scale * A * B)));
    double side = scale * std::max(A, B) / r;
    int N = side >= 0.0 && side <= kMaxSide ? (int)side : 0;

    // The buffer only grows, so that views of any size reuse it.
    if (N > rotatedBufferSide) {
        rotatedBufferSide = (int)(N * kBufferSlack);
        delete[] rotatedBuffer;
        rotatedBuffer = new short[(size_t)rotatedBufferSide * rotatedBufferSide];
    }
    rotatedBox = VX_Box(p, N, N, 1);
}
