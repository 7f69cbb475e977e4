// krvxml: check, query, edit and print XML files with the KRV XML library.
#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "tool_support.h"

namespace {

using krvtool::Args;

struct Command {
    const char *name;
    int (*run)(const Args &);
    const char *flags;        // options without a value, space separated
    const char *valued;       // options that take a value
    const char *usage;
};

const Command kCommands[] = {
    {"check", krvtool::RunCheck, "--heap", "",
     "usage: krvxml check [--heap] FILE...\n"
     "Parses each FILE (\"-\": standard input) and prints \"FILE: ok\" or where and why\n"
     "it was refused (FILE:LINE:COLUMN: reason (CODE)). Parses in a memory session;\n"
     "--heap uses the heap parser instead. Exit 1 when any file is refused.\n"},
    {"get", krvtool::RunGet, "--heap", "--attr --type",
     "usage: krvxml get FILE PATH [--attr [PREFIX:]NAME] [--type TYPE]\n"
     "Prints the value of the element at PATH (dotted, first segment names the root,\n"
     "e.g. config.server.2), or of its attribute NAME. With --type the value is read\n"
     "as TYPE: bool, int8, uint8, int16, uint16, int32, uint32; a value that does not\n"
     "read as TYPE fails. An element or attribute without a value prints an empty line.\n"},
    {"set", krvtool::RunSet, "--heap", "--attr --type -o",
     "usage: krvxml set FILE PATH [--attr [PREFIX:]NAME] [--type TYPE] VALUE [-o OUT]\n"
     "Sets the value of the element at PATH, or of its attribute NAME (created when\n"
     "missing), and writes the document to OUT (\"-\": standard output) or back to\n"
     "FILE (standard output when FILE is \"-\"). A file is replaced atomically: it\n"
     "holds either the old or the new text, never a part.\n"
     "With --type, VALUE must read as TYPE and is stored in its canonical form.\n"
     "An empty VALUE removes an element's value.\n"},
    {"print", krvtool::RunPrint, "--heap --head --tail", "",
     "usage: krvxml print FILE [--head | --tail] [PATH]\n"
     "Prints the document, or the sub-tree at PATH. --head prints the start tags down\n"
     "to the last element, left open; --tail prints the end tags that close it.\n"},
    {"demo", krvtool::RunDemo, "", "",
     "usage: krvxml demo\n"
     "Runs the library on a bundled sample document: parse, lookup, typed read,\n"
     "edits, a copied sub-tree and the printed result.\n"},
};

const char kMainUsage[] =
    "usage: krvxml COMMAND [ARGS...]\n"
    "\n"
    "  check FILE...              parse files, report refusals as FILE:LINE:COLUMN\n"
    "  get FILE PATH              print a value or attribute (--attr, --type)\n"
    "  set FILE PATH VALUE        change a value or attribute, write atomically (-o)\n"
    "  print FILE [PATH]          print the document or a sub-tree (--head, --tail)\n"
    "  demo                       show the library at work on a bundled document\n"
    "\n"
    "FILE \"-\" reads standard input. \"krvxml COMMAND --help\" describes a command;\n"
    "\"krvxml --version\" prints the library's version.\n"
    "Exit codes: 0 success, 1 the operation failed, 2 usage error.\n";

bool InList(const char *list, const std::string &word)
{
    std::string padded = std::string(" ") + list + " ";
    return !word.empty() && padded.find(" " + word + " ") != std::string::npos;
}

// Options may stand anywhere. "-" alone and negative numbers are positional;
// "--" ends the options.
bool ReadArgs(const Command &cmd, int argc, char **argv, Args &args)
{
    bool optionsDone = false;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        bool looksLikeOption = !optionsDone && a.size() > 1 && a[0] == '-' &&
                               !(a[1] >= '0' && a[1] <= '9');
        if (!looksLikeOption) {
            args.positional.push_back(a);
        } else if (a == "--") {
            optionsDone = true;
        } else if (InList(cmd.flags, a)) {
            args.options[a] = "";
        } else if (InList(cmd.valued, a)) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "krvxml %s: option %s needs a value\n", cmd.name, a.c_str());
                return false;
            }
            args.options[a] = argv[++i];
        } else {
            std::fprintf(stderr, "krvxml %s: unknown option %s\n", cmd.name, a.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fputs(kMainUsage, stderr);
        return krvtool::kExitUsage;
    }
    std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        std::fputs(kMainUsage, stdout);
        return krvtool::kExitOk;
    }
    if (name == "--version" || name == "-V") {
        // The version of the library the tool runs with, which may be newer
        // than the one it was built against.
        char version[32];
        if (KRV_XML_GetVersion(version, sizeof version) != KRV_XML_OK) {
            std::fputs("krvxml: the library gave no version\n", stderr);
            return krvtool::kExitFailed;
        }
        std::printf("krvxml (%s)\n", version);
        return krvtool::kExitOk;
    }
    for (const Command &cmd : kCommands) {
        if (name != cmd.name) {
            continue;
        }
        for (int i = 2; i < argc; ++i) {
            if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
                std::fputs(cmd.usage, stdout);
                return krvtool::kExitOk;
            }
            if (std::strcmp(argv[i], "--") == 0) {
                break;
            }
        }
        Args args;
        if (!ReadArgs(cmd, argc - 2, argv + 2, args)) {
            std::fputs(cmd.usage, stderr);
            return krvtool::kExitUsage;
        }
        return cmd.run(args);
    }
    std::fprintf(stderr, "krvxml: unknown command '%s'\n", name.c_str());
    std::fputs(kMainUsage, stderr);
    return krvtool::kExitUsage;
}
