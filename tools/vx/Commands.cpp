#include "Commands.h"

#include <cstdio>
#include <cstring>

#include "Options.h"
#include "PngWriter.h"

namespace vxtool {

namespace {

// Add new commands here; usage lists them in this order.
Command const kCommands[] = {
    {"demo", "render sections of a built-in CT-like phantom", RunDemo},
    {"mpr", "render a section or slab of a volume (NAME.raw + NAME.json)", RunMpr},
    {"convert", "convert a volume between NAME.raw + NAME.json and FILE.vxv", RunConvert},
    {"info", "print the dims, spacing, value range and rescale of a volume", RunInfo},
};

void printUsage(std::FILE* to) {
    std::fprintf(to,
                 "usage: vx COMMAND [OPTIONS]\n"
                 "\n"
                 "Planar reformats and slab projections of 16-bit CT/MR volumes.\n"
                 "\n"
                 "Commands:\n");
    for (Command const& c : kCommands)
        std::fprintf(to, "  %-8s %s\n", c.name, c.summary);
    std::fprintf(to,
                 "\n"
                 "Run 'vx COMMAND --help' for the options of a command.\n");
}

}  // namespace

int RunTool(int argc, char** argv) {
    if (argc < 2) {
        printUsage(stderr);
        return kExitUsage;
    }
    std::string name = argv[1];
    if (name == "-h" || name == "--help" || name == "help") {
        printUsage(stdout);
        return kExitOk;
    }
    for (Command const& c : kCommands)
        if (name == c.name)
            return c.run(argc, argv);
    return UsageError("unknown command '" + name + "' (see 'vx --help')");
}

int EmitPicture(Volume& vol, Section const& s, Window const& w, std::string const& path,
                std::string const& label) {
    double ms = 0;
    std::vector<short> raw = RenderSection(vol, s, &ms);
    std::vector<unsigned char> grey = ApplyWindow(raw, vol.Slope(), vol.Intercept(), w);
    std::string reason;
    if (!WriteGrayPng(path, s.width, s.height, grey, &reason)) {
        std::fprintf(stderr, "vx: cannot write '%s': %s\n", path.c_str(), reason.c_str());
        return kExitFailure;
    }
    std::printf("%s  %dx%d  %.2f ms\n", label.c_str(), s.width, s.height, ms);
    std::fflush(stdout);
    return kExitOk;
}

}  // namespace vxtool
