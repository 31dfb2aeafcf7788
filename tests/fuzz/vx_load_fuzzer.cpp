// libFuzzer entry for VX_VolData::Load. Each input is written to a temporary
// file and loaded into a fresh volume, then again into the same one; a volume
// that loads has every voxel read.
//
// With VX_FUZZ_SEEDS=<dir> in the environment the program instead writes a
// few small valid volume files into <dir> (the seed corpus) and exits.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "VX.h"

namespace {

std::string s_path;

void removeInputFile() { unlink(s_path.c_str()); }

bool saveSeed(std::string const& path, int X, int Y, int Z, float turn)
{
    VX_PhysBox place(X * 0.7f, Y * 0.7f, Z * 1.25f);
    place.Rotate(turn, 2);
    place.Translate(-120.0f, 35.0f, 410.0f);
    VX_Box box(place, X, Y, Z);
    VX_VolData v(&box);
    v.Allocate();
    for (int z = 0; z < Z; ++z)
        for (int i = 0; i < X * Y; ++i) v.slices[z][i] = (short)(i * 37 - z * 1000 - 500);
    v.SetRescaleSlope(1.0f);
    v.SetRescaleIntercept(-1024.0f);
    v.SetThickness(1.5f);
    v.SetMinPixelValue(-2048);
    v.SetMaxPixelValue(4095);
    return v.Save(path.c_str());
}

int writeSeeds(char const* dir)
{
    const int shapes[][3] = {{1, 1, 1}, {3, 2, 4}, {5, 4, 3}, {8, 8, 2}, {4, 4, 0}, {2, 3, 16}};
    int n = 0;
    for (auto const& s : shapes) {
        std::string path = std::string(dir) + "/seed_" + std::to_string(n) + ".vol";
        if (!saveSeed(path, s[0], s[1], s[2], 0.1f * n)) return 1;
        ++n;
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (char const* dir = getenv("VX_FUZZ_SEEDS")) exit(writeSeeds(dir));
    char const* tmp = getenv("TMPDIR");
    std::string dir = tmp && *tmp ? tmp : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    s_path = dir + "/vx_load_fuzz_" + std::to_string(getpid()) + ".vol";
    atexit(removeInputFile);
    // Load reports its progress on standard output; libFuzzer writes to standard error.
    if (!freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size)
{
    unlink(s_path.c_str());  // a new file each time: rewriting one in place can be slow
    FILE* f = fopen(s_path.c_str(), "wb");
    if (!f) abort();
    if (size && fwrite(data, 1, size, f) != size) abort();
    fclose(f);
    VX_Box box(2, 2, 2);
    VX_VolData v(&box);
    v.Allocate();
    volatile long sink = 0;
    for (int pass = 0; pass < 2; ++pass) {
        if (!v.Load(s_path.c_str())) continue;
        long sum = 0;
        for (int z = 0; z < v.sliceCount; ++z)
            for (int i = 0; i < v.box.GetSliceSize(); ++i) sum += v.slices[z][i];
        sink = sink + sum;
    }
    return 0;
}
