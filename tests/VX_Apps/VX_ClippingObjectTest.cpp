#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "VX_Apps/VX_ClippingBoundsManager.h"
#include "VX_Apps/VX_ClippingObjectManager.h"
#include "VX_Types/VX_RealBitVol.h"
#include "support/VX_TestData.h"

typedef boost::shared_ptr<VX_ClippingObject> ObjPtr;

namespace {

// A 13 x 11 x 7 grid, rotated and skewed so that every term of the metric counts;
// transposed: 11 x 13 x 7, the box that the transposed arrangement describes.
VX_Box TestBox(bool transposed = false)
{
    float v[4][3] = {{-3, 1, 2}, {7.4f, 2.2f, 1.5f}, {-1.1f, 13.5f, 3.8f}, {0.6f, -0.7f, 16.5f}};
    VX_PhysBox p(v);
    VX_Box b(p, 13, 11, 7);
    if (transposed) b.TransposeXY();
    return b;
}

VX_3Vec Edge(VX_Box const& b, int k) { return b.GetVec(k) / (float)b.dims[k]; }   // one voxel, in mm

// One object's cut of a fresh array (0, nx - 1) of a manager on box, in the
// transposed arrangement when tr is set.
std::vector<short> Cut(VX_ClippingObject& o, VX_ClippingObjectManager* com, VX_Box const& box, bool tr = false,
                       bool* ok = nullptr)
{
    std::unique_ptr<VX_ClippingBoundsManager> bm;
    vxtest::Captured([&] { bm.reset(new VX_ClippingBoundsManager); });
    bm->box = box;
    bm->transposed = tr;
    bm->objectManager = com;
    VX_Box b = bm->GetBox();
    size_t n = 2 * (size_t)b.dims[1] * b.dims[2];
    short* a = bm->bounds[tr ? 0 : 1] = new short[n];
    for (size_t p = 0; p < n; p += 2) a[p] = 0, a[p + 1] = (short)(b.dims[0] - 1);
    bool r = o.UpdateClippingBounds(bm.get());
    if (ok) *ok = r;
    return std::vector<short>(a, a + n);
}

bool NearInt(double v, double tol = 1e-3) { return std::fabs(v - std::round(v)) < tol; }
int Hold(double v) { return v > 22222 ? 22222 : v < -22222 ? -22222 : (int)v; }

VX_ClippingPlane FreePlane(VX_3Vec pl)   // not screen-anchored
{
    VX_ClippingPlane p;
    p.SetPlane(pl);
    p.screenAnchored = false;
    return p;
}

template <class S>
void Put(S* s, VX_3Vec c, float r, bool active = false)
{
    s->SetCenter(c), s->SetRadius(r);
    if (active) s->SetActive(true);
}

// The half-space rule for row (y, z), in double: the plane in voxel indices, normalised;
// t = -(d + 0.5 + (z + 0.5) c + (y + 0.5) b) / a; a < 0 keeps x >= trunc(t), a > 0 keeps
// x <= trunc(t); |a| < 0.0001 removes the row when its centre line is outside. False when
// float rounding may decide (the error of t grows as |t / a|).
bool PlaneRule(VX_Box const& box, VX_3Vec pl, int y, int z, short* row)
{
    double q[4], o = pl * box.vecs[0] + pl.w;
    for (int k = 0; k < 3; ++k) q[k] = pl * Edge(box, k);
    double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]), a = q[0] / n;
    double v = ((z + 0.5) * q[2] + o + (y + 0.5) * q[1]) / n;
    if (std::fabs(a) < 0.0001) {
        if (v > 0) row[1] = -1;
        return std::fabs(v) > 1e-4;
    }
    double t = -(v + 0.5) / a;
    if (a < 0) row[0] = (short)std::max<int>(row[0], Hold(t));
    else row[1] = (short)std::min<int>(row[1], Hold(t));
    return std::fabs(t) > 23000 || !NearInt(t, 1e-3 + 2e-6 * std::fabs(t / a));
}

// The chord of the line p + t e through the sphere (c, r).
bool Chord(VX_3Vec p, VX_3Vec e, VX_3Vec c, double r, double* t0, double* t1)
{
    VX_3Vec f = p - c;
    double A = e * e, B = 2.0 * (e * f), D = B * B - 4 * A * ((double)(f * f) - r * r);
    if (D < 0) return false;
    *t0 = (-B - std::sqrt(D)) / (2 * A), *t1 = (-B + std::sqrt(D)) / (2 * A);
    return true;
}

}  // namespace

// Stamps: activation, the view, copies, and the sphere's thresholds.
TEST(VX_ClippingObject, Stamps)
{
    VX_ClippingObjectManager com(true);
    auto s = com.GetClippingSphere();
    auto p = com.GetClippingPlane();
    EXPECT_TRUE(!s->IsScreenAnchored() && p->IsScreenAnchored() && p->plane.z == -1.0f);

    // Activation moves the stamp by 1; the view's stamp moves every object.
    s->SetActive(true);
    for (int k = 0; k < 3; ++k) s->Invalidate();
    com.SetZoomPanID(10);
    EXPECT_TRUE(s->GetID() == 13 && com.GetID() == 14) << s->GetID() << " " << com.GetID();
    // Leaving the sum pays 1 + 13 into the stamp; a second clear changes nothing.
    s->SetActive(false);
    s->SetActive(false);
    EXPECT_EQ(com.GetID(), 15u);

    // A copy keeps the stamp, construction from another does not; a sphere
    // built from another is never screen-anchored.
    p->Invalidate();
    VX_ClippingPlane copy(*p), made(p.get());
    EXPECT_TRUE(copy.GetID() == 11 && made.GetID() == 10) << copy.GetID() << " " << made.GetID();
    s->screenAnchored = true;
    EXPECT_FALSE(VX_ClippingSphere(s.get()).screenAnchored);

    VX_ClippingSphere t;
    Put(&t, VX_3Vec(0.1f, 0, 0), 0.1f);   // 0.1f^2 is not above the threshold; a change of 0.1 exactly
    EXPECT_TRUE(t.GetID() == 0 && t.center.x == 0 && t.radius.value == 0);
    Put(&t, VX_3Vec(0.07f, 0.08f, 0), 0.2f);
    EXPECT_TRUE(t.GetID() == 2 && t.center.y == 0.08f && t.radius.value == 0.2f);
    EXPECT_EQ(t.GetRadius()->VX_ID::GetID(), 1u);
    t.Scale(2.0f);   // no stamp; the radius does not follow
    EXPECT_TRUE(t.GetID() == 2 && t.center.y == 0.16f && t.radius.value == 0.2f);
}

// A change of the virtual frame invalidates what moved; a clone is a fresh
// manager holding clones in order.
TEST(VX_ClippingObject, FrameChangesAndCloning)
{
    VX_ClippingObjectManager com(true);
    auto p = com.GetClippingPlane();
    p->SetPlane(VX_3Vec(0, 0, 1, -5)), p->SetActive(true);
    Put(com.GetClippingSphere().get(), VX_3Vec(5, 6, 7), 8);
    auto slab = boost::shared_ptr<VX_ClippingSlab>(new VX_ClippingSlab);
    slab->SetPlane(VX_3Vec(0, 0, 2, 4));   // normalised, d too
    EXPECT_TRUE(std::fabs(slab->plane.z - 1) < 1e-6f && std::fabs(slab->plane.w - 2) < 1e-5f);
    slab->SetThickness(3);
    com.AddClippingObject(slab), slab->SetActive(true);
    VX_Mat m;
    m.m[2][1] = 0.0005f;   // nothing told
    com.SetPhysicalToVirtual(m);
    m.m[3][0] = 1;   // a move along the plane: only the slab is invalidated
    com.SetPhysicalToVirtual(m);
    EXPECT_TRUE(p->VX_ID::GetID() == 0 && slab->VX_ID::GetID() == 1);
    m.m[3][2] = 0.02f;   // the plane's offset moves by 0.02
    com.SetPhysicalToVirtual(m);
    EXPECT_EQ(p->VX_ID::GetID(), 1u);

    std::unique_ptr<VX_ClippingObjectManager> c(com.Clone());
    EXPECT_TRUE(!c->GetClippingSphere() && !c->GetClippingPlane() && c->GetPhysicalToVirtual().m[3][2] == 0);
    ASSERT_EQ(c->objects.size(), 3u);
    auto it = c->objects.begin();
    auto* cs = dynamic_cast<VX_ClippingSphere*>(it->get());
    auto* cp = dynamic_cast<VX_ClippingPlane*>((++it)->get());
    auto* cl = dynamic_cast<VX_ClippingSlab*>((++it)->get());
    ASSERT_TRUE(cs && cp && cl);
    EXPECT_TRUE(cs->com == c.get() && cp->com == c.get() && cl->com == c.get());
    EXPECT_TRUE(cs->center.z == 7 && cs->radius.value == 8 && cp->plane.w == -5 && cp->active);
    EXPECT_TRUE(cp->GetID() == 0 && cl->plane.z == 0.0f);   // the slab's clone loses its plane
}

TEST(VX_ClippingObject, LineIntersectByHand)
{
    VX_ClippingPlane p;
    p.SetPlane(VX_3Vec(0, 0, 2, -10));   // z <= 5, not normalised
    VX_3Vec o(0, 0, 0), up(0, 0, 1), down(0, 0, -1), side(1, 0, 0), high(0, 0, 5.01f);
    float t0 = -100, t1 = 100;
    EXPECT_TRUE(p.LineIntersect(&o, &up, &t0, &t1) && t0 == -100 && t1 == 5);
    EXPECT_TRUE(p.LineIntersect(&o, &down, &t0, &t1) && t0 == -5 && t1 == 5);
    EXPECT_TRUE(p.LineIntersect(&o, &side, &t0, &t1));   // parallel and inside
    EXPECT_FALSE(p.LineIntersect(&high, &side, &t0, &t1));

    VX_ClippingSphere s;
    Put(&s, VX_3Vec(1, 2, 3), 2);
    VX_3Vec a(1, 2, 0), miss(3.5f, 2, 0);
    // Replaces the range.
    EXPECT_TRUE(s.LineIntersect(&a, &up, &t0, &t1) && std::fabs(t0 - 1) <= 1e-6 && std::fabs(t1 - 5) <= 1e-6);
    EXPECT_FALSE(s.LineIntersect(&miss, &up, &t0, &t1));

    // The manager answers in parameters along the given dir (length 2). With the
    // sphere (0.5 .. 2.5 along dir), the screen-anchored plane z' <= 0 sees the
    // line moved by -3.5 in z.
    VX_ClippingObjectManager com(true);
    VX_3Vec dir(0, 0, 2);
    EXPECT_TRUE(com.LineIntersect(&a, &dir, &t0, &t1, true) && std::fabs(t0 + 5e5) < 1 && std::fabs(t1 - 5e5) < 1);
    Put(com.GetClippingSphere().get(), VX_3Vec(1, 2, 3), 2, true);
    VX_Mat shift;
    shift.m[3][2] = -3.5f;
    com.SetPhysicalToVirtual(shift);
    com.GetClippingPlane()->SetPlane(VX_3Vec(0, 0, 1, 0));
    com.GetClippingPlane()->SetActive(true);
    EXPECT_TRUE(com.LineIntersect(&a, &dir, &t0, &t1, true) && std::fabs(t0 - 0.5) <= 1e-4 &&
                std::fabs(t1 - 1.75) <= 1e-4) << t0 << " " << t1;
    com.GetClippingPlane()->SetPlane(VX_3Vec(0, 0, 1, 3));   // z' <= -3 ends before the sphere
    EXPECT_FALSE(com.LineIntersect(&a, &dir, &t0, &t1, true));
    com.GetClippingPlane()->SetActive(false);
    com.AddClippingObject(ObjPtr(new VX_ClippingSlab)), com.objects.back()->SetActive(true);
    EXPECT_FALSE(com.LineIntersect(&a, &dir, &t0, &t1, true));   // a slab never answers
}

// Random planes (every fifth parallel to the scanlines) through a skewed box,
// as a plane and as the middle of a slab, against the row rule; odd cases in the
// transposed arrangement.
TEST(VX_ClippingObject, PlaneAndSlabCutsFollowTheRowRule)
{
    VX_Box box = TestBox();
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1, 1);
    int checked = 0, skipped = 0;
    for (int k = 0; k < 40; ++k) {
        VX_Box g = TestBox(k % 2);
        VX_3Vec n(u(rng), u(rng), u(rng));
        if (k % 5 == 0) n = VX_Cross(Edge(g, 0), n);
        VX_3Vec at = box.GetCenter() + VX_3Vec(u(rng), u(rng), u(rng)) * 6.0f;
        VX_3Vec pl(n.x, n.y, n.z, -(n * at));
        VX_ClippingPlane plane = FreePlane(pl);
        VX_ClippingSlab slab;
        slab.SetPlane(pl);
        slab.SetThickness(4 + 3 * u(rng));
        std::vector<short> got = Cut(plane, nullptr, box, k % 2), gotSlab = Cut(slab, nullptr, box, k % 2);
        VX_3Vec sp = slab.plane;
        float h = slab.thickness * 0.5f;
        for (int e = 0, z = 0; z < 7; ++z)
            for (int y = 0; y < g.dims[1]; ++y, e += 2) {
                short row[2] = {0, (short)(g.dims[0] - 1)}, row2[2] = {row[0], row[1]};
                bool ok = PlaneRule(g, pl, y, z, row);
                ok = PlaneRule(g, VX_3Vec(sp.x, sp.y, sp.z, sp.w - h), y, z, row2) && ok;
                ok = PlaneRule(g, VX_3Vec(-sp.x, -sp.y, -sp.z, -(sp.w + h)), y, z, row2) && ok;
                if (!ok && ++skipped) continue;
                ++checked;
                ASSERT_TRUE(got[e] == row[0] && got[e + 1] == row[1] && gotSlab[e] == row2[0] &&
                            gotSlab[e + 1] == row2[1]) << k << " y " << y << " z " << z;
            }
    }
    EXPECT_GT(checked, 10 * skipped);

    // Screen-anchored: the box is carried into the virtual frame first.
    VX_ClippingObjectManager com(true);
    VX_Mat shift;
    shift.m[3][2] = 2;
    com.SetPhysicalToVirtual(shift);
    com.GetClippingPlane()->SetPlane(VX_3Vec(0.3f, 0.1f, 1, -12));
    VX_ClippingPlane same = FreePlane(VX_3Vec(0.3f, 0.1f, 1, -10));
    EXPECT_EQ(Cut(*com.GetClippingPlane(), &com, box), Cut(same, nullptr, box));
}

// 1 mm voxels at the origin (exact matrices). Almost parallel to the scanlines,
// t = -(y - 4.5) / a is held to +-22222 (rows 7), and |a| of exactly 0.0001 still
// steps t along the rows rather than deciding rows whole. A sphere touching a row keeps
// one voxel, and a missed row is emptied with its first left alone.
TEST(VX_ClippingObject, BoundaryRows)
{
    VX_Box grid(16, 8, 8);
    for (float a : {0.0001f, -0.0001f}) {
        VX_ClippingPlane plane = FreePlane(VX_3Vec(a, 1, 0, -5.5f));
        std::vector<short> got = Cut(plane, nullptr, grid);
        for (int e = 0; e < 2 * 8 * 8; e += 2) {
            int t = Hold(-(e / 2 % 8 - 4.5) / a), f = a > 0 ? 0 : std::max(0, t), l = a > 0 ? std::min(15, t) : 15;
            EXPECT_TRUE(std::abs(got[e] - f) <= 1 && std::abs(got[e + 1] - l) <= 1) << a << " " << e / 2 << ": " << got[e]
                                                                                  << " " << got[e + 1];
        }
    }

    VX_ClippingSphere s;
    Put(&s, VX_3Vec(6.5f, 5.5f, 3.5f), 2);   // voxel (6, 5, 3)
    std::vector<short> got = Cut(s, nullptr, grid);
    short const* z3 = &got[2 * 8 * 3];
    EXPECT_TRUE(z3[6] == 6 && z3[7] == 6);     // row 3 touches
    EXPECT_TRUE(z3[4] == 0 && z3[5] == -1);    // row 2 misses
    EXPECT_TRUE(got[2 * 8 * 5 + 10] == 6 && got[2 * 8 * 5 + 11] == 6);   // slice 5 touches
}

// Each row against the chord of its line through the sphere, voxel i at t = i:
// the sphere's cut (transposed in odd cases) takes the line through the voxel
// centres and keeps trunc(t0) .. trunc(t1); the mask of the active sphere and
// plane takes the line through the corners (0, y, z), further cut by the plane.
TEST(VX_ClippingObject, SphereCutAndMaskFollowTheChords)
{
    VX_Box box = TestBox();
    VX_3Vec n(0.6f, -0.2f, 0.3f);
    struct { float cx, cy, cz, r; } kCases[] = {{0, 6, 9, 5.5f}, {4, 9, 7, 9}, {-9, 0, 3, 4}, {200, 0, 0, 3}};
    int checked = 0, on = 0;
    for (auto const& k : kCases) {
        bool tr = (&k - kCases) % 2;
        VX_ClippingObjectManager com(true);
        auto s = com.GetClippingSphere();
        auto p = com.GetClippingPlane();
        Put(s.get(), VX_3Vec(k.cx, k.cy, k.cz), k.r);
        EXPECT_EQ(com.CreateRealBitVol(&box), nullptr);   // nothing active
        s->SetActive(true);
        p->SetPlane(VX_3Vec(n.x, n.y, n.z, -(n * box.GetCenter()))), p->SetActive(true);
        std::vector<short> got = Cut(*s, &com, box, tr);
        std::unique_ptr<VX_RealBitVol> bv(com.CreateRealBitVol(&box));
        ASSERT_TRUE(bv);
        for (float at : {0.5f, 0.0f}) {   // the centres' line, then the corners'
            VX_Box g = TestBox(tr && at > 0);
            VX_3Vec e0 = Edge(g, 0);
            for (int e = 0, z = 0; z < 7; ++z)
                for (int y = 0; y < g.dims[1]; ++y, e += 2) {
                    VX_3Vec pt = VX_3Vec(at, y + at, z + at) * g.GetIntToPhysTrans();
                    double t0, t1, t = -(n * pt + p->plane.w) / (double)(n * e0);
                    int a = 0, b = -1;
                    if (Chord(pt, e0, s->center, k.r, &t0, &t1)) {
                        if (at == 0 && n * e0 > 0) t1 = std::min(t1, t);
                        if (at == 0 && n * e0 <= 0) t0 = std::max(t0, t);
                        if (NearInt(t0) || NearInt(t1)) continue;
                        if (t0 <= t1) a = std::max(0, Hold(t0)), b = std::min(g.dims[0] - 1, Hold(t1));
                    }
                    ++checked;
                    if (at > 0) {
                        ASSERT_TRUE(got[e] == a && got[e + 1] == b) << k.r << " y " << y << " z " << z;
                        continue;
                    }
                    for (int x = 0; x < 13; ++x) {
                        on += bv->GetBit(x, y, z);
                        ASSERT_EQ(bv->GetBit(x, y, z), x >= a && x <= b) << k.r << " " << x << " " << y << " " << z;
                    }
                }
        }
    }
    EXPECT_GT(checked, 560);
    EXPECT_GT(on, 100);

    // With the interrupt raised no row is touched and the cut fails.
    VX_ClippingSphere s;
    s.SetRadius(3);
    s.multithread.SetInterruptRequest(true);
    bool ok = true;
    std::vector<short> got = Cut(s, nullptr, box, false, &ok);
    s.multithread.SetInterruptRequest(false);   // shared by every sphere
    EXPECT_FALSE(ok);
    for (size_t i = 0; i < got.size(); i += 2) EXPECT_TRUE(got[i] == 0 && got[i + 1] == 12) << i;
}
