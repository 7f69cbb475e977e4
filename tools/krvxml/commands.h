// The krvxml commands and the argument reader they share.
#ifndef KRVXML_TOOL_COMMANDS_H
#define KRVXML_TOOL_COMMANDS_H

#include <map>
#include <string>
#include <vector>

namespace krvtool {

// Arguments of one command: options by name ("--attr" -> "p:id"; a flag maps
// to "") and the positional arguments in order.
struct Args {
    const char *command = "";
    std::map<std::string, std::string> options;
    std::vector<std::string> positional;
    bool Has(const char *name) const { return options.count(name) != 0; }
    const std::string &Get(const char *name) const { return options.at(name); }
};

int RunCheck(const Args &args);
int RunGet(const Args &args);
int RunSet(const Args &args);
int RunPrint(const Args &args);
int RunDemo(const Args &args);

}  // namespace krvtool

#endif  // KRVXML_TOOL_COMMANDS_H
