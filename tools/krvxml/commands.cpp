// check, get, set and print.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>
#include <string>

#include "commands.h"
#include "faithful.h"
#include "tool_support.h"

namespace krvtool {

namespace {

struct TypeInfo {
    const char *name;
    uint32_t code;
};

const TypeInfo kTypes[] = {
    {"bool", KRV_XML_VALUE_BOOL},   {"int8", KRV_XML_VALUE_INT8},   {"uint8", KRV_XML_VALUE_UINT8},
    {"int16", KRV_XML_VALUE_INT16}, {"uint16", KRV_XML_VALUE_UINT16}, {"int32", KRV_XML_VALUE_INT32},
    {"uint32", KRV_XML_VALUE_UINT32},
};

// Room for any typed value, at the width the library reads and writes.
union TypedStorage {
    uint32_t b;
    int8_t i8;
    uint8_t u8;
    int16_t i16;
    uint16_t u16;
    int32_t i32;
    uint32_t u32;
};

int UsageError(const char *command, const std::string &message)
{
    std::fprintf(stderr, "krvxml %s: %s (see krvxml %s --help)\n", command, message.c_str(), command);
    return kExitUsage;
}

// PATH within what the lookup takes (a path of 512 bytes or more is refused).
bool PathFits(const std::string &path)
{
    return !path.empty() && path.size() <= 511;
}

// The --type option, when given. Returns false for an unknown name.
bool ReadTypeOption(const Args &args, const TypeInfo **type)
{
    *type = nullptr;
    if (!args.Has("--type")) {
        return true;
    }
    for (const TypeInfo &t : kTypes) {
        if (args.Get("--type") == t.name) {
            *type = &t;
            return true;
        }
    }
    return false;
}

// Splits [PREFIX:]NAME at its first colon. A colon without a prefix before
// it names no attribute: the lookup would quietly read the unprefixed one.
bool SplitAttrName(const std::string &text, std::string &prefix, std::string &name)
{
    size_t colon = text.find(':');
    prefix = colon == std::string::npos ? std::string() : text.substr(0, colon);
    name = colon == std::string::npos ? text : text.substr(colon + 1);
    return !name.empty() && colon != 0;
}

const char *PrefixArg(const std::string &prefix)
{
    return prefix.empty() ? nullptr : prefix.c_str();
}

// Reads VALUE as the type exactly as the library reads a stored value, so
// that what set accepts, get reads back.
bool ParseTyped(const TypeInfo &type, const std::string &text, TypedStorage &out)
{
    XmlNode *probe = nullptr;
    uint32_t rc = KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, nullptr, "v", text.c_str(), &probe);
    if (rc == KRV_XML_ERR_NO_MEMORY) {
        throw std::bad_alloc();
    }
    bool read = rc == KRV_XML_OK && KRV_XML_GetNodeValueEx(probe, type.code, &out) == KRV_XML_OK;
    KRV_XML_FreeNode(probe);
    return read;
}

std::string FormatTyped(const TypeInfo &type, const TypedStorage &v)
{
    switch (type.code) {
    case KRV_XML_VALUE_BOOL: return v.b != 0 ? "true" : "false";
    case KRV_XML_VALUE_INT8: return std::to_string(v.i8);
    case KRV_XML_VALUE_UINT8: return std::to_string(v.u8);
    case KRV_XML_VALUE_INT16: return std::to_string(v.i16);
    case KRV_XML_VALUE_UINT16: return std::to_string(v.u16);
    case KRV_XML_VALUE_INT32: return std::to_string(v.i32);
    default: return std::to_string(v.u32);
    }
}

bool Parse(const std::string &file, bool heap, Tree &tree, InputFacts *facts = nullptr)
{
    ParseFailure failure;
    if (ParseInput(file, heap, tree, failure, facts) != KRV_XML_OK) {
        PrintParseFailure(stderr, "krvxml: ", file, failure);
        return false;
    }
    return true;
}

bool Locate(const std::string &file, XmlNode *root, const std::string &path, XmlNode **node)
{
    uint32_t rc = KRV_XML_GetNodeByUrl(root, path.c_str(), node);
    if (rc != KRV_XML_OK) {
        ReportFailure(Shown(file), "path '" + path + "'", rc);
        return false;
    }
    return true;
}

// The text of `top`, or of a heap document with all its top-level elements.
// `mode` 0 whole, 1 head, 2 tail. Appends to `text`.
uint32_t Print(XmlNode *top, int mode, bool withSiblings, std::string &text)
{
    for (XmlNode *n = top; n != nullptr; n = withSiblings ? n->next : nullptr) {
        char *out = nullptr;
        uint32_t rc = mode == 1   ? KRV_XML_TransformHead(n, &out)
                      : mode == 2 ? KRV_XML_TransformTail(n, &out)
                                  : KRV_XML_Transform(n, &out);
        if (rc != KRV_XML_OK) {
            return rc;
        }
        if (out != nullptr) {
            text += out;
            KRV_XML_FreeMem(out);
        }
        // The library's tail closes children only; the head of an empty
        // element without a value leaves the element itself open.
        if (mode == 2 && n->firstChild == nullptr && n->value == nullptr) {
            text += "</" + (n->nsPrefix != nullptr ? std::string(n->nsPrefix) + ":" : std::string()) +
                    (n->name != nullptr ? n->name : "") + ">\n";
        }
    }
    return KRV_XML_OK;
}

int UnprintableName(const std::string &file, const XmlNode *n)
{
    // Control bytes are shown as references, so that the message stays one line.
    std::string shown;
    std::string name = std::string(n->nsPrefix != nullptr ? n->nsPrefix : "") + (n->nsPrefix != nullptr ? ":" : "") +
                       (n->name != nullptr ? n->name : "");
    for (unsigned char c : name) {
        shown += c < 0x20 || c == 0x7F ? "&#" + std::to_string(c) + ";" : std::string(1, static_cast<char>(c));
    }
    std::fprintf(stderr, "krvxml: %s: the name '%s' cannot be written so that it reads back\n", Shown(file).c_str(),
                 shown.c_str());
    return kExitFailed;
}

bool SameNoCase(const std::string &a, const char *b)
{
    return a.size() == std::strlen(b) && strncasecmp(a.c_str(), b, a.size()) == 0;
}

// The tool writes UTF-8 without a declaration, which a text declared in
// another encoding would not read back as.
bool WritableEncoding(const std::string &file, const char *command, const InputFacts &facts)
{
    const std::string &encoding = facts.encoding;
    if (encoding.empty() || SameNoCase(encoding, "UTF-8") || SameNoCase(encoding, "US-ASCII")) {
        return true;
    }
    std::fprintf(stderr, "krvxml: %s: %s: the text is declared as %s; %s writes UTF-8 only\n", Shown(file).c_str(),
                 command, encoding.c_str(), command);
    return false;
}

bool WriteStdout(const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        std::fprintf(stderr, "krvxml: cannot write standard output: %s\n", std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

int RunCheck(const Args &args)
{
    if (args.positional.empty()) {
        return UsageError("check", "no FILE given");
    }
    bool allOk = true;
    for (const std::string &file : args.positional) {
        Tree tree;
        ParseFailure failure;
        if (ParseInput(file, args.Has("--heap"), tree, failure) == KRV_XML_OK) {
            std::printf("%s: ok\n", file == "-" ? "<stdin>" : file.c_str());
        } else {
            std::fflush(stdout);
            PrintParseFailure(stderr, "", file, failure);
            allOk = false;
        }
    }
    return allOk ? kExitOk : kExitFailed;  // main reports a failed write of standard output
}

int RunGet(const Args &args)
{
    const TypeInfo *type;
    std::string prefix, name;
    if (args.positional.size() != 2) {
        return UsageError("get", "expected FILE and PATH");
    }
    if (!ReadTypeOption(args, &type)) {
        return UsageError("get", "unknown type '" + args.Get("--type") + "'");
    }
    if (args.Has("--attr") && !SplitAttrName(args.Get("--attr"), prefix, name)) {
        return UsageError("get", "'" + args.Get("--attr") + "' names no attribute: PREFIX and NAME must not be empty");
    }
    const std::string &file = args.positional[0];
    const std::string &path = args.positional[1];
    if (!PathFits(path)) {
        return UsageError(args.command, "PATH must hold 1 to 511 bytes");
    }
    Tree tree;
    XmlNode *node = nullptr;
    if (!Parse(file, args.Has("--heap"), tree) || !Locate(file, tree.get(), path, &node)) {
        return kExitFailed;
    }

    std::string subject = path + (args.Has("--attr") ? "@" + args.Get("--attr") : std::string());
    std::string text;
    uint32_t rc;
    if (type != nullptr) {
        TypedStorage v{};
        rc = args.Has("--attr") ? KRV_XML_GetAttrValueEx(node, PrefixArg(prefix), name.c_str(), type->code, &v)
                                : KRV_XML_GetNodeValueEx(node, type->code, &v);
        if (rc == KRV_XML_OK) {
            text = FormatTyped(*type, v);
        }
    } else {
        const char *value = nullptr;
        rc = args.Has("--attr") ? KRV_XML_GetAttr(node, PrefixArg(prefix), name.c_str(), &value)
                                : KRV_XML_GetNodeValue(node, nullptr, nullptr, nullptr, &value);
        if (rc == KRV_XML_OK && value != nullptr) {
            text = value;
        }
    }
    if (rc != KRV_XML_OK) {
        ReportFailure(Shown(file), std::string("read ") + (type ? type->name : "value") + " of '" + subject + "'", rc);
        return kExitFailed;
    }
    return WriteStdout(text + "\n") ? kExitOk : kExitFailed;
}

int RunSet(const Args &args)
{
    const TypeInfo *type;
    std::string prefix, name;
    if (args.positional.size() != 3) {
        return UsageError("set", "expected FILE, PATH and VALUE");
    }
    if (!ReadTypeOption(args, &type)) {
        return UsageError("set", "unknown type '" + args.Get("--type") + "'");
    }
    if (args.Has("--attr") && !SplitAttrName(args.Get("--attr"), prefix, name)) {
        return UsageError("set", "'" + args.Get("--attr") + "' names no attribute: PREFIX and NAME must not be empty");
    }
    const std::string &file = args.positional[0];
    const std::string &path = args.positional[1];
    if (!PathFits(path)) {
        return UsageError(args.command, "PATH must hold 1 to 511 bytes");
    }
    const std::string &value = args.positional[2];
    TypedStorage typed{};
    if (type != nullptr && !ParseTyped(*type, value, typed)) {
        return UsageError("set", "'" + value + "' is not a " + type->name + " value");
    }
    if (!IsXmlText(value)) {
        return UsageError("set", "VALUE is not UTF-8 text of characters that XML allows");
    }
    if (args.Has("--attr") && !IsXmlName(args.Get("--attr"))) {
        return UsageError("set", "'" + args.Get("--attr") + "' is not an XML name");
    }
    // Standard input, a pipe or a descriptor name cannot take the new text
    // back in place of the old: without -o it goes to standard output.
    std::string out = args.Has("-o") ? args.Get("-o") : IsStream(file) ? "-" : file;
    if (out.empty()) {
        return UsageError("set", "empty output file name");
    }

    bool heap = args.Has("--heap");
    bool attr = args.Has("--attr");
    std::string subject = path + (attr ? "@" + args.Get("--attr") : std::string());
    Tree tree;
    XmlNode *node = nullptr;
    InputFacts facts;
    if (!Parse(file, heap, tree, &facts) || !Locate(file, tree.get(), path, &node)) {
        return kExitFailed;
    }
    if (!WritableEncoding(file, "set", facts)) {
        return kExitFailed;
    }
    if (!attr && node->firstChild != nullptr) {
        std::fprintf(stderr, "krvxml: %s: set '%s': an element with children holds no value\n", Shown(file).c_str(),
                     subject.c_str());
        return kExitFailed;
    }

    uint32_t rc;
    const char *p = PrefixArg(prefix);
    if (attr) {
        if (type != nullptr) {
            rc = KRV_XML_SetAttrValueEx(node, p, name.c_str(), type->code, &typed);
        } else {
            rc = KRV_XML_SetAttr(node, p, name.c_str(), value.c_str());
            if (rc == KRV_XML_ERR_NOT_FOUND) {
                rc = KRV_XML_AddAttr(node, p, name.c_str(), value.c_str());
            }
        }
    } else if (type != nullptr) {
        rc = KRV_XML_SetNodeValueEx(node, type->code, &typed);
    } else {
        rc = KRV_XML_SetNode(node, nullptr, nullptr, value.c_str());
    }
    if (rc == KRV_XML_ERR_INVALID_PARAM && attr && tree.get()->next != nullptr) {
        // The library adds no attribute in a tree whose top has siblings.
        std::fprintf(stderr,
                     "krvxml: %s: set '%s': no attribute can be added in a document of several top-level elements "
                     "(KRV_XML_ERR_INVALID_PARAM)\n",
                     Shown(file).c_str(), subject.c_str());
        return kExitFailed;
    }
    if (rc != KRV_XML_OK) {
        ReportFailure(Shown(file), "set '" + subject + "'", rc);
        return kExitFailed;
    }
    std::string text;
    const XmlNode *badName = nullptr;
    rc = EscapeValues(tree.get(), heap, false, &badName);
    if (badName != nullptr) {
        return UnprintableName(file, badName);
    }
    if (rc == KRV_XML_OK) {
        rc = Print(tree.get(), 0, heap, text);
    }
    if (rc != KRV_XML_OK) {
        ReportFailure(Shown(file), "print", rc);
        return kExitFailed;
    }
    // Nothing is written that would not read back as the edited tree: a
    // name the parser refuses, or anything the escapes above do not cover.
    Tree again;
    ParseFailure failure;
    if (ParseText(text, heap, again, failure) != KRV_XML_OK) {
        std::fprintf(stderr, "krvxml: %s: set '%s': the new text would not read back (line %u, column %u: %s)\n",
                     Shown(file).c_str(), subject.c_str(), static_cast<unsigned>(failure.line),
                     static_cast<unsigned>(failure.column), failure.reason.c_str());
        return kExitFailed;
    }
    if (const XmlNode *d = FirstDifference(tree.get(), again.get(), heap)) {
        std::fprintf(stderr, "krvxml: %s: set '%s': the new text would read back otherwise, from element '%s' on\n",
                     Shown(file).c_str(), subject.c_str(), d->name != nullptr ? d->name : "");
        return kExitFailed;
    }

    if (facts.bom) {
        text.insert(0, "\xEF\xBB\xBF");  // written back as it was read
    }
    if (out == "-") {
        return WriteStdout(text) ? kExitOk : kExitFailed;
    }
    std::string error;
    if (!WriteFileAtomically(out, text, error)) {
        std::fprintf(stderr, "krvxml: %s: write: %s\n", out.c_str(), error.c_str());
        return kExitFailed;
    }
    return kExitOk;
}

int RunPrint(const Args &args)
{
    if (args.positional.empty() || args.positional.size() > 2) {
        return UsageError("print", "expected FILE and at most one PATH");
    }
    if (args.Has("--head") && args.Has("--tail")) {
        return UsageError("print", "--head and --tail exclude each other");
    }
    const std::string &file = args.positional[0];
    bool heap = args.Has("--heap");
    bool wholeDocument = args.positional.size() == 1;
    if (!wholeDocument && !PathFits(args.positional[1])) {
        return UsageError("print", "PATH must hold 1 to 511 bytes");
    }
    Tree tree;
    XmlNode *top = nullptr;
    InputFacts facts;
    if (!Parse(file, heap, tree, &facts) || !WritableEncoding(file, "print", facts)) {
        return kExitFailed;
    }
    if (wholeDocument) {
        top = tree.get();
    } else if (!Locate(file, tree.get(), args.positional[1], &top)) {
        return kExitFailed;
    }
    int mode = args.Has("--head") ? 1 : args.Has("--tail") ? 2 : 0;
    std::string text;
    bool withSiblings = heap && wholeDocument && mode == 0;
    const XmlNode *badName = nullptr;
    uint32_t rc = EscapeValues(top, withSiblings, mode != 0, &badName);
    if (badName != nullptr) {
        return UnprintableName(file, badName);
    }
    if (rc == KRV_XML_OK) {
        rc = Print(top, mode, withSiblings, text);
    }
    if (rc != KRV_XML_OK) {
        ReportFailure(Shown(file), "print", rc);
        return kExitFailed;
    }
    // A whole text is read back before it is shown, as set does before it writes.
    Tree again;
    ParseFailure failure;
    if (mode == 0 && ParseText(text, heap, again, failure) != KRV_XML_OK) {
        std::fprintf(stderr, "krvxml: %s: print: the text would not read back (line %u, column %u: %s)\n",
                     Shown(file).c_str(), static_cast<unsigned>(failure.line), static_cast<unsigned>(failure.column),
                     failure.reason.c_str());
        return kExitFailed;
    }
    if (mode == 0 && FirstDifference(top, again.get(), withSiblings) != nullptr) {
        std::fprintf(stderr, "krvxml: %s: print: the text would read back otherwise\n", Shown(file).c_str());
        return kExitFailed;
    }
    return WriteStdout(text) ? kExitOk : kExitFailed;
}

}  // namespace krvtool
