// Result names, input reading, parse reports and the atomic file write.
#include "tool_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
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

std::string Shown(const std::string &file)
{
    return file == "-" ? std::string("<stdin>") : file;
}

void ReportFailure(const std::string &subject, const std::string &operation, uint32_t code)
{
    std::fprintf(stderr, "krvxml: %s: %s: %s\n", subject.c_str(), operation.c_str(),
                 ResultName(code).c_str());
}

namespace {

// Reads the stream to its end, or up to the first piece that holds a NUL
// byte, which ends the input's use (so /dev/zero costs one piece).
bool ReadAll(std::FILE *stream, std::string &text)
{
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, stream)) > 0) {
        text.append(buf, n);
        if (std::memchr(buf, 0, n) != nullptr) {
            return true;
        }
    }
    return std::ferror(stream) == 0;
}

const char kBom[] = "\xEF\xBB\xBF";

// Fills `failure` from a refused parse's report.
void Reported(uint32_t rc, const KrvXmlParseInfo &info, ParseFailure &failure)
{
    failure.code = rc;
    failure.line = info.line;
    failure.column = info.column;
    if (info.reason != nullptr) {
        failure.reason = info.reason;
    }
}

// Fills `failure` for a NUL byte at line, column: the library reads a text
// as ending at its first NUL and would drop the rest unseen.
uint32_t RefuseNul(uint32_t line, uint64_t column, ParseFailure &failure)
{
    failure.code = KRV_XML_ERR_SYNTAX;
    failure.line = line;
    failure.column = static_cast<uint32_t>(column);
    failure.reason = "NUL byte in the text";
    return failure.code;
}

// Moves (line, column) over n bytes that hold no NUL.
void Advance(const char *p, size_t n, uint32_t &line, uint64_t &column)
{
    const char *lf = static_cast<const char *>(::memrchr(p, '\n', n));
    if (lf == nullptr) {
        column += n;
        return;
    }
    line += static_cast<uint32_t>(std::count(p, lf + 1, '\n'));
    column = static_cast<uint64_t>(p + n - lf);
}

// The encoding named by an XML declaration at the start of the n bytes at p,
// or "" when there is none.
std::string DeclaredEncoding(const char *p, size_t n)
{
    const char *kBlanks = " \t\r\n";
    std::string head(p, n);
    // Blanks before the declaration make it a processing instruction here and
    // an error elsewhere; it still says what the bytes are.
    size_t start = head.find_first_not_of(kBlanks);
    if (start == std::string::npos || head.compare(start, 5, "<?xml") != 0 || head.size() < start + 6 ||
        std::strchr(kBlanks, head[start + 5]) == nullptr || head[start + 5] == '\0') {
        return "";
    }
    size_t end = head.find("?>", start);
    for (size_t at = head.find("encoding", start + 5); at < end; at = head.find("encoding", at + 1)) {
        if (std::strchr(kBlanks, head[at - 1]) == nullptr) {
            continue;  // part of another word
        }
        size_t eq = head.find_first_not_of(kBlanks, at + 8);
        if (eq == std::string::npos || head[eq] != '=') {
            continue;
        }
        size_t quote = head.find_first_not_of(kBlanks, eq + 1);
        if (quote == std::string::npos || (head[quote] != '"' && head[quote] != '\'')) {
            continue;
        }
        size_t close = head.find(head[quote], quote + 1);
        if (close < end) {
            return head.substr(quote + 1, close - quote - 1);
        }
    }
    return "";
}

// Parses text already in memory (from standard input, a pipe or a device).
uint32_t ParseBuffer(const std::string &text, bool heap, Tree &tree, ParseFailure &failure)
{
    if (text.empty()) {
        // An empty file is refused as a syntax error; say the same for
        // empty input rather than the string parser's argument error.
        failure.code = KRV_XML_ERR_SYNTAX;
        failure.reason = "empty input";
        return failure.code;
    }
    size_t nul = text.find('\0');
    if (nul != std::string::npos) {
        uint32_t line = 1;
        uint64_t column = 1;
        Advance(text.data(), nul, line, column);
        return RefuseNul(line, column, failure);
    }
    KrvXmlParseInfo info{};
    uint32_t rc = KRV_XML_ParseWithInfo(text.c_str(), heap ? 0u : KRV_XML_PARSE_SESSION, tree.out(), &info);
    if (rc != KRV_XML_OK) {
        Reported(rc, info, failure);
    }
    return rc;
}

// Looks for a NUL byte in the file at `path`; the library would read it only
// up to its first NUL. Fills `failure` when there is one.
bool FileHasNul(const std::string &path, ParseFailure &failure)
{
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        return false;  // the library's own open reports why
    }
    uint32_t line = 1;
    uint64_t column = 1;
    char buf[65536];
    size_t n;
    bool found = false;
    while (!found && (n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        const auto *nul = static_cast<const char *>(std::memchr(buf, 0, n));
        Advance(buf, nul == nullptr ? n : static_cast<size_t>(nul - buf), line, column);
        found = nul != nullptr;
    }
    std::fclose(f);
    if (found) {
        RefuseNul(line, column, failure);
    }
    return found;
}

// A stream of its own on a copy of descriptor `fd`, which stays open.
std::FILE *OpenDuplicate(int fd)
{
    int copy = ::dup(fd);
    std::FILE *in = copy >= 0 ? ::fdopen(copy, "rb") : nullptr;
    if (in == nullptr && copy >= 0) {
        ::close(copy);
    }
    return in;
}

}  // namespace

uint32_t ParseInput(const std::string &file, bool heap, Tree &tree, ParseFailure &failure, InputFacts *facts)
{
    failure = ParseFailure();
    InputFacts seen;
    // Standard input, pipes and devices are read here; the library's file
    // reader wants a file whose size it can ask. So are files that begin
    // with a UTF-8 byte order mark, which the parser would take for text.
    // A descriptor name is read through the descriptor, from where it stands
    // as "-" is; opened by name, it would start again at the file's start.
    int descriptor = file == "-" ? 0 : OwnDescriptor(file);
    bool stream = descriptor >= 0;
    struct stat st;
    if (!stream && ::stat(file.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        stream = true;
    }
    // The start of a file: room for any XML declaration seen in practice.
    std::string head(65536, '\0');
    size_t headBytes = 0;
    if (!stream) {
        if (std::FILE *f = std::fopen(file.c_str(), "rb")) {
            headBytes = std::fread(&head[0], 1, head.size(), f);
            std::fclose(f);
        }
        stream = headBytes >= 3 && head.compare(0, 3, kBom) == 0;
    }
    uint32_t rc;
    if (stream) {
        std::string text;
        std::FILE *in = file == "-"         ? stdin
                        : descriptor >= 0 ? OpenDuplicate(descriptor)
                                          : std::fopen(file.c_str(), "rb");
        bool read = in != nullptr && ReadAll(in, text);
        if (in != nullptr && in != stdin) {
            std::fclose(in);
        }
        if (!read) {
            failure.code = in == nullptr ? KRV_XML_ERR_FILE_OPEN : KRV_XML_ERR_FILE_READ;
            failure.reason = file == "-" ? "cannot read standard input" : "cannot read the file";
            return failure.code;
        }
        seen.bom = text.compare(0, 3, kBom) == 0;
        if (seen.bom) {
            text.erase(0, 3);
        }
        seen.encoding = DeclaredEncoding(text.data(), text.size());
        rc = ParseBuffer(text, heap, tree, failure);
        if (seen.bom && failure.line == 1) {
            failure.column += 3;  // positions count the file's bytes
        }
    } else {
        // A NUL is looked for first, so that it is what a refusal names.
        if (FileHasNul(file, failure)) {
            return failure.code;
        }
        KrvXmlParseInfo info{};
        rc = KRV_XML_ParseFileWithInfo(file.c_str(), heap ? 0u : KRV_XML_PARSE_SESSION, tree.out(), &info);
        if (rc != KRV_XML_OK) {
            Reported(rc, info, failure);
        }
        seen.encoding = DeclaredEncoding(head.data(), headBytes);
    }
    if (rc == KRV_XML_OK && facts != nullptr) {
        *facts = seen;
    }
    return rc;
}

uint32_t ParseText(const std::string &text, bool heap, Tree &tree, ParseFailure &failure)
{
    failure = ParseFailure();
    return ParseBuffer(text, heap, tree, failure);
}

void PrintParseFailure(std::FILE *stream, const char *lead, const std::string &file,
                       const ParseFailure &failure)
{
    std::string shown = Shown(file);
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

// Where `path` leads once symbolic links are followed.
enum class Lead { File, Descriptor, Refused };

// The descriptor of this process that `path` names as an entry of its
// descriptor directory (/proc/self/fd, which /dev/fd leads to), however the
// directory is spelled; -1 for any other name. /dev/stdout and its kin are
// links to such entries.
int DescriptorOf(const std::string &path)
{
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base.empty() || base.size() > 9 || base.find_first_not_of("0123456789") != std::string::npos) {
        return -1;
    }
    struct stat in;
    if (::stat(dir.c_str(), &in) != 0) {
        return -1;
    }
    for (const char *own : {"/proc/self/fd", "/proc/thread-self/fd"}) {
        struct stat fds;
        if (::stat(own, &fds) == 0 && fds.st_dev == in.st_dev && fds.st_ino == in.st_ino) {
            return std::stoi(base);
        }
    }
    return -1;
}

// Follows the symbolic links of `path` into `target`, also when the last one
// points at a file that does not exist yet. A link through /proc or /dev/fd
// names an open descriptor. As the kernel does, gives up after 40 links and
// does not follow a link in a sticky, world-writable directory (such as
// /tmp) that neither the user nor the directory's owner made.
Lead FollowLinks(const std::string &given, std::string &target, std::string &error)
{
    std::string path = given;
    for (int hops = 0; hops <= 40; ++hops) {
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            target = path;
            return Lead::File;
        }
        if (DescriptorOf(path) >= 0) {
            target = path;  // its link names the file behind it, not a file to replace
            return Lead::Descriptor;
        }
        size_t slash = path.rfind('/');
        std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
        struct stat ds;
        if (::stat(dir.c_str(), &ds) == 0 && (ds.st_mode & S_ISVTX) != 0 && (ds.st_mode & S_IWOTH) != 0 &&
            st.st_uid != ds.st_uid && st.st_uid != ::geteuid()) {
            errno = EACCES;
            error = ErrnoText("will not follow the link", path);
            return Lead::Refused;
        }
        // The size lstat gives is not the target's length for links of /proc.
        std::string link(PATH_MAX + 1, '\0');
        ssize_t n = ::readlink(path.c_str(), &link[0], link.size());
        if (n < 0 || static_cast<size_t>(n) >= link.size()) {
            if (n >= 0) {
                errno = ENAMETOOLONG;
            }
            error = ErrnoText("cannot read the link", path);
            return Lead::Refused;
        }
        link.resize(static_cast<size_t>(n));
        path = link[0] == '/' || slash == std::string::npos ? link : path.substr(0, slash + 1) + link;
        if (path.rfind("/proc/", 0) == 0 || path.rfind("/dev/fd/", 0) == 0) {
            target = path;
            return Lead::Descriptor;
        }
    }
    errno = ELOOP;
    error = ErrnoText("cannot follow", given);
    return Lead::Refused;
}

// The temporary file of a write in progress, removed when a signal ends the
// process: a program-wide slot, as signals are.
char g_tempPath[PATH_MAX + 32];
volatile sig_atomic_t g_tempLive = 0;

extern "C" void RemoveTempAndStop(int sig)
{
    if (g_tempLive != 0) {
        ::unlink(g_tempPath);
    }
    ::signal(sig, SIG_DFL);
    ::raise(sig);
}

// Signals that end the process remove the temporary file first. A signal
// the caller had ignored (nohup, a background job) stays ignored.
class TempGuard {
public:
    TempGuard()
    {
        struct sigaction sa {};
        sa.sa_handler = RemoveTempAndStop;
        sigemptyset(&sa.sa_mask);
        for (size_t i = 0; i < kSignals; ++i) {
            installed_[i] = ::sigaction(kStop[i], nullptr, &old_[i]) == 0 && old_[i].sa_handler != SIG_IGN &&
                            ::sigaction(kStop[i], &sa, nullptr) == 0;
        }
    }
    void Live(bool live) { g_tempLive = live ? 1 : 0; }
    ~TempGuard()
    {
        g_tempLive = 0;
        for (size_t i = 0; i < kSignals; ++i) {
            if (installed_[i]) {
                ::sigaction(kStop[i], &old_[i], nullptr);
            }
        }
    }
    TempGuard(const TempGuard &) = delete;
    TempGuard &operator=(const TempGuard &) = delete;

private:
    static constexpr size_t kSignals = 4;
    static constexpr int kStop[kSignals] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    struct sigaction old_[kSignals];
    bool installed_[kSignals];
};

// Writes straight into a device, pipe or descriptor name, which has no
// directory entry worth replacing.
bool WriteInPlace(const std::string &path, const std::string &text, std::string &error)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOCTTY);
    if (fd < 0) {
        error = ErrnoText("cannot open", path);
        return false;
    }
    bool ok = WriteAll(fd, text);
    if (!ok) {
        error = ErrnoText("cannot write", path);
    }
    if (::close(fd) != 0 && ok) {
        error = ErrnoText("cannot close", path);
        ok = false;
    }
    return ok;
}

}  // namespace

int OwnDescriptor(const std::string &file)
{
    std::string target, error;
    int fd = DescriptorOf(file);
    if (fd < 0 && FollowLinks(file, target, error) == Lead::Descriptor) {
        fd = DescriptorOf(target);
    }
    return fd;
}

bool IsStream(const std::string &file)
{
    std::string target, error;
    struct stat st;
    return file == "-" || DescriptorOf(file) >= 0 || FollowLinks(file, target, error) == Lead::Descriptor ||
           (::stat(file.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode));
}

bool WriteFileAtomically(const std::string &path, const std::string &text, std::string &error)
{
    // Follow symbolic links, so that a link stays and its target changes.
    std::string target = path;
    Lead lead = DescriptorOf(path) >= 0 ? Lead::Descriptor : FollowLinks(path, target, error);
    if (lead == Lead::Refused) {
        return false;
    }
    // A descriptor of this process is written through itself, at the offset
    // it shares with the shell's redirection; reopened, it would start a new
    // one and overwrite what others wrote.
    int descriptor = lead == Lead::Descriptor ? DescriptorOf(target) : -1;
    if (descriptor >= 0) {
        if (!WriteAll(descriptor, text)) {
            error = ErrnoText("cannot write", path);
            return false;
        }
        return true;
    }
    struct stat st;
    bool exists = ::stat(target.c_str(), &st) == 0;
    if (lead == Lead::Descriptor || (exists && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode))) {
        return WriteInPlace(path, text, error);
    }
    mode_t mode;
    if (exists) {
        mode = st.st_mode & 07777;
    } else {
        mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }

    size_t slash = target.rfind('/');
    std::string dir = slash == std::string::npos ? std::string(".") : target.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    // The temporary name stays within NAME_MAX whatever the file's name.
    std::string temp = (slash == std::string::npos ? std::string() : dir) + "." + base.substr(0, 200) +
                       ".krvxml-XXXXXX";

    TempGuard guard;
    sigset_t all, before;
    sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, &before);  // no window between creating and noting it
    int fd = ::mkstemp(&temp[0]);
    if (fd >= 0 && temp.size() < sizeof g_tempPath) {
        std::memcpy(g_tempPath, temp.c_str(), temp.size() + 1);
        guard.Live(true);
    }
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    if (fd < 0) {
        error = ErrnoText("cannot create a temporary file for", target);
        return false;
    }
    bool ok = true;
    if (!WriteAll(fd, text)) {
        error = ErrnoText("cannot write", temp);
        ok = false;
    } else {
        // Keep the owner and group where the user may; a change of owner
        // clears set-id bits, so the mode is set after it.
        if (exists && ::fchown(fd, st.st_uid, st.st_gid) != 0 &&
            ::fchown(fd, static_cast<uid_t>(-1), st.st_gid) != 0) {
            // Neither is ours to give: the file becomes the user's, as a new one would.
        }
        if (::fchmod(fd, mode) != 0) {
            error = ErrnoText("cannot set the permissions of", temp);
            ok = false;
        } else if (::fsync(fd) != 0) {
            error = ErrnoText("cannot flush", temp);
            ok = false;
        }
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
    guard.Live(false);
    // Make the rename itself durable; a failure here leaves a complete file.
    int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return true;
}

}  // namespace krvtool
