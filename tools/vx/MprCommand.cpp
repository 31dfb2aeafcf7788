#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Commands.h"
#include "Options.h"
#include "ClipReport.h"
#include "VolumeIO.h"

namespace vxtool {

namespace {

constexpr int kMaxPictureSide = 8192;
constexpr float kMaxThickness = 2000.0f;  // mm; far beyond any scanner's field
constexpr float kMaxCoord = 1.0e5f;       // mm, for --center

void printMprUsage() {
    std::printf(
        "usage: vx mpr --in VOLUME --out FILE.png [OPTIONS]\n"
        "\n"
        "Cuts a planar section or slab through a volume and writes it as an 8-bit grey PNG.\n"
        "VOLUME is NAME.raw (int16 little-endian, x fastest) with its sidecar NAME.json\n"
        "(either file or the stem NAME may be given), or a volume file FILE.vxv.\n"
        "\n"
        "Options:\n"
        "  --in VOLUME          the volume to read (required)\n"
        "  --out FILE.png       the picture to write (required)\n"
        "  --normal NX,NY,NZ    normal of the plane in volume axes (default 0,0,1)\n"
        "  --center X,Y,Z       point of the plane in mm, shown in the middle of the\n"
        "                       picture (default: the volume's centre)\n"
        "  --thickness MM       slab thickness; 0 cuts a single section (default 0)\n"
        "  --mode avg|max|min   projection through the slab (default avg)\n"
        "  --interp nn|linear   sampling of a single section (default linear);\n"
        "                       slabs always interpolate\n"
        "  --size WxH           picture size in pixels (default 512x512); the scale\n"
        "                       makes the picture span the volume's longest side\n"
        "  --window W/L         grey window width and level, rescaled units such as HU\n"
        "                       (default 400/40)\n"
        "  --rotate             sample in a frame turned about the normal so that rows\n"
        "                       run along a volume axis, then warp to the picture\n"
        "  --clip-sphere X,Y,Z,R   a clipping sphere (mm); prints the share of the\n"
        "                       volume's scanlines it keeps\n"
        "  --clip-plane A,B,C,D    a clipping plane, keeping A x + B y + C z + D <= 0\n"
        "                       (mm); prints the share of scanlines it keeps, and with\n"
        "                       both options the share that both keep\n"
        "  -h, --help           show this help\n"
        "\n"
        "The picture is seen looking along the normal. Its downward axis follows +y when\n"
        "the normal is nearest to z, and -z (superior up) otherwise.\n");
}

bool badValue(char const* option, std::string const& value, char const* expected) {
    UsageError(std::string("bad value for ") + option + ": '" + value + "' (expected " +
               expected + ")");
    return false;
}

struct MprRequest {
    std::string in, out;
    Section section;
    Window window;
    bool hasCenter = false;
    std::vector<ClipSpec> clips;
};

// Reads and checks every option before any file is touched.
bool readRequest(OptionSet const& opts, MprRequest* r) {
    if (!opts.Has("in")) {
        UsageError("mpr needs --in VOLUME (see 'vx mpr --help')");
        return false;
    }
    if (!opts.Has("out")) {
        UsageError("mpr needs --out FILE.png (see 'vx mpr --help')");
        return false;
    }
    r->in = opts.Get("in");
    r->out = opts.Get("out");
    if (r->in.empty())
        return badValue("--in", r->in, "a volume path");
    if (r->out.empty())
        return badValue("--out", r->out, "a file path");
    Section& s = r->section;
    if (opts.Has("normal")) {
        float u[3], v[3], n[3];
        if (!ParseTriple(opts.Get("normal"), s.normal) || !PictureFrame(s.normal, u, v, n))
            return badValue("--normal", opts.Get("normal"), "three numbers NX,NY,NZ, not all 0");
    }
    if (opts.Has("center")) {
        if (!ParseTriple(opts.Get("center"), s.center) || std::fabs(s.center[0]) > kMaxCoord ||
            std::fabs(s.center[1]) > kMaxCoord || std::fabs(s.center[2]) > kMaxCoord)
            return badValue("--center", opts.Get("center"), "three numbers X,Y,Z in mm");
        r->hasCenter = true;
    }
    if (opts.Has("thickness")) {
        if (!ParseNumber(opts.Get("thickness"), &s.thickness) || s.thickness < 0 ||
            s.thickness > kMaxThickness)
            return badValue("--thickness", opts.Get("thickness"), "a number of mm, 0 to 2000");
    }
    if (opts.Has("mode")) {
        std::string m = opts.Get("mode");
        if (m == "avg")
            s.mode = SlabMode::Average;
        else if (m == "max")
            s.mode = SlabMode::Maximum;
        else if (m == "min")
            s.mode = SlabMode::Minimum;
        else
            return badValue("--mode", m, "avg, max or min");
    }
    if (opts.Has("interp")) {
        std::string m = opts.Get("interp");
        if (m == "nn")
            s.linear = false;
        else if (m == "linear")
            s.linear = true;
        else
            return badValue("--interp", m, "nn or linear");
    }
    if (opts.Has("size") && !ParseSize(opts.Get("size"), kMaxPictureSide, &s.width, &s.height))
        return badValue("--size", opts.Get("size"), "WxH, each 1 to 8192");
    s.rotate = opts.Has("rotate");
    if (opts.Has("clip-sphere")) {
        ClipSpec c{ClipSpec::Kind::Sphere, {0, 0, 0, 0}, opts.Get("clip-sphere")};
        if (!ParseNumbers(c.text, 4, c.v) || !(c.v[3] > 0))
            return badValue("--clip-sphere", c.text, "X,Y,Z,R in mm with R above 0");
        r->clips.push_back(c);
    }
    if (opts.Has("clip-plane")) {
        ClipSpec c{ClipSpec::Kind::Plane, {0, 0, 0, 0}, opts.Get("clip-plane")};
        if (!ParseNumbers(c.text, 4, c.v) || (c.v[0] == 0 && c.v[1] == 0 && c.v[2] == 0))
            return badValue("--clip-plane", c.text, "A,B,C,D with A, B, C not all 0");
        r->clips.push_back(c);
    }
    if (opts.Has("window") &&
        !ParseWindow(opts.Get("window"), &r->window.width, &r->window.level))
        return badValue("--window", opts.Get("window"), "W/L with W above 0");
    return true;
}

}  // namespace

int RunMpr(int argc, char** argv) {
    OptionSet opts("mpr",
                   {"in", "out", "normal", "center", "thickness", "mode", "interp", "size",
                    "window", "clip-sphere", "clip-plane"},
                   {"rotate"});
    if (!opts.Parse(argc, argv, 2))
        return kExitUsage;
    if (opts.HelpWanted()) {
        printMprUsage();
        return kExitOk;
    }
    MprRequest r;
    if (!readRequest(opts, &r))
        return kExitUsage;

    Volume vol;
    std::string file, reason;
    if (!ReadAnyVolume(r.in, &vol, &file, &reason)) {
        std::fprintf(stderr, "vx: cannot read volume '%s': %s\n", file.c_str(), reason.c_str());
        return kExitUsage;
    }
    Section s = r.section;
    if (!r.hasCenter) {
        VX_3Vec c = vol.Center();
        s.center[0] = c.x;
        s.center[1] = c.y;
        s.center[2] = c.z;
    }
    s.mmpp = vol.LargestExtent() / (float)std::min(s.width, s.height);
    int status = EmitPicture(vol, s, r.window, r.out, r.out);
    if (status == kExitOk && !r.clips.empty())
        ReportClipping(vol, r.clips);
    return status;
}

}  // namespace vxtool
