// Result names, input reading, parse reports and the atomic file write.
#include "tool_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace krvtool {

std::string ResultName(uint32_t code)
{
    struct Entry {
        uint32_t code;
        const char *name;
    };
    static const Entry kNames[] = {
        {KRV_XML_OK, "KRV_XML_OK"},
        {KRV_XML_ERR_INVALID_PARAM, "KRV_XML_ERR_INVALID_PARAM"},
        {KRV_XML_ERR_ALREADY_EXISTS, "KRV_XML_ERR_ALREADY_EXISTS"},
        {KRV_XML_ERR_NOT_FOUND, "KRV_XML_ERR_NOT_FOUND"},
        {KRV_XML_ERR_NO_MEMORY, "KRV_XML_ERR_NO_MEMORY"},
        {KRV_XML_ERR_SYNTAX, "KRV_XML_ERR_SYNTAX"},
        {KRV_XML_ERR_URL_NOT_FOUND, "KRV_XML_ERR_URL_NOT_FOUND"},
        {KRV_XML_ERR_FILE_OPEN, "KRV_XML_ERR_FILE_OPEN"},
        {KRV_XML_ERR_FILE_WRITE, "KRV_XML_ERR_FILE_WRITE"},
        {KRV_XML_ERR_FILE_READ, "KRV_XML_ERR_FILE_READ"},
        {KRV_XML_ERR_BUFFER_TOO_SMALL, "KRV_XML_ERR_BUFFER_TOO_SMALL"},
    };
    for (const Entry &e : kNames) {
        if (e.code == code) {
            return e.name;
        }
    }
    char buf[40];
    std::snprintf(buf, sizeof buf, "unknown result 0x%08X", static_cast<unsigned>(code));
    return buf;
}

void ReportFailure(const std::string &subject, const std::string &operation, uint32_t code)
{
    std::fprintf(stderr, "krvxml: %s: %s: %s\n", subject.c_str(), operation.c_str(),
                 ResultName(code).c_str());
}

namespace {

bool ReadAll(std::FILE *stream, std::string &text)
{
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, stream)) > 0) {
        text.append(buf, n);
    }
    return std::ferror(stream) == 0;
}

}  // namespace

uint32_t ParseInput(const std::string &file, bool heap, Tree &tree, ParseFailure &failure)
{
    failure = ParseFailure();
    std::string text;
    bool fromStdin = file == "-";
    if (fromStdin) {
        if (!ReadAll(stdin, text)) {
            failure.code = KRV_XML_ERR_FILE_READ;
            failure.reason = "cannot read standard input";
            return failure.code;
        }
        if (text.empty()) {
            // An empty file is refused as a syntax error; say the same for
            // empty input rather than the string parser's argument error.
            failure.code = KRV_XML_ERR_SYNTAX;
            failure.reason = "empty input";
            return failure.code;
        }
    }
    KrvXmlParseInfo info{};
    uint32_t flags = heap ? 0u : KRV_XML_PARSE_SESSION;
    uint32_t rc = fromStdin ? KRV_XML_ParseWithInfo(text.c_str(), flags, tree.out(), &info)
                            : KRV_XML_ParseFileWithInfo(file.c_str(), flags, tree.out(), &info);
    if (rc != KRV_XML_OK) {
        failure.code = rc;
        failure.line = info.line;
        failure.column = info.column;
        if (info.reason != nullptr) {
            failure.reason = info.reason;
        }
    }
    return rc;
}

void PrintParseFailure(std::FILE *stream, const char *lead, const std::string &file,
                       const ParseFailure &failure)
{
    std::string shown = file == "-" ? std::string("<stdin>") : file;
    std::string name = ResultName(failure.code);
    if (failure.line != 0) {
        std::fprintf(stream, "%s%s:%u:%u: %s (%s)\n", lead, shown.c_str(), static_cast<unsigned>(failure.line),
                     static_cast<unsigned>(failure.column),
                     failure.reason.empty() ? "refused" : failure.reason.c_str(), name.c_str());
    } else if (!failure.reason.empty()) {
        std::fprintf(stream, "%s%s: %s (%s)\n", lead, shown.c_str(), failure.reason.c_str(), name.c_str());
    } else {
        std::fprintf(stream, "%s%s: %s\n", lead, shown.c_str(), name.c_str());
    }
}

namespace {

std::string ErrnoText(const char *what, const std::string &path)
{
    return std::string(what) + " " + path + ": " + std::strerror(errno);
}

// Writes all of `text` to `fd`, retrying short writes and interruptions.
bool WriteAll(int fd, const std::string &text)
{
    const char *p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool WriteFileAtomically(const std::string &path, const std::string &text, std::string &error)
{
    // Follow a symbolic link, so that the link stays and its target changes.
    std::string target = path;
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) != nullptr) {
        target = resolved;
    }
    mode_t mode;
    struct stat st;
    if (::stat(target.c_str(), &st) == 0) {
        mode = st.st_mode & 07777;
    } else {
        mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }

    size_t slash = target.rfind('/');
    std::string dir = slash == std::string::npos ? std::string(".") : target.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string temp = (slash == std::string::npos ? std::string() : dir) + "." + base + ".krvxml-XXXXXX";

    int fd = ::mkstemp(&temp[0]);
    if (fd < 0) {
        error = ErrnoText("cannot create a temporary file for", target);
        return false;
    }
    bool ok = true;
    if (!WriteAll(fd, text)) {
        error = ErrnoText("cannot write", temp);
        ok = false;
    } else if (::fchmod(fd, mode) != 0) {
        error = ErrnoText("cannot set the permissions of", temp);
        ok = false;
    } else if (::fsync(fd) != 0) {
        error = ErrnoText("cannot flush", temp);
        ok = false;
    }
    if (::close(fd) != 0 && ok) {
        error = ErrnoText("cannot close", temp);
        ok = false;
    }
    if (ok && ::rename(temp.c_str(), target.c_str()) != 0) {
        error = ErrnoText("cannot replace", target);
        ok = false;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        return false;
    }
    // Make the rename itself durable; a failure here leaves a complete file.
    int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return true;
}

}  // namespace krvtool
