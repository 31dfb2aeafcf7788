#include "VolumeIO.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "Json.h"
#include "Quiet.h"

namespace vxtool {

namespace {

constexpr long long kMaxSidecarBytes = 1 << 20;

bool endsWith(std::string const& s, char const* suffix) {
    size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Opens a regular file for reading and gives its size.
bool openRegular(std::string const& path, File* f, long long* size, std::string* reason) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        *reason = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *reason = "not a regular file";
        return false;
    }
    f->reset(std::fopen(path.c_str(), "rb"));
    if (!*f) {
        *reason = std::strerror(errno);
        return false;
    }
    *size = (long long)st.st_size;
    return true;
}

bool readText(std::string const& path, std::string* text, std::string* reason) {
    File f;
    long long size;
    if (!openRegular(path, &f, &size, reason))
        return false;
    if (size > kMaxSidecarBytes) {
        *reason = "file is " + std::to_string(size) + " bytes, too large for a sidecar";
        return false;
    }
    text->resize((size_t)size);
    if (size > 0 && std::fread(&(*text)[0], 1, (size_t)size, f.get()) != (size_t)size) {
        *reason = "read error";
        return false;
    }
    return true;
}

// Reads a member that must be an array of three numbers.
bool triple(JsonValue const& doc, char const* key, bool required, double const* fallback,
            double out[3], std::string* reason) {
    JsonValue const* v = doc.Find(key);
    if (!v) {
        if (required) {
            *reason = std::string("missing \"") + key + "\"";
            return false;
        }
        for (int i = 0; i < 3; ++i) out[i] = fallback[i];
        return true;
    }
    if (!v->IsArray() || v->items.size() != 3) {
        *reason = std::string("\"") + key + "\" must be an array of three numbers";
        return false;
    }
    for (int i = 0; i < 3; ++i) {
        if (!v->items[i].IsNumber() || !std::isfinite(v->items[i].number)) {
            *reason = std::string("\"") + key + "\" must be an array of three numbers";
            return false;
        }
        out[i] = v->items[i].number;
    }
    return true;
}

bool scalar(JsonValue const& doc, char const* key, double fallback, double* out,
            std::string* reason) {
    JsonValue const* v = doc.Find(key);
    if (!v) {
        *out = fallback;
        return true;
    }
    if (!v->IsNumber() || !std::isfinite(v->number)) {
        *reason = std::string("\"") + key + "\" must be a number";
        return false;
    }
    *out = v->number;
    return true;
}

// A string member that, when present, must have the one supported value.
bool fixedString(JsonValue const& doc, char const* key, char const* expected,
                 std::string* reason) {
    JsonValue const* v = doc.Find(key);
    if (!v)
        return true;
    if (!v->IsString() || v->text != expected) {
        *reason = std::string("unsupported \"") + key + "\" (only \"" + expected + "\" is read)";
        return false;
    }
    return true;
}

struct Header {
    int dims[3];
    float spacing[3];
    float origin[3];
    float slope, intercept;
};

bool parseHeader(std::string const& text, Header* h, std::string* reason) {
    JsonValue doc;
    if (!ParseJson(text, &doc, reason))
        return false;
    if (!doc.IsObject()) {
        *reason = "not a JSON object";
        return false;
    }
    static double const zero[3] = {0, 0, 0};
    double d[3], s[3], o[3], slope, intercept;
    if (!triple(doc, "dims", true, zero, d, reason) ||
        !triple(doc, "spacing_mm", true, zero, s, reason) ||
        !triple(doc, "origin_mm", false, zero, o, reason) ||
        !scalar(doc, "rescale_slope", 1.0, &slope, reason) ||
        !scalar(doc, "rescale_intercept", 0.0, &intercept, reason) ||
        !fixedString(doc, "dtype", "int16", reason) ||
        !fixedString(doc, "byte_order", "little", reason))
        return false;
    for (int a = 0; a < 3; ++a) {
        if (d[a] != std::floor(d[a]) || d[a] < 1 || d[a] > kMaxDim) {
            *reason = "\"dims\" must be whole numbers in 1.." + std::to_string(kMaxDim);
            return false;
        }
        if (!(s[a] > 1e-6 && s[a] < 1e6)) {
            *reason = "\"spacing_mm\" must be positive";
            return false;
        }
        if (std::fabs(o[a]) > 1e7) {
            *reason = "\"origin_mm\" is out of range";
            return false;
        }
        h->dims[a] = (int)d[a];
        h->spacing[a] = (float)s[a];
        h->origin[a] = (float)o[a];
    }
    if ((long long)h->dims[0] * h->dims[1] > kMaxSliceVoxels) {
        *reason = "slices are too large";
        return false;
    }
    if (slope == 0 || std::fabs(slope) > 1e6 || std::fabs(intercept) > 1e7) {
        *reason = "\"rescale_slope\" or \"rescale_intercept\" is out of range";
        return false;
    }
    h->slope = (float)slope;
    h->intercept = (float)intercept;
    return true;
}

// Checks the file's size before allocating, so a wrong header cannot ask for
// more memory than the file could fill.
bool readVoxels(std::string const& path, Header const& h, Volume* vol, std::string* reason) {
    File f;
    long long size;
    if (!openRegular(path, &f, &size, reason))
        return false;
    long long sliceVoxels = (long long)h.dims[0] * h.dims[1];
    long long expected = sliceVoxels * h.dims[2] * 2;
    if (size != expected) {
        *reason = "file is " + std::to_string(size) + " bytes, expected " + std::to_string(expected);
        return false;
    }
    vol->Allocate(h.dims, h.spacing, h.origin);
    vol->data->SetRescaleSlope(h.slope);
    vol->data->SetRescaleIntercept(h.intercept);
    vol->data->SetThickness(h.spacing[2]);
    std::vector<unsigned char> bytes((size_t)sliceVoxels * 2);
    for (int z = 0; z < vol->dims[2]; ++z) {
        if (std::fread(bytes.data(), 1, bytes.size(), f.get()) != bytes.size()) {
            *reason = "read error at slice " + std::to_string(z);
            return false;
        }
        short* s = vol->data->slices[z];
        for (long long i = 0; i < sliceVoxels; ++i)
            s[i] = (short)(unsigned short)(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    }
    return true;
}

}  // namespace

VolumePaths ResolveVolumePaths(std::string const& path) {
    std::string stem = path;
    if (endsWith(path, ".raw") || endsWith(path, ".json"))
        stem = path.substr(0, path.rfind('.'));
    return VolumePaths{stem + ".raw", stem + ".json"};
}

bool ReadVolume(VolumePaths const& paths, Volume* vol, std::string* file, std::string* reason) {
    std::string text;
    Header h;
    *file = paths.json;
    if (!readText(paths.json, &text, reason) || !parseHeader(text, &h, reason))
        return false;
    *file = paths.raw;
    if (!readVoxels(paths.raw, h, vol, reason))
        return false;
    vol->UpdateRange();
    return true;
}

}  // namespace vxtool

namespace vxtool {

namespace {

// Shortest decimal text that reads back as the same float.
std::string floatText(float v) {
    char buf[32];
    for (int digits = 6; digits <= 9; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, (double)v);
        if (std::strtof(buf, nullptr) == v)
            break;
    }
    return buf;
}

std::string tripleText(float const v[3]) {
    return "[" + floatText(v[0]) + ", " + floatText(v[1]) + ", " + floatText(v[2]) + "]";
}

// The last line of the library's output that is not a progress line "i / n ".
std::string lastMessage(std::string const& text) {
    std::string last;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find_first_of("\r\n", start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        int a, b;
        char tail;
        bool progress = std::sscanf(line.c_str(), "%d / %d %c", &a, &b, &tail) == 2;
        if (!line.empty() && !progress)
            last = line;
        start = end + 1;
    }
    return last.empty() ? "unreadable volume file" : last;
}

}  // namespace

bool WriteVolume(VolumePaths const& paths, Volume const& vol, std::string* file,
                 std::string* reason) {
    *file = paths.raw;
    File f(std::fopen(paths.raw.c_str(), "wb"));
    if (!f) {
        *reason = std::strerror(errno);
        return false;
    }
    size_t n = (size_t)vol.dims[0] * (size_t)vol.dims[1];
    std::vector<unsigned char> bytes(n * 2);
    for (int z = 0; z < vol.dims[2]; ++z) {
        short const* s = vol.data->slices[z];
        for (size_t i = 0; i < n; ++i) {
            unsigned short u = (unsigned short)s[i];
            bytes[2 * i] = (unsigned char)(u & 0xff);
            bytes[2 * i + 1] = (unsigned char)(u >> 8);
        }
        if (std::fwrite(bytes.data(), 1, bytes.size(), f.get()) != bytes.size()) {
            *reason = "write error";
            return false;
        }
    }
    if (std::fclose(f.release()) != 0) {
        *reason = "write error";
        return false;
    }
    *file = paths.json;
    f.reset(std::fopen(paths.json.c_str(), "wb"));
    if (!f) {
        *reason = std::strerror(errno);
        return false;
    }
    std::string json = "{\n  \"dims\": [" + std::to_string(vol.dims[0]) + ", " +
                       std::to_string(vol.dims[1]) + ", " + std::to_string(vol.dims[2]) +
                       "],\n  \"spacing_mm\": " + tripleText(vol.spacing) +
                       ",\n  \"origin_mm\": " + tripleText(vol.origin) +
                       ",\n  \"rescale_slope\": " + floatText(vol.Slope()) +
                       ",\n  \"rescale_intercept\": " + floatText(vol.Intercept()) +
                       ",\n  \"dtype\": \"int16\",\n  \"byte_order\": \"little\"\n}\n";
    if (std::fwrite(json.data(), 1, json.size(), f.get()) != json.size() ||
        std::fclose(f.release()) != 0) {
        *reason = "write error";
        return false;
    }
    return true;
}

bool IsVolumeFile(std::string const& path) {
    return endsWith(path, ".vxv");
}

bool ReadVolumeFile(std::string const& path, Volume* vol, std::string* reason) {
    File probe;
    long long size;
    if (!openRegular(path, &probe, &size, reason))
        return false;
    probe.reset();
    VX_Box empty;
    vol->data = std::make_unique<VX_VolData>(&empty);
    bool ok = false;
    std::string said = quietly([&] { ok = vol->data->Load(path.c_str()); });
    if (!ok) {
        *reason = lastMessage(said);
        return false;
    }
    VX_Box const& b = vol->data->box;
    for (int a = 0; a < 3; ++a) {
        if (b.dims[a] < 1 || b.dims[a] > kMaxDim) {
            *reason = "dims must be 1.." + std::to_string(kMaxDim);
            return false;
        }
    }
    vol->box = b;
    for (int a = 0; a < 3; ++a) {
        vol->dims[a] = b.dims[a];
        vol->spacing[a] = b.GetMMPP(a);
    }
    vol->origin[0] = b.vecs[0].x;
    vol->origin[1] = b.vecs[0].y;
    vol->origin[2] = b.vecs[0].z;
    return true;
}

bool WriteVolumeFile(std::string const& path, Volume& vol, std::string* reason) {
    bool ok = false;
    int err = 0;
    std::string said = quietly([&] {
        errno = 0;
        ok = vol.data->Save(path.c_str());
        err = errno;
    });
    if (!ok)
        *reason = lastMessage(said) + (err ? std::string(" (") + std::strerror(err) + ")" : "");
    return ok;
}

bool ReadAnyVolume(std::string const& path, Volume* vol, std::string* file, std::string* reason) {
    if (IsVolumeFile(path)) {
        *file = path;
        return ReadVolumeFile(path, vol, reason);
    }
    return ReadVolume(ResolveVolumePaths(path), vol, file, reason);
}

}  // namespace vxtool
