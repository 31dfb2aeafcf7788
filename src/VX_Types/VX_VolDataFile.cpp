#include "VX_VolData.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

// The file holds its numbers in the host's byte order, which must be little-endian.
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "VX_VolData files are little-endian; this host is not"
#endif

namespace {

// "VX_VolDat2", no terminator, then a 212-byte header, then the slices.
const char kMagic[] = "VX_VolDat2";
constexpr int kMagicBytes = 10;
constexpr int kHeaderBytes = 212;
constexpr long long kSlicesStart = kMagicBytes + kHeaderBytes;

// Header offsets of the fields. Every other word once held a memory address
// (or is padding): it is written as 0 and ignored when read.
constexpr int kBoxVecs = 12;
constexpr int kBoxDims = 76;
constexpr int kTransposedBoxVecs = 92;
constexpr int kTransposedBoxDims = 156;
constexpr int kOwnsSlices = 168;
constexpr int kSliceCount = 184;
constexpr int kMinPixelValue = 188;
constexpr int kMaxPixelValue = 192;
constexpr int kThickness = 200;
constexpr int kRescaleSlope = 204;
constexpr int kRescaleIntercept = 208;

// Behind each slice of X * Y * 2 bytes a volume holds 1024 bytes of stagger
// room (rounded to 64) and one slice pointer.
constexpr unsigned long long kSliceOverhead = 1024 + 64 + sizeof(short*);
// What a file that ends early may make Load allocate before its end is met:
// this many times the file's size, plus a fixed allowance.
constexpr unsigned long long kShortFileFactor = 8;
constexpr unsigned long long kShortFileAllowance = 1ull << 20;

void putWord(unsigned char* h, int off, void const* v) { memcpy(h + off, v, 4); }
int getInt(unsigned char const* h, int off)
{
    int v;
    memcpy(&v, h + off, 4);
    return v;
}
float getFloat(unsigned char const* h, int off)
{
    float v;
    memcpy(&v, h + off, 4);
    return v;
}

void putBox(unsigned char* h, int vecsOff, int dimsOff, VX_Box const& b)
{
    for (int i = 0; i < 4; ++i)
        for (int c = 0; c < 4; ++c) {
            float v = b.vecs[i][c];
            putWord(h, vecsOff + 16 * i + 4 * c, &v);
        }
    for (int a = 0; a < 3; ++a) putWord(h, dimsOff + 4 * a, &b.dims[a]);
}

void getBox(unsigned char const* h, int vecsOff, int dimsOff, VX_Box* b)
{
    for (int i = 0; i < 4; ++i)
        for (int c = 0; c < 4; ++c) b->vecs[i][c] = getFloat(h, vecsOff + 16 * i + 4 * c);
    for (int a = 0; a < 3; ++a) b->dims[a] = getInt(h, dimsOff + 4 * a);
}

// The bytes from the current position to the end of *f. A stream whose size
// cannot be known (a pipe) is first copied, up to `wanted` bytes, into a
// temporary file, which then replaces *f. -1 when that fails.
long long bytesAhead(FILE** f, unsigned long long wanted)
{
    struct stat st;
    long pos = ftell(*f);
    if (fstat(fileno(*f), &st) == 0 && S_ISREG(st.st_mode) && pos >= 0)
        return st.st_size > pos ? (long long)st.st_size - pos : 0;
    FILE* tmp = tmpfile();
    if (!tmp) return -1;
    char buf[1 << 14];
    long long total = 0;
    size_t n;
    while ((unsigned long long)total < wanted &&
           (n = fread(buf, 1, (size_t)std::min<unsigned long long>(sizeof buf, wanted - total), *f)) > 0) {
        if (fwrite(buf, 1, n, tmp) != n) {
            fclose(tmp);
            return -1;
        }
        total += (long long)n;
    }
    fclose(*f);
    *f = tmp;
    rewind(tmp);
    return total;
}

// Dims that a saved volume can have: none negative, a slice block's bytes and
// the voxel count within 31 bits.
bool possibleDims(int X, int Y, int Z)
{
    if (X < 0 || Y < 0 || Z < 0) return false;
    const long long plane = (long long)X * Y;
    return plane * 2 <= INT_MAX - 1024 && plane * Z <= INT_MAX;
}

// How many slices Load makes for possible dims and `ahead` bytes of slices in
// the file: all Z when the file holds them, or when allocating all of them
// costs no more than a small multiple of the file's size; otherwise (a file
// cut short) only the slices wholly in the file. -1 for empty slices (X or Y
// 0) so many that their blocks alone exceed that allowance.
long long slicesToMake(int X, int Y, int Z, long long ahead)
{
    const unsigned long long sliceBytes = (unsigned long long)X * Y * 2;
    const unsigned long long whole = sliceBytes ? (unsigned long long)ahead / sliceBytes : (unsigned long long)Z;
    const unsigned long long cost = (sliceBytes + kSliceOverhead) * (unsigned long long)Z;
    const unsigned long long budget =
        kShortFileFactor * (unsigned long long)(kSlicesStart + ahead) + kShortFileAllowance;
    if (whole >= (unsigned long long)Z) return sliceBytes == 0 && cost > budget ? -1 : Z;
    return cost <= budget ? Z : (long long)whole;
}

bool failRead(FILE* f)
{
    printf("error reading\n");
    fclose(f);
    return false;
}

}  // namespace

// On a failed write the file is deliberately left open (Load, by contrast,
// always closes).
bool VX_VolData::Save(char const* path)
{
    FILE* f = fopen(path, "wb");
    if (!f) {
        printf("error write opening file : %s\n", path);
        return false;
    }
    unsigned char h[kHeaderBytes] = {};
    putBox(h, kBoxVecs, kBoxDims, box);
    putBox(h, kTransposedBoxVecs, kTransposedBoxDims, transposedBox);
    h[kOwnsSlices] = ownsSlices ? 1 : 0;
    putWord(h, kSliceCount, &sliceCount);
    putWord(h, kMinPixelValue, &minPixelValue);
    putWord(h, kMaxPixelValue, &maxPixelValue);
    putWord(h, kThickness, &thickness);
    putWord(h, kRescaleSlope, &rescaleSlope);
    putWord(h, kRescaleIntercept, &rescaleIntercept);
    if (fwrite(kMagic, 1, kMagicBytes, f) != (size_t)kMagicBytes || fwrite(h, 1, kHeaderBytes, f) != (size_t)kHeaderBytes) {
        printf("error writing\n");
        return false;
    }
    const size_t n = (size_t)box.GetX() * box.GetY();
    for (int i = 0; i < sliceCount; ++i)
        if (fwrite(slices[i], sizeof(short), n, f) != n) {
            printf("error writing slice %d\n", i);
            return false;
        }
    fclose(f);
    return true;
}

// Releases everything first, then reads the header into the fields and the
// slices into new owned storage, printing "i / n \r" before each. The header
// is checked before anything is allocated. When a file cut short promises
// slices that would cost too much, the volume keeps only the slices wholly in
// the file (Z and sliceCount cut to their count), while the messages stay
// those of a reader that fails in the first incomplete slice.
bool VX_VolData::Load(char const* path)
{
    Free();
    sliceCount = 0;
    FILE* f = fopen(path, "rb");
    if (!f) {
        printf("error read opening file : %s\n", path);
        return false;
    }
    char magic[kMagicBytes + 1];
    if (fread(magic, 1, kMagicBytes, f) != (size_t)kMagicBytes) return failRead(f);
    magic[kMagicBytes] = 0;
    if (strcmp(magic, kMagic) != 0) {
        printf("Not a VX_VolData 9/5/11 file\n");
        fclose(f);
        return false;
    }
    unsigned char h[kHeaderBytes];
    if (fread(h, 1, kHeaderBytes, f) != (size_t)kHeaderBytes) return failRead(f);

    VX_Box fileBox, fileTransposedBox;
    getBox(h, kBoxVecs, kBoxDims, &fileBox);
    getBox(h, kTransposedBoxVecs, kTransposedBoxDims, &fileTransposedBox);
    const int X = fileBox.GetX(), Y = fileBox.GetY(), Z = fileBox.GetZ();
    const int count = getInt(h, kSliceCount);
    if (!possibleDims(X, Y, Z) || count != Z) return failRead(f);
    const long long ahead = bytesAhead(&f, (unsigned long long)X * Y * 2 * Z);
    const long long make = ahead < 0 ? -1 : slicesToMake(X, Y, Z, ahead);
    if (make < 0) return failRead(f);

    box = fileBox;
    transposedBox = fileTransposedBox;
    box.dims[2] = (int)make;
    if (make < Z) transposedBox.dims[2] = (int)make;
    minPixelValue = getInt(h, kMinPixelValue);
    maxPixelValue = getInt(h, kMaxPixelValue);
    thickness = getFloat(h, kThickness);
    rescaleSlope = getFloat(h, kRescaleSlope);
    rescaleIntercept = getFloat(h, kRescaleIntercept);
    delete[] blankSlice;
    blankSlice = nullptr;
    sliceCount = (int)make;
    slices = new short*[sliceCount];
    Allocate();

    const size_t n = (size_t)X * Y;
    for (int i = 0; i < count; ++i) {
        printf("%d / %d \r", i, count);
        fflush(stdout);
        if (i >= sliceCount || fread(slices[i], sizeof(short), n, f) != n) {
            printf("error reading slice %d\n", i);
            fclose(f);
            return false;
        }
    }
    fclose(f);
    return true;
}
