#include <cstdio>

#include "Commands.h"
#include "Options.h"
#include "VolumeIO.h"

namespace vxtool {

namespace {

void printConvertUsage() {
    std::printf(
        "usage: vx convert --in VOLUME --out VOLUME\n"
        "\n"
        "Converts between the two volume forms, voxel for voxel:\n"
        "  NAME.raw + NAME.json   int16 little-endian voxels, x fastest, with a JSON\n"
        "                         sidecar (dims, spacing_mm, origin_mm, rescale_slope,\n"
        "                         rescale_intercept); either file or the stem may be given\n"
        "  FILE.vxv               the library's volume file (VX_VolData::Save / Load)\n"
        "The form of each side follows its name: a path ending in .vxv is a volume\n"
        "file, anything else raw + JSON. The voxels, box, slice thickness, value range\n"
        "and rescale travel unchanged; a volume file's box is written to JSON as its\n"
        "origin corner and edge lengths, so an oblique box loses its orientation.\n"
        "\n"
        "Options:\n"
        "  --in VOLUME    the volume to read (required)\n"
        "  --out VOLUME   the volume to write (required)\n"
        "  -h, --help     show this help\n");
}

void printInfoUsage() {
    std::printf(
        "usage: vx info VOLUME\n"
        "\n"
        "Prints the dims, spacing, origin, slice thickness, stored and actual value\n"
        "range and rescale of a volume (FILE.vxv, or NAME.raw with NAME.json).\n"
        "\n"
        "Options:\n"
        "  -h, --help   show this help\n");
}

int readError(std::string const& file, std::string const& reason) {
    std::fprintf(stderr, "vx: cannot read volume '%s': %s\n", file.c_str(), reason.c_str());
    return kExitUsage;
}

}  // namespace

int RunConvert(int argc, char** argv) {
    OptionSet opts("convert", {"in", "out"});
    if (!opts.Parse(argc, argv, 2))
        return kExitUsage;
    if (opts.HelpWanted()) {
        printConvertUsage();
        return kExitOk;
    }
    if (!opts.Has("in") || opts.Get("in").empty())
        return UsageError("convert needs --in VOLUME (see 'vx convert --help')");
    if (!opts.Has("out") || opts.Get("out").empty())
        return UsageError("convert needs --out VOLUME (see 'vx convert --help')");

    Volume vol;
    std::string file, reason;
    if (!ReadAnyVolume(opts.Get("in"), &vol, &file, &reason))
        return readError(file, reason);
    std::string out = opts.Get("out");
    bool ok;
    if (IsVolumeFile(out)) {
        file = out;
        ok = WriteVolumeFile(out, vol, &reason);
    } else {
        ok = WriteVolume(ResolveVolumePaths(out), vol, &file, &reason);
    }
    if (!ok) {
        std::fprintf(stderr, "vx: cannot write volume '%s': %s\n", file.c_str(), reason.c_str());
        return kExitFailure;
    }
    std::printf("%s  %dx%dx%d\n", out.c_str(), vol.dims[0], vol.dims[1], vol.dims[2]);
    return kExitOk;
}

int RunInfo(int argc, char** argv) {
    std::string path;
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            printInfoUsage();
            return kExitOk;
        }
        if (!path.empty() || (a.size() > 1 && a[0] == '-'))
            return UsageError("unexpected argument '" + a + "' for 'info' (see 'vx info --help')");
        path = a;
    }
    if (path.empty())
        return UsageError("info needs a VOLUME (see 'vx info --help')");

    Volume vol;
    std::string file, reason;
    if (!ReadAnyVolume(path, &vol, &file, &reason))
        return readError(file, reason);
    VX_VolData const& d = *vol.data;
    int storedMin = d.GetMinPixelValue(), storedMax = d.GetMaxPixelValue();
    vol.UpdateRange();
    std::printf("file        %s\n", file.c_str());
    std::printf("dims        %d x %d x %d\n", vol.dims[0], vol.dims[1], vol.dims[2]);
    std::printf("spacing     %g x %g x %g mm\n", vol.spacing[0], vol.spacing[1], vol.spacing[2]);
    std::printf("origin      %g, %g, %g mm\n", vol.origin[0], vol.origin[1], vol.origin[2]);
    std::printf("thickness   %g mm\n", d.GetThickness());
    std::printf("values      %d .. %d raw (stored range %d .. %d)\n", d.GetMinPixelValue(),
                d.GetMaxPixelValue(), storedMin, storedMax);
    std::printf("rescale     slope %g, intercept %g: %g .. %g\n", d.GetRescaleSlope(),
                d.GetRescaleIntercept(), d.RawToHU((float)d.GetMinPixelValue()),
                d.RawToHU((float)d.GetMaxPixelValue()));
    return kExitOk;
}

}  // namespace vxtool
