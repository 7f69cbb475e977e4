// krvxml: check, query, edit and print XML files with the KRV XML library.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
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
     "usage: krvxml get [--heap] FILE PATH [--attr [PREFIX:]NAME] [--type TYPE]\n"
     "Prints the value of the element at PATH (dotted, first segment names the root,\n"
     "e.g. config.server.2; at most 511 bytes), or of its attribute NAME. With --type\n"
     "the value is read as TYPE: bool, int8, uint8, int16, uint16, int32, uint32; a\n"
     "value that does not read as TYPE fails. An element or attribute without a value\n"
     "prints an empty line. --heap parses with the heap parser, which also keeps\n"
     "further top-level elements (PATH starts at the first).\n"},
    {"set", krvtool::RunSet, "--heap", "--attr --type -o",
     "usage: krvxml set [--heap] FILE PATH [--attr [PREFIX:]NAME] [--type TYPE] VALUE [-o OUT]\n"
     "Sets the value of the element at PATH, or of its attribute NAME (created when\n"
     "missing), and writes the document to OUT (\"-\": standard output) or back to\n"
     "FILE (standard output when FILE is \"-\", a pipe, a device or a descriptor\n"
     "name such as /dev/stdin or /dev/fd/N). VALUE is stored as given: \"&lt;\"\n"
     "stays those four characters. With --type, VALUE must read as TYPE (else exit\n"
     "2) and is stored in its canonical form. An empty VALUE removes an element's\n"
     "value. An element with children holds no value; set refuses it.\n"
     "The document is written as print writes it: UTF-8 without the XML declaration,\n"
     "DOCTYPE, comments, processing instructions or indentation; a FILE declared in\n"
     "another encoding is refused, a byte order mark kept. VALUE and NAME must be\n"
     "XML text and an XML name (else exit 2). Nothing is written that would not read\n"
     "back as the edited document. A file is replaced atomically: it holds either the old or the\n"
     "new text, never a part. Its permission bits are kept, and its owner and group\n"
     "where the user may set them; other hard links to it keep the old text. A\n"
     "device or pipe given as OUT is written in place, and /dev/stdout or /dev/fd/N\n"
     "through the open descriptor, at its current offset.\n"},
    {"print", krvtool::RunPrint, "--heap --head --tail", "",
     "usage: krvxml print [--heap] FILE [--head | --tail] [PATH]\n"
     "Prints the document, or the sub-tree at PATH, one tag per line without\n"
     "indentation. --head prints it without the end tags of elements that have\n"
     "children, leaving an empty last element open; --tail prints the end tags\n"
     "that close the last element and its ancestors. The two frame a well-formed\n"
     "document when every element with children lies on the chain of last children\n"
     "and the last element has no value. With --heap, further top-level elements\n"
     "print after the first, but --head and --tail frame the first alone.\n"
     "Values are written so that they read back as they were read. The text is\n"
     "UTF-8 without the XML declaration: a FILE declared in another encoding is\n"
     "refused, as is a name that would not read back (one holding a blank, '&',\n"
     "'<', '>', a quote, '=', '/' or a colon that a reference made, or an element\n"
     "name beginning with '?' or '!', or ending in \"--\" or \"]]\" on an element that\n"
     "prints more than an empty tag). The whole text is read back and compared\n"
     "before it is printed.\n"},
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
    "\"krvxml --version\" prints the library's version. \"--\" ends the options, as\n"
    "before a VALUE that begins with \"-\".\n"
    "Exit codes: 0 success, 1 the operation failed, 2 usage error.\n";

bool InList(const char *list, const std::string &word)
{
    std::string padded = std::string(" ") + list + " ";
    return !word.empty() && padded.find(" " + word + " ") != std::string::npos;
}

// Options may stand anywhere. "-" alone and negative numbers are positional;
// "--" ends the options. -h and --help where an option may stand ask for the
// command's help, which wins over any error in the other arguments.
enum class Read { Ok, Help, Error };

Read ReadArgs(const Command &cmd, int argc, char **argv, Args &args)
{
    bool optionsDone = false;
    bool help = false;
    std::string error;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        bool looksLikeOption = !optionsDone && a.size() > 1 && a[0] == '-' &&
                               !(a[1] >= '0' && a[1] <= '9');
        if (!looksLikeOption) {
            args.positional.push_back(a);
        } else if (a == "--") {
            optionsDone = true;
        } else if (a == "--help" || a == "-h") {
            help = true;
        } else if (InList(cmd.flags, a)) {
            args.options[a] = "";
        } else if (InList(cmd.valued, a)) {
            if (i + 1 >= argc) {
                error = error.empty() ? "option " + a + " needs a value" : error;
            } else {
                args.options[a] = argv[++i];
            }
        } else if (error.empty()) {
            error = "unknown option " + a;
        }
    }
    if (help) {
        return Read::Help;
    }
    if (!error.empty()) {
        std::fprintf(stderr, "krvxml %s: %s\n", cmd.name, error.c_str());
        return Read::Error;
    }
    return Read::Ok;
}

// Every command's output goes through stdio: a write that failed (a full
// disk, a closed descriptor) turns a success into exit 1, with a message.
int Finish(int rc)
{
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        if (rc == krvtool::kExitOk) {
            std::fprintf(stderr, "krvxml: cannot write standard output%s%s\n", errno != 0 ? ": " : "",
                         errno != 0 ? std::strerror(errno) : "");
        }
        return krvtool::kExitFailed;
    }
    return rc;
}

}  // namespace

int main(int argc, char **argv)
{
    // Past a file size limit a write fails (EFBIG) and is reported, instead
    // of the signal ending the process with a part written.
    std::signal(SIGXFSZ, SIG_IGN);
    if (argc < 2) {
        std::fputs(kMainUsage, stderr);
        return krvtool::kExitUsage;
    }
    std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        // "krvxml help COMMAND" is "krvxml COMMAND --help".
        if (argc > 2) {
            for (const Command &cmd : kCommands) {
                if (argv[2] == std::string(cmd.name)) {
                    std::fputs(cmd.usage, stdout);
                    return Finish(krvtool::kExitOk);
                }
            }
            std::fprintf(stderr, "krvxml: unknown command '%s'\n", argv[2]);
            std::fputs(kMainUsage, stderr);
            return krvtool::kExitUsage;
        }
        std::fputs(kMainUsage, stdout);
        return Finish(krvtool::kExitOk);
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
        return Finish(krvtool::kExitOk);
    }
    for (const Command &cmd : kCommands) {
        if (name != cmd.name) {
            continue;
        }
        Args args;
        args.command = cmd.name;
        switch (ReadArgs(cmd, argc - 2, argv + 2, args)) {
        case Read::Help:
            std::fputs(cmd.usage, stdout);
            return Finish(krvtool::kExitOk);
        case Read::Error:
            std::fputs(cmd.usage, stderr);
            return krvtool::kExitUsage;
        case Read::Ok:
            break;
        }
        try {
            return Finish(cmd.run(args));
        } catch (const std::bad_alloc &) {
            std::fputs("krvxml: out of memory\n", stderr);
            return krvtool::kExitFailed;
        }
    }
    std::fprintf(stderr, "krvxml: unknown command '%s'\n", name.c_str());
    std::fputs(kMainUsage, stderr);
    return krvtool::kExitUsage;
}
