#ifndef VXTOOL_COMMANDS_H
#define VXTOOL_COMMANDS_H

#include <string>

#include "Reformat.h"

namespace vxtool {

// One command of the tool. run gets the whole argv; the command's own
// arguments start at argv[2]. It returns the exit status.
struct Command {
    char const* name;
    char const* summary;
    int (*run)(int argc, char** argv);
};

// Dispatches to the command named by argv[1].
int RunTool(int argc, char** argv);

int RunDemo(int argc, char** argv);
int RunMpr(int argc, char** argv);
int RunConvert(int argc, char** argv);
int RunInfo(int argc, char** argv);

// Renders one picture, writes it as PNG and prints "LABEL  WxH  T ms".
// Returns kExitOk, or kExitFailure after printing why the file could not be written.
int EmitPicture(Volume& vol, Section const& s, Window const& w, std::string const& path,
                std::string const& label);

}  // namespace vxtool

#endif
