#ifndef VXTOOL_QUIET_H
#define VXTOOL_QUIET_H

#include <unistd.h>

#include <cstdio>
#include <string>

namespace vxtool {

// Runs fn with stdout sent to a temporary file, and returns what it printed.
template <class Fn>
inline std::string quietly(Fn fn) {
    std::fflush(stdout);
    std::FILE* tmp = std::tmpfile();
    int saved = tmp ? dup(1) : -1;
    if (saved < 0 || dup2(fileno(tmp), 1) < 0) {
        if (saved >= 0)
            close(saved);
        if (tmp)
            std::fclose(tmp);
        fn();
        return std::string();
    }
    fn();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string text;
    std::rewind(tmp);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, tmp)) > 0)
        text.append(buf, n);
    std::fclose(tmp);
    return text;
}

}  // namespace vxtool

#endif
