#include "ClipReport.h"

#include <boost/shared_ptr.hpp>
#include <cstdio>

#include "Quiet.h"

namespace vxtool {

namespace {

boost::shared_ptr<VX_ClippingObject> makeObject(ClipSpec const& c) {
    if (c.kind == ClipSpec::Kind::Sphere) {
        boost::shared_ptr<VX_ClippingSphere> s(new VX_ClippingSphere());
        s->SetCenter(VX_3Vec(c.v[0], c.v[1], c.v[2], 0));
        s->SetRadius(c.v[3]);
        return s;
    }
    boost::shared_ptr<VX_ClippingPlane> p(new VX_ClippingPlane());
    p->SetPlane(VX_3Vec(c.v[0], c.v[1], c.v[2], c.v[3]));
    return p;
}

// Scanlines with at least one voxel inside the volume's x range after the
// reader's clamping; -1 when the calculation gave no array (nothing clips).
long long keptScanlines(Volume& vol, std::vector<ClipSpec> const& clips) {
    VX_ClippingObjectManager objects(false);
    for (ClipSpec const& c : clips) {
        boost::shared_ptr<VX_ClippingObject> o = makeObject(c);
        objects.AddClippingObject(o);
        o->SetActive(true);
    }
    long long kept = -1;
    // The bounds manager prints its progress lines; the tool keeps them off stdout.
    quietly([&] {
        VX_ClippingBoundsManager bounds;
        bounds.SetBox(vol.box);
        bounds.SetClippingObjectManager(&objects);
        short const* b = bounds.GetCBounds(true);
        if (!b)
            return;
        long long rows = (long long)vol.dims[1] * vol.dims[2];
        kept = 0;
        for (long long r = 0; r < rows; ++r) {
            int first = b[2 * r] < 0 ? 0 : b[2 * r];
            int last = b[2 * r + 1] > vol.dims[0] - 1 ? vol.dims[0] - 1 : b[2 * r + 1];
            kept += first <= last;
        }
    });
    return kept;
}

void printShare(char const* what, std::string const& text, long long kept, long long rows) {
    if (kept < 0)
        kept = rows;
    std::printf("clip %-6s %-24s %5.1f%% of %lld scanlines kept\n", what, text.c_str(),
                rows ? 100.0 * (double)kept / (double)rows : 0.0, rows);
}

}  // namespace

void ReportClipping(Volume& vol, std::vector<ClipSpec> const& clips) {
    long long rows = (long long)vol.dims[1] * vol.dims[2];
    for (ClipSpec const& c : clips)
        printShare(c.kind == ClipSpec::Kind::Sphere ? "sphere" : "plane", c.text,
                   keptScanlines(vol, {c}), rows);
    if (clips.size() > 1)
        printShare("all", "", keptScanlines(vol, clips), rows);
}

}  // namespace vxtool
