#ifndef VXTOOL_OPTIONS_H
#define VXTOOL_OPTIONS_H

#include <map>
#include <string>
#include <vector>

namespace vxtool {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the work itself failed (e.g. a picture could not be written)
constexpr int kExitUsage = 2;    // bad command line or unreadable input

// Prints "vx: MESSAGE" as one line on stderr and returns kExitUsage.
int UsageError(std::string const& message);

// The options of one command, of the form --name VALUE or --name=VALUE, and
// flags (--name alone, Has() then true). -h and --help are always accepted.
class OptionSet {
public:
    OptionSet(std::string command, std::vector<std::string> names,
              std::vector<std::string> flags = {})
        : command_(std::move(command)), names_(std::move(names)), flags_(std::move(flags)) {}

    // Reads argv[first..argc). False after printing an error line (unknown
    // option, missing value, stray argument). A repeated option keeps its last value.
    bool Parse(int argc, char** argv, int first);

    bool HelpWanted() const { return help_; }
    bool Has(std::string const& name) const { return values_.count(name) != 0; }
    std::string const& Get(std::string const& name) const { return values_.at(name); }

private:
    std::string command_;
    std::vector<std::string> names_;
    std::vector<std::string> flags_;
    std::map<std::string, std::string> values_;
    bool help_ = false;
};

// Value parsers: true on success. Numbers must be finite and use the whole text.
bool ParseNumber(std::string const& text, float* out);
bool ParseTriple(std::string const& text, float out[3]);
// n comma-separated numbers.
bool ParseNumbers(std::string const& text, int n, float* out);
bool ParseSize(std::string const& text, int maxSide, int* width, int* height);
bool ParseWindow(std::string const& text, float* width, float* level);

}  // namespace vxtool

#endif
