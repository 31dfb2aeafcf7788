#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "VX.h"
#include "support/VX_TestData.h"

using vxtest::Captured;

namespace {

typedef std::vector<unsigned char> Bytes;
typedef std::vector<std::pair<int, int32_t>> Edits;  // file offset, new 32-bit word

std::string TempPath(std::string const& name) { return testing::TempDir() + "vx_voldata_" + name; }

Bytes ReadAll(std::string const& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A new file each time: truncating one in place can make closing it slow.
void WriteAll(std::string const& path, Bytes const& b)
{
    unlink(path.c_str());
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<char const*>(b.data()), (std::streamsize)b.size());
}

template <class T>
T At(Bytes const& b, size_t off) { T v; memcpy(&v, b.data() + off, sizeof v); return v; }
template <class T>
void Put(Bytes& b, size_t off, T v) { memcpy(b.data() + off, &v, sizeof v); }

int Pattern(int x, int y, int z) { return x * 300 - y * 7 + z * 1000 - 20000; }

// A turned and moved volume with every saved field set, and its file.
std::unique_ptr<VX_VolData> SampleVolume(int X, int Y, int Z, std::string const& path, Bytes* file)
{
    VX_Box b = vxtest::MakeBox(X, Y, Z, 0.5f, 0.75f, 2.5f, VX_3Vec(-100, 20, 300, 0));
    b.Rotate(0.3f, 2);
    auto v = vxtest::MakeVolume(b, Pattern);
    v->thickness = 3.0f, v->rescaleSlope = 0.5f, v->rescaleIntercept = -1024.0f;
    v->minPixelValue = -2000, v->maxPixelValue = 3000;
    EXPECT_EQ(Captured([&] { EXPECT_TRUE(v->Save(path.c_str())); }), "");
    *file = ReadAll(path);
    return v;
}

std::string Progress(int upTo, int count)
{
    std::string s;
    for (int i = 0; i <= upTo; ++i) s += std::to_string(i) + " / " + std::to_string(count) + " \r";
    return s;
}

// The same placement and the first n slices (all of them by default).
void ExpectSameVolume(VX_VolData& a, VX_VolData& b, int n = -1)
{
    ASSERT_TRUE(a.box == b.box && a.transposedBox == b.transposedBox && a.sliceCount == b.sliceCount);
    EXPECT_EQ(memcmp(a.box.vecs, b.box.vecs, sizeof a.box.vecs), 0);
    for (int z = 0; z < (n < 0 ? a.sliceCount : n); ++z)
        ASSERT_EQ(memcmp(a.slices[z], b.slices[z], (size_t)a.box.GetSliceSize() * 2), 0) << "slice " << z;
}

}  // namespace

TEST(VX_VolDataFile, SaveWritesTheLayoutAndLoadRestoresIt)
{
    Bytes f;
    auto v = SampleVolume(5, 4, 3, TempPath("layout.vol"), &f);
    ASSERT_EQ(f.size(), 222u + 5 * 4 * 3 * 2);
    EXPECT_EQ(std::string(f.begin(), f.begin() + 10), "VX_VolDat2");
    EXPECT_TRUE(At<float>(f, 22 + 16) == v->box.vecs[1].x && At<float>(f, 22 + 56) == v->box.vecs[3].z);
    EXPECT_EQ(At<float>(f, 102 + 20), v->transposedBox.vecs[1].y);
    const int ints[][2] = {{86, 5}, {90, 4}, {94, 3}, {166, 4}, {170, 5}, {174, 3}, {194, 3}, {198, -2000}, {202, 3000}};
    for (auto const& w : ints) EXPECT_EQ(At<int32_t>(f, w[0]), w[1]) << w[0];
    EXPECT_EQ(At<uint32_t>(f, 178), 1u);  // ownsSlices, then zero padding
    EXPECT_TRUE(At<float>(f, 210) == 3.0f && At<float>(f, 214) == 0.5f && At<float>(f, 218) == -1024.0f);
    EXPECT_EQ(At<int16_t>(f, 222 + 40 + 2 * (2 + 3 * 5)), Pattern(2, 3, 1));

    // Into an object of another shape holding a placeholder, transposed slices and a low-res copy.
    VX_Box other(7, 2, 9);
    VX_VolData w(&other);
    w.Init();
    w.GetTransposedSlices();
    w.CreateLowRes(false, 2);
    EXPECT_EQ(Captured([&] { EXPECT_TRUE(w.Load(TempPath("layout.vol").c_str())); }), Progress(2, 3));
    ExpectSameVolume(w, *v);
    EXPECT_TRUE(w.IsLoaded() && w.ownsSlices && !w.lowRes && !w.transposedSlices && !w.blankSlice);
    EXPECT_TRUE(w.GetThickness() == 3.0f && w.GetRescaleSlope() == 0.5f && w.GetRescaleIntercept() == -1024.0f &&
                w.GetMinPixelValue() == -2000 && w.GetMaxPixelValue() == 3000);
    EXPECT_EQ(w.GetTransposedSlices()[2][1], vxtest::Voxel(w, 0, 1, 2));

    // No slices: 222 bytes, and nothing printed either way.
    VX_Box none(3, 3, 0);
    VX_VolData e(&none), e2(&other);
    const std::string empty = TempPath("empty.vol");
    EXPECT_EQ(Captured([&] { EXPECT_TRUE(e.Save(empty.c_str())); }), "");
    EXPECT_EQ(ReadAll(empty).size(), 222u);
    EXPECT_EQ(Captured([&] { EXPECT_TRUE(e2.Load(empty.c_str())); }), "");
    EXPECT_TRUE(e2.sliceCount == 0 && e2.box.GetX() == 3 && e2.IsLoaded());
}

TEST(VX_VolDataFile, FailureMessagesAndImpossibleHeaders)
{
    Bytes g;
    const std::string good = TempPath("good.vol"), bad = TempPath("bad.vol"), missing = "/nonexistent-dir/x.vol";
    auto v = SampleVolume(6, 5, 6, good, &g);
    VX_VolData w(&v->box);
    EXPECT_EQ(Captured([&] { EXPECT_FALSE(v->Save(missing.c_str())); }), "error write opening file : " + missing + "\n");
    EXPECT_EQ(Captured([&] { EXPECT_FALSE(w.Load(missing.c_str())); }), "error read opening file : " + missing + "\n");
    // X at 86, Y at 90, Z at 94, sliceCount at 194; a slice is 60 bytes.
    const std::string err = "error reading\n", cut3 = Progress(3, 6) + "error reading slice 3\n";
    struct Case { Edits edits; size_t size; std::string out; };
    const Case cases[] = {
        {{}, 9, err},
        {{{0, 0x565857}}, 10, "Not a VX_VolData 9/5/11 file\n"},
        {{}, 110, err},  // the magic and 100 bytes
        {{}, 222, Progress(0, 6) + "error reading slice 0\n"},
        {{{86, -1}}, g.size(), err},                       // negative dims
        {{{194, 5}}, g.size(), err},                        // sliceCount != Z
        {{{86, 1 << 30}}, g.size(), err},                   // X * Y * 2 beyond 31 bits
        {{{86, 1 << 25}, {94, 16}, {194, 16}}, g.size(), err},  // X * Y * Z beyond 31 bits
        {{{86, 0}, {94, 1 << 20}, {194, 1 << 20}}, 222, err},   // empty slices by the million
        {{{94, 100000}, {194, 100000}}, 222 + 2 * 60 + 5, Progress(2, 100000) + "error reading slice 2\n"},
        {{}, 222 + 3 * 60, cut3},
        {{}, 222 + 3 * 60 + 17, cut3},
    };
    for (Case const& c : cases) {
        Bytes b = g;
        for (auto const& e : c.edits) Put(b, e.first, e.second);
        b.resize(c.size);
        WriteAll(bad, b);
        EXPECT_EQ(Captured([&] { EXPECT_FALSE(w.Load(bad.c_str())); }), c.out) << c.size;
    }
    // Cut in slice 3: a complete object whose first three slices are read.
    ASSERT_TRUE(w.sliceCount == 6 && w.box.GetZ() == 6);
    ExpectSameVolume(w, *v, 3);
    EXPECT_EQ(Captured([&] { EXPECT_TRUE(w.Load(good.c_str())); }), Progress(5, 6));
    ExpectSameVolume(w, *v);
    // NaN and infinite placement, thickness and rescale values are just stored; opaque words are ignored.
    Put(g, 22, NAN), Put(g, 102 + 20, INFINITY), Put(g, 210, -INFINITY), Put(g, 218, NAN);
    for (int off : {10, 14, 18, 98, 182, 186, 190, 206}) Put(g, off, -1);
    WriteAll(bad, g);
    EXPECT_EQ(Captured([&] { EXPECT_TRUE(w.Load(bad.c_str())); }), Progress(5, 6));
    EXPECT_TRUE(isnan(w.box.vecs[0].x) && isinf(w.transposedBox.vecs[1].y) && isnan(w.rescaleIntercept));

    // A full device fails on the first slice that passes the stream buffer.
    if (access("/dev/full", W_OK) == 0) {
        auto big = vxtest::MakeVolume(VX_Box(64, 64, 2), Pattern);
        EXPECT_EQ(Captured([&] { EXPECT_FALSE(big->Save("/dev/full")); }), "error writing slice 0\n");
    }
}

// Thousands of damaged files: header words set to edge or random values,
// flipped bytes, truncations, appended bytes. None may crash (the sanitizer
// build checks every access), and the object must take a good file afterwards.
TEST(VX_VolDataFile, DamagedFilesNeverBreakTheObject)
{
    Bytes g;
    const std::string good = TempPath("f_good.vol"), bad = TempPath("f_bad.vol");
    auto v = SampleVolume(6, 3, 4, good, &g);
    const int words[] = {86, 90, 94, 166, 170, 174, 194, 198, 202, 210};
    const int32_t special[] = {0, 1, -1, 2, 3, 4, 5, 6, 7, 65536, INT32_MAX, INT32_MIN, 1 << 15, 46341};
    std::mt19937 rng(20240607);
    auto pick = [&](size_t n) { return (size_t)(rng() % n); };
    VX_VolData w(&v->box);
    int loaded = 0;
    volatile long long sink = 0;
    testing::internal::CaptureStdout();
    for (int iter = 0; iter < 3000; ++iter) {
        Bytes b = g;
        for (int m = 1 + (int)pick(3); m > 0; --m) {
            switch (pick(5)) {
            case 0: Put<int32_t>(b, words[pick(10)], special[pick(14)]); break;
            case 1: Put<int32_t>(b, words[pick(10)], (int32_t)rng()); break;
            case 2: if (!b.empty()) b[pick(b.size())] ^= (unsigned char)(1 + pick(255)); break;
            case 3: b.resize(pick(b.size() + 1)); break;
            default: b.insert(b.end(), pick(200), (unsigned char)pick(256)); break;
            }
        }
        WriteAll(bad, b);
        if (!w.Load(bad.c_str())) continue;
        ++loaded;
        for (int z = 0; z < w.sliceCount; ++z)  // every voxel of a loaded volume is there to read
            for (int i = 0; i < w.box.GetSliceSize(); ++i) sink = sink + w.slices[z][i];
    }
    EXPECT_TRUE(w.Load(good.c_str()));
    testing::internal::GetCapturedStdout();
    EXPECT_GT(loaded, 0);
    ExpectSameVolume(w, *v);
}
