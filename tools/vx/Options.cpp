#include "Options.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vxtool {

int UsageError(std::string const& message) {
    std::fprintf(stderr, "vx: %s\n", message.c_str());
    return kExitUsage;
}

bool OptionSet::Parse(int argc, char** argv, int first) {
    for (int i = first; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            help_ = true;
            continue;
        }
        if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
            UsageError("unexpected argument '" + arg + "' for '" + command_ + "' (see 'vx " +
                       command_ + " --help')");
            return false;
        }
        std::string name = arg.substr(2), value;
        size_t eq = name.find('=');
        bool inlineValue = eq != std::string::npos;
        if (inlineValue) {
            value = name.substr(eq + 1);
            name.resize(eq);
        }
        bool isFlag = false;
        for (auto const& f : flags_) isFlag = isFlag || f == name;
        if (isFlag) {
            if (inlineValue) {
                UsageError("option '--" + name + "' takes no value");
                return false;
            }
            values_[name] = "";
            continue;
        }
        bool known = false;
        for (auto const& n : names_) known = known || n == name;
        if (!known) {
            UsageError("unknown option '--" + name + "' for '" + command_ + "' (see 'vx " +
                       command_ + " --help')");
            return false;
        }
        if (!inlineValue) {
            if (i + 1 >= argc) {
                UsageError("option '--" + name + "' needs a value");
                return false;
            }
            value = argv[++i];
        }
        values_[name] = value;
    }
    return true;
}

bool ParseNumber(std::string const& text, float* out) {
    if (text.empty() || std::isspace((unsigned char)text[0]))
        return false;
    char* end = nullptr;
    errno = 0;
    double v = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(v) ||
        std::fabs(v) > 3.0e38)
        return false;
    *out = (float)v;
    return true;
}

bool ParseNumbers(std::string const& text, int n, float* out) {
    size_t start = 0;
    for (int i = 0; i < n; ++i) {
        size_t comma = text.find(',', start);
        bool last = i == n - 1;
        if (last != (comma == std::string::npos))
            return false;
        size_t end = last ? text.size() : comma;
        if (!ParseNumber(text.substr(start, end - start), &out[i]))
            return false;
        start = end + 1;
    }
    return true;
}

bool ParseTriple(std::string const& text, float out[3]) {
    return ParseNumbers(text, 3, out);
}

namespace {

bool parseSide(std::string const& text, int maxSide, int* out) {
    if (text.empty() || text.size() > 6)
        return false;
    int v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + (c - '0');
    }
    if (v < 1 || v > maxSide)
        return false;
    *out = v;
    return true;
}

}  // namespace

bool ParseSize(std::string const& text, int maxSide, int* width, int* height) {
    size_t x = text.find('x');
    if (x == std::string::npos)
        return false;
    return parseSide(text.substr(0, x), maxSide, width) &&
           parseSide(text.substr(x + 1), maxSide, height);
}

bool ParseWindow(std::string const& text, float* width, float* level) {
    size_t slash = text.find('/');
    if (slash == std::string::npos)
        return false;
    float w, l;
    if (!ParseNumber(text.substr(0, slash), &w) || !ParseNumber(text.substr(slash + 1), &l) ||
        !(w > 0))
        return false;
    *width = w;
    *level = l;
    return true;
}

}  // namespace vxtool
