#include "VX_Box.h"

#include <math.h>
#include <stdio.h>

// ---- VX_PhysBox ----

VX_PhysBox::VX_PhysBox()
{
    vecs[1] = VX_3Vec(1, 0, 0, 0);
    vecs[2] = VX_3Vec(0, 1, 0, 0);
    vecs[3] = VX_3Vec(0, 0, 1, 0);
}

VX_PhysBox::VX_PhysBox(float a, float b, float c)
{
    vecs[1] = VX_3Vec(a, 0, 0, 0);
    vecs[2] = VX_3Vec(0, b, 0, 0);
    vecs[3] = VX_3Vec(0, 0, c, 0);
}

VX_PhysBox::VX_PhysBox(float (*const v)[3])
{
    for (int i = 0; i < 4; ++i) vecs[i] = VX_3Vec(v[i][0], v[i][1], v[i][2], 0);
}

void VX_PhysBox::Transform(VX_Mat const& m)
{
    for (int i = 0; i < 4; ++i) VX_Mul(&vecs[i].x, m);
}

void VX_PhysBox::Debug()
{
    for (int i = 0; i < 4; ++i) {
        printf("[%d]: ", i);
        for (int j = 0; j < 3; ++j) printf("%9g  ", vecs[i][j]);
        printf("\n");
    }
}

void VX_PhysBox::TransposeXY()
{
    VX_3Vec t = vecs[1];
    vecs[1] = vecs[2];
    vecs[2] = t;
}

float VX_PhysBox::GetSize(int i) const { return GetVec(i).Abs(); }

float VX_PhysBox::GetMaxSideLength() const
{
    float m = GetSize(0);
    for (int i = 1; i < 3; ++i)
        if (GetSize(i) > m) m = GetSize(i);
    return m;
}

float VX_PhysBox::GetVolume() const { return fabsf(GetVec(0) * VX_Cross(GetVec(1), GetVec(2))); }

VX_3Vec VX_PhysBox::GetVertex(int i) const
{
    VX_3Vec v = vecs[0];
    for (int k = 0; k < 3; ++k)
        if (i & (1 << k)) v += vecs[k + 1] - vecs[0];
    return v;
}

VX_3Vec VX_PhysBox::GetCenter() const { return (vecs[1] + vecs[2] + vecs[3] - vecs[0]) * 0.5f; }

void VX_PhysBox::Centralize()
{
    VX_3Vec c = VX_3Vec(0.5f, 0.5f, 0.5f, 0) * GetFromNormTrans();
    VX_3Vec t = -c;
    Translate(&t.x);
}

VX_Mat VX_PhysBox::GetFromNormTrans() const
{
    VX_Mat r;
    for (int i = 0; i < 3; ++i) {
        VX_3Vec e = GetVec(i);
        for (int j = 0; j < 3; ++j) r.m[i][j] = e[j];
    }
    for (int j = 0; j < 3; ++j) r.m[3][j] = vecs[0][j];
    return r;
}

VX_Mat VX_PhysBox::GetToNormTrans() const { return GetFromNormTrans().Inv(); }
VX_Mat VX_PhysBox::Get2DToNormTrans() const { return GetFromNormTrans().Inv2D(); }

// ---- VX_Box ----

VX_Box::VX_Box() : VX_PhysBox() { dims[0] = dims[1] = dims[2] = 1; }

VX_Box::VX_Box(int x, int y, int z) : VX_PhysBox((float)x, (float)y, (float)z)
{
    dims[0] = x;
    dims[1] = y;
    dims[2] = z;
}

VX_Box::VX_Box(VX_PhysBox& p, int x, int y, int z) : VX_PhysBox(p)
{
    dims[0] = x;
    dims[1] = y;
    dims[2] = z;
}

void VX_Box::TransposeXY()
{
    VX_PhysBox::TransposeXY();
    int t = dims[0];
    dims[0] = dims[1];
    dims[1] = t;
}

void VX_Box::Debug()
{
    printf("dims: %d x %d x %d \n", dims[0], dims[1], dims[2]);
    VX_PhysBox::Debug();
}

float VX_Box::GetGreatestMMPP() const
{
    float m = GetMMPP(0);
    for (int i = 1; i < 3; ++i)
        if (GetMMPP(i) > m) m = GetMMPP(i);
    return m;
}

float VX_Box::GetSmallestMMPP() const
{
    float m = GetMMPP(0);
    for (int i = 1; i < 3; ++i)
        if (GetMMPP(i) < m) m = GetMMPP(i);
    return m;
}

VX_Mat VX_Box::GetIntToPhysTrans() const
{
    return VX_Mat(1.0f / dims[0], 1.0f / dims[1], 1.0f / dims[2]) * GetFromNormTrans();
}

VX_Mat VX_Box::GetPhysToIntTrans() const
{
    return GetFromNormTrans().Inv() * VX_Mat((float)dims[0], (float)dims[1], (float)dims[2]);
}

VX_Mat VX_Box::Get2DPhysToIntTrans() const
{
    return GetFromNormTrans().Inv2D() * VX_Mat((float)dims[0], (float)dims[1], 0.0f);
}

VX_PhysBox VX_Box::GetPartialPhysBox(float a, float b, float c) const
{
    VX_PhysBox p(dims[0] - 2 * a, dims[1] - 2 * b, dims[2] - 2 * c);
    p.Translate(a, b, c);
    VX_Mat m = GetIntToPhysTrans();
    for (int i = 0; i < 4; ++i) VX_Mul(&p.vecs[i].x, m);
    return p;
}

bool VX_Box::MoveToBox(int* pos, int* margin) const
{
    bool ok = true;
    for (int a = 0; a < 3; ++a) {
        int mg = margin ? margin[a] : 0;
        bool clamped = false;
        if (pos[a] < mg) {
            pos[a] = mg;
            clamped = true;
        } else if (pos[a] >= dims[a] - mg) {
            pos[a] = dims[a] - mg - 1;
            clamped = true;
        }
        if (clamped && mg < 0) ok = false;
    }
    return ok;
}

bool VX_Box::operator==(VX_Box const& o) const
{
    for (int i = 0; i < 3; ++i)
        if (dims[i] != o.dims[i]) return false;
    float s2 = 0;
    for (int i = 0; i < 3; ++i) {
        float l = GetVec(i).Abs2();
        if (l > s2) s2 = l;
    }
    float e = sqrtf(s2) * 1e-5f;
    float tol = e * e;
    for (int i = 0; i < 4; ++i)
        if ((vecs[i] - o.vecs[i]).Abs2() > tol) return false;
    return true;
}
