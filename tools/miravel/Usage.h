// The commands and their options, in one table: the arguments each command
// takes are read from it, and the usage text (all commands, or one with
// `miravel <command> --help`) is written from it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace miravel {

struct OptionSpec {
    const char* name;   // without the leading "--"
    const char* value;  // what the value is ("N", "WxH"); empty for a flag
    const char* help;   // one line
};

struct CommandSpec {
    const char* name;
    const char* operands;  // the positional arguments ("MEDIA", "DOC"); may be empty
    const char* summary;   // one line: what it does
    std::vector<OptionSpec> required;
    std::vector<OptionSpec> optional;
};

// Every command, in the order the usage lists them.
const std::vector<CommandSpec>& commandTable();
// The command named name; throws std::out_of_range for another name.
const CommandSpec& commandSpec(std::string_view name);

// The usage of every command, with the options of every command and the
// limits of the numbers.
std::string usageText();
// The usage of one command, its options one a line.
std::string commandUsage(const CommandSpec& command);

// `miravel <command> --help`: the command's usage is printed, exit 0.
class HelpRequested {
public:
    explicit HelpRequested(const CommandSpec& command) : command_(&command) {}
    const CommandSpec& command() const { return *command_; }

private:
    const CommandSpec* command_;
};

}  // namespace miravel
