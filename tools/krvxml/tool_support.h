// Shared pieces of the krvxml tool: result code names, reading input,
// parsing with position reports, and the atomic file write.
#ifndef KRVXML_TOOL_SUPPORT_H
#define KRVXML_TOOL_SUPPORT_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "krv_xml.h"

namespace krvtool {

// Exit codes of every command.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// "KRV_XML_ERR_SYNTAX" for 0x1F000705 and so on; "unknown result 0x..." for a
// code the tool does not know.
std::string ResultName(uint32_t code);

// How messages name FILE: "<stdin>" for "-".
std::string Shown(const std::string &file);

// Prints "krvxml: <subject>: <operation>: <result name>" to stderr.
void ReportFailure(const std::string &subject, const std::string &operation, uint32_t code);

// An owning handle for a tree root: released with KRV_XML_FreeNode.
class Tree {
public:
    Tree() = default;
    ~Tree() { KRV_XML_FreeNode(root_); }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;
    XmlNode *get() const { return root_; }
    XmlNode **out() { return &root_; }  // only while empty
    XmlNode *release()
    {
        XmlNode *p = root_;
        root_ = nullptr;
        return p;
    }

private:
    XmlNode *root_ = nullptr;
};

// Where a refused parse stopped. `line` is 0 when the library gives no
// position.
struct ParseFailure {
    uint32_t code = KRV_XML_OK;
    uint32_t line = 0;
    uint32_t column = 0;
    std::string reason;
};

// What the bytes around a document said about it.
struct InputFacts {
    std::string encoding;  // named by an XML declaration at the start; "" for none
    bool bom = false;      // the text began with a UTF-8 byte order mark
};

// Parses FILE ("-" reads standard input) into `tree`, in a memory session
// unless `heap`. Pipes and devices are read as standard input is, and a
// UTF-8 byte order mark is passed over. A text that holds a NUL byte is
// refused (the library would stop reading there). On failure fills
// `failure` and returns its code; on success fills `facts` when given.
uint32_t ParseInput(const std::string &file, bool heap, Tree &tree, ParseFailure &failure,
                    InputFacts *facts = nullptr);

// Parses text in memory as ParseInput parses a file.
uint32_t ParseText(const std::string &text, bool heap, Tree &tree, ParseFailure &failure);

// Prints a parse failure the way compilers do, after `lead`:
// "FILE:LINE:COLUMN: reason (CODE)" when the position is known, else
// "FILE: CODE". Standard input shows as "<stdin>".
void PrintParseFailure(std::FILE *stream, const char *lead, const std::string &file,
                       const ParseFailure &failure);

// Replaces the file at `path` with `text`: the text goes to a new file beside
// it, which is flushed to disk and renamed over the old one, so a reader sees
// either the old or the new content whole. Symbolic links are followed; the
// old file's permission bits are kept, and its owner and group where the
// user may set them. Other names of a hard-linked file keep the old text.
// Devices and pipes are written in place instead, and descriptor names of
// this process (/dev/stdout, /dev/fd/N) through the descriptor itself. On
// failure returns false with a message in `error` and leaves the old file as
// it was.
bool WriteFileAtomically(const std::string &path, const std::string &text, std::string &error);

// The descriptor of this process that FILE names (/dev/stdin, /dev/fd/N,
// /proc/self/fd/N, however spelled, or a link to one); -1 for other names.
int OwnDescriptor(const std::string &file);

// Whether FILE names no regular file to replace: "-", a descriptor name (or
// a link to one), a device or a pipe.
bool IsStream(const std::string &file);

}  // namespace krvtool

#endif  // KRVXML_TOOL_SUPPORT_H
