// The peer comparison driver.
//
// For every file of the corpus MANIFEST and every library built in, one cell:
// parse from memory into a tree, print the tree to a string, copy it, look a
// node up, free it; the heap bytes the tree holds; all in one run so that the
// ratios against pugixml compare like with like. Each cell runs in a forked
// child with a time limit, so a library that hangs or crashes on a shape is
// reported as such and the run goes on. Timings are the best of several
// repetitions (the machine is shared; the minimum is the least disturbed).
//
// Usage: krvbench_peers [--quick] [--manifest FILE] [--json FILE]
//                       [--only NAME,NAME] [--budget SECONDS] [--timeout SECONDS]
//                       [--passes N]
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench_lib.h"

namespace krvbench {
namespace {

double now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Options {
    bool quick = false;
    std::string manifest = "bench/corpus/MANIFEST";
    std::string json;
    std::vector<std::string> only;
    double budget = 1.5;      // seconds of repetitions per cell
    double timeout = 120.0;   // limit per cell for ordinary files
    double hostileTimeout = 20.0;
    int passes = 2;           // runs of the whole table; each cell keeps its best
};

struct File {
    std::string group, name, path;
    std::vector<char> text;  // NUL-terminated
    size_t size = 0;
    Query query;
};

enum Status : int32_t { kOk = 0, kRefused, kTimeout, kCrash, kSkipped };

// What a child reports back through its pipe; plain data.
struct Cell {
    int32_t status = kSkipped;
    int32_t signal = 0;
    int32_t reps = 0;
    int32_t lookupFound = 0;
    double parse = NAN, print = NAN, clone = NAN, free = NAN, lookupNs = NAN;
    // Medians of the same repetitions, shown beside the scaling lines: the
    // best of many 1 ms runs may fall wholly between two disturbances of the
    // machine, which no 100 ms run can, so the ratio of the medians shows
    // whether a ratio of best runs leans on one lucky short run.
    double parseMedian = NAN, printMedian = NAN, cloneMedian = NAN, freeMedian = NAN;
    int64_t treeBytes = -1, treeBlocks = -1, parsePeak = -1;
    int64_t outBytes = -1;
};

void minInto(double &best, double t)
{
    if (std::isnan(best) || t < best) {
        best = t;
    }
}

// The median of the times in `t` (NAN for none); reorders them.
double median(std::vector<double> &t)
{
    if (t.empty()) {
        return NAN;
    }
    const size_t mid = t.size() / 2;
    std::nth_element(t.begin(), t.begin() + static_cast<std::ptrdiff_t>(mid), t.end());
    double upper = t[mid];
    if (t.size() % 2 != 0) {
        return upper;
    }
    return (*std::max_element(t.begin(), t.begin() + static_cast<std::ptrdiff_t>(mid)) + upper) / 2;
}

// Folds a later pass's cell into the earlier one: the best time of each
// operation, the repetitions of both, and a failure of either pass.
void foldPass(Cell &into, const Cell &later)
{
    if (into.status != kOk) {
        return;
    }
    if (later.status != kOk) {
        into = later;
        return;
    }
    minInto(into.parse, later.parse);
    minInto(into.print, later.print);
    minInto(into.clone, later.clone);
    minInto(into.free, later.free);
    minInto(into.lookupNs, later.lookupNs);
    minInto(into.parseMedian, later.parseMedian);  // the pass with the lower median
    minInto(into.printMedian, later.printMedian);
    minInto(into.cloneMedian, later.cloneMedian);
    minInto(into.freeMedian, later.freeMedian);
    into.reps += later.reps;
}

// The body of a cell, run in the child.
Cell runCell(const Adapter &lib, const File &f, const Options &opt, bool hostile)
{
    Cell c;
    const char *text = f.text.data();
    // First run: heap accounting on, not timed; it also warms caches.
    HeapCountStart();
    void *doc = lib.parse(text, f.size);
    HeapCount hc = HeapCountStop();
    if (doc == nullptr) {
        c.status = kRefused;
        return c;
    }
    c.treeBytes = hc.live;
    c.treeBlocks = hc.blocks;
    c.parsePeak = hc.peak;
    if (lib.print != nullptr) {
        void *out = lib.print(doc);
        c.outBytes = out != nullptr ? static_cast<int64_t>(lib.releaseOutput(out)) : -1;
    }
    if (f.query.index != 0 && lib.lookup != nullptr) {
        c.lookupFound = lib.lookup(doc, f.query) ? 1 : 0;
    }
    if (lib.clone != nullptr) {
        void *copy = lib.clone(doc);  // so that the timed copies find their memory touched
        if (copy != nullptr) {
            lib.releaseClone(copy);
        }
    }
    lib.release(doc);

    // At least five timed repetitions of an ordinary file, however large:
    // the figures are minima, and the scaling goals set a 100 MB minimum
    // against a 1 MB one taken over up to 200 runs, so a minimum over two
    // runs would weigh one slow run of the large file. Hostile shapes run
    // at most three times.
    int minReps = hostile ? 1 : 5;
    int maxReps = hostile ? 3 : 200;
    double budget = opt.budget;
    std::vector<double> parses, prints, clones, frees;
    for (auto *v : {&parses, &prints, &clones, &frees}) {
        v->reserve(static_cast<size_t>(maxReps));  // no allocation between the clock readings
    }
    double start = now();
    for (int rep = 0; rep < maxReps && (rep < minReps || now() - start < budget); ++rep) {
        double t0 = now();
        doc = lib.parse(text, f.size);
        double t1 = now();
        if (doc == nullptr) {
            c.status = kRefused;  // refused on a repetition: unstable, report it
            return c;
        }
        minInto(c.parse, t1 - t0);
        parses.push_back(t1 - t0);
        if (lib.print != nullptr) {
            t0 = now();
            void *out = lib.print(doc);
            t1 = now();
            if (out != nullptr) {
                minInto(c.print, t1 - t0);
                prints.push_back(t1 - t0);
                lib.releaseOutput(out);
            }
        }
        if (lib.clone != nullptr) {
            t0 = now();
            void *copy = lib.clone(doc);
            t1 = now();
            if (copy != nullptr) {
                minInto(c.clone, t1 - t0);
                clones.push_back(t1 - t0);
                lib.releaseClone(copy);
            }
        }
        if (rep == 0 && f.query.index != 0 && lib.lookup != nullptr) {
            // Lookups are short: time a batch.
            size_t n = 0;
            t0 = now();
            do {
                for (int i = 0; i < 16; ++i) {
                    lib.lookup(doc, f.query);
                }
                n += 16;
            } while (now() - t0 < (hostile ? 0.001 : 0.02));
            c.lookupNs = (now() - t0) * 1e9 / static_cast<double>(n);
        }
        t0 = now();
        lib.release(doc);
        t1 = now();
        if (lib.print != nullptr) {
            minInto(c.free, t1 - t0);  // trees only: baselines and scans free nothing
            frees.push_back(t1 - t0);
        }
        c.reps = rep + 1;
    }
    c.parseMedian = median(parses);
    c.printMedian = median(prints);
    c.cloneMedian = median(clones);
    c.freeMedian = median(frees);
    c.status = kOk;
    return c;
}

// Runs one cell in a child process with a time limit.
Cell runIsolated(const Adapter &lib, const File &f, const Options &opt)
{
    bool hostile = f.group == "hostile";
    int fds[2];
    if (pipe(fds) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        std::exit(1);
    }
    if (pid == 0) {
        close(fds[0]);
#ifndef KRVBENCH_SANITIZED
        rlimit as{};
        as.rlim_cur = as.rlim_max = 16ull << 30;  // keep a runaway away from the other tenants
        setrlimit(RLIMIT_AS, &as);
#endif
        // Keep freed memory in the process: on a virtual machine a first
        // touch of a page can cost more than parsing it, and the repetitions
        // are meant to measure the library, not the page fault path. The
        // untimed first run faults the memory in.
        mallopt(M_MMAP_MAX, 0);
        mallopt(M_TRIM_THRESHOLD, INT32_MAX);
        mallopt(M_TOP_PAD, 64 << 20);
        Cell c = runCell(lib, f, opt, hostile);
        ssize_t w = write(fds[1], &c, sizeof c);
        _exit(w == static_cast<ssize_t>(sizeof c) ? 0 : 3);
    }
    close(fds[1]);
    double limit = hostile ? opt.hostileTimeout : opt.timeout;
    Cell c;
    pollfd p{fds[0], POLLIN, 0};
    int ready = poll(&p, 1, static_cast<int>(limit * 1000));
    bool got = false;
    if (ready > 0) {
        ssize_t r = read(fds[0], &c, sizeof c);
        got = r == static_cast<ssize_t>(sizeof c);
    } else {
        kill(pid, SIGKILL);
    }
    close(fds[0]);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    if (got) {
        return c;
    }
    Cell bad;
    if (ready == 0) {
        bad.status = kTimeout;
    } else if (WIFSIGNALED(wstatus)) {
        bad.status = kCrash;
        bad.signal = WTERMSIG(wstatus);
    } else {
        bad.status = kCrash;
    }
    return bad;
}

// Plans the lookup with the first library that can describe a tree, in a
// child as well: the parse may crash on a hostile shape.
void planLookup(const std::vector<Adapter> &libs, File &f, const Options &opt)
{
    const Adapter *lib = nullptr;
    for (const Adapter &a : libs) {
        if (a.describe != nullptr) {
            lib = &a;
            break;
        }
    }
    if (lib == nullptr) {
        return;
    }
    int fds[2];
    if (pipe(fds) != 0) {
        return;
    }
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return;
    }
    if (pid == 0) {
        close(fds[0]);
        Query q;
        void *doc = lib->parse(f.text.data(), f.size);
        std::string msg;
        if (doc != nullptr && lib->describe(doc, q)) {
            msg = q.root + '\n' + q.child + '\n' + std::to_string(q.index) + '\n' + q.url + '\n';
        }
        ssize_t w = write(fds[1], msg.data(), msg.size());
        _exit(w == static_cast<ssize_t>(msg.size()) ? 0 : 3);
    }
    close(fds[1]);
    std::string msg;
    char buf[4096];
    pollfd p{fds[0], POLLIN, 0};
    double end = now() + (f.group == "hostile" ? opt.hostileTimeout : opt.timeout);
    while (now() < end && poll(&p, 1, 100) >= 0) {
        if (p.revents == 0) continue;
        ssize_t r = read(fds[0], buf, sizeof buf);
        if (r <= 0) break;
        msg.append(buf, static_cast<size_t>(r));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(fds[0]);
    std::istringstream in(msg);
    std::string index;
    Query q;
    if (std::getline(in, q.root) && std::getline(in, q.child) && std::getline(in, index) &&
        std::getline(in, q.url)) {
        q.index = std::strtoul(index.c_str(), nullptr, 10);
        f.query = q;
    }
}

// Reads straight into a buffer of the file's size: no growing stream and no
// temporary copies, which would leave freed holes in the parent's heap that
// every forked cell then fills page by page (copy-on-write faults).
bool loadFile(File &f)
{
    std::ifstream in(f.path, std::ios::binary | std::ios::ate);
    if (!in) {
        return false;
    }
    std::streamoff size = in.tellg();
    if (size < 0) {
        return false;
    }
    in.seekg(0);
    f.size = static_cast<size_t>(size);
    f.text.resize(f.size + 1);
    if (!in.read(f.text.data(), size)) {
        return false;
    }
    f.text[f.size] = '\0';
    return true;
}

std::vector<File> readManifest(const std::string &path)
{
    std::vector<File> files;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        File f;
        std::istringstream ls(line);
        if (std::getline(ls, f.group, '\t') && std::getline(ls, f.name, '\t') && std::getline(ls, f.path)) {
            files.push_back(f);
        }
    }
    return files;
}

std::string statusText(const Cell &c)
{
    switch (c.status) {
    case kOk: return "ok";
    case kRefused: return "refused";
    case kTimeout: return "timeout";
    case kCrash: return c.signal != 0 ? std::string("SIG") + sigabbrev_np(c.signal) : "crash";
    default: return "-";
    }
}

std::string fmt(const char *f, double v)
{
    if (std::isnan(v) || std::isinf(v)) {
        return "-";
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, f, v);
    return buf;
}

double mbps(size_t bytes, double sec)
{
    return sec > 0 ? static_cast<double>(bytes) / 1e6 / sec : NAN;
}

const Cell *find(const std::vector<Cell> &row, const std::vector<Adapter> &libs, const char *name)
{
    for (size_t i = 0; i < libs.size(); ++i) {
        if (std::strcmp(libs[i].name, name) == 0 && row[i].status == kOk) {
            return &row[i];
        }
    }
    return nullptr;
}

void printTable(const File &f, const std::vector<Adapter> &libs, const std::vector<Cell> &row)
{
    const Cell *ref = find(row, libs, "pugixml");
    std::printf("\n== %s (%s, %zu bytes)", f.name.c_str(), f.group.c_str(), f.size);
    if (f.query.index != 0) {
        std::printf("  lookup: %s child #%zu", f.query.child.c_str(), f.query.index);
    }
    std::printf("\n%-12s %-8s %9s %9s %9s %9s %10s %10s %8s %7s %7s %7s %4s\n", "library", "status",
                "parse", "print", "clone", "free", "lookup", "tree", "tree/in", "parse", "print",
                "mem", "reps");
    std::printf("%-12s %-8s %9s %9s %9s %9s %10s %10s %8s %7s %7s %7s %4s\n", "", "", "MB/s", "MB/s",
                "MB/s", "ms", "ns", "MB", "", "/pugi", "/pugi", "/pugi", "");
    for (size_t i = 0; i < libs.size(); ++i) {
        const Cell &c = row[i];
        if (c.status == kSkipped) {
            continue;
        }
        double treeMb = c.treeBytes >= 0 ? static_cast<double>(c.treeBytes) / 1e6 : NAN;
        bool dom = std::strcmp(libs[i].kind, "baseline") != 0 && libs[i].print != nullptr;
        double pr = NAN, prr = NAN, mr = NAN;
        if (ref != nullptr && c.status == kOk) {
            pr = ref->parse / c.parse;
            prr = ref->print / c.print;
            mr = dom && c.treeBytes >= 0 && ref->treeBytes > 0
                     ? static_cast<double>(c.treeBytes) / static_cast<double>(ref->treeBytes)
                     : NAN;
        }
        std::printf("%-12s %-8s %9s %9s %9s %9s %10s %10s %8s %7s %7s %7s %4d\n", libs[i].name,
                    statusText(c).c_str(), fmt("%.1f", mbps(f.size, c.parse)).c_str(),
                    fmt("%.1f", mbps(f.size, c.print)).c_str(), fmt("%.1f", mbps(f.size, c.clone)).c_str(),
                    fmt("%.3f", c.free * 1e3).c_str(),
                    fmt("%.0f", c.lookupFound != 0 ? c.lookupNs : NAN).c_str(),
                    fmt("%.2f", dom ? treeMb : NAN).c_str(),
                    fmt("%.2f", dom ? treeMb * 1e6 / static_cast<double>(f.size) : NAN).c_str(),
                    fmt("%.2f", pr).c_str(), fmt("%.2f", prr).c_str(), fmt("%.2f", mr).c_str(), c.reps);
    }
}

// ---- goals ---------------------------------------------------------------

struct Goal {
    std::string what;
    bool met;
    std::string detail;
    bool reference = false;  // a figure to read the goals by, not a goal
};

void checkGoals(const std::vector<File> &files, const std::vector<Adapter> &libs,
                const std::vector<std::vector<Cell>> &cells, std::vector<Goal> &goals)
{
    auto ratioGoal = [&](const char *what, const char *ours, const char *theirs, auto measure,
                         double need, bool higherBetter) {
        for (size_t fi = 0; fi < files.size(); ++fi) {
            if (files[fi].group == "hostile") {
                continue;
            }
            const Cell *a = find(cells[fi], libs, ours);
            const Cell *b = find(cells[fi], libs, theirs);
            if (b == nullptr) {
                continue;  // no reference: nothing to judge
            }
            Goal g{std::string(what) + ": " + files[fi].name, false, "ours failed"};
            if (a != nullptr) {
                double r = measure(*a, *b);
                g.met = higherBetter ? r >= need : r <= need;
                g.detail = fmt("%.2f", r) + (higherBetter ? " (need >= " : " (need <= ") + fmt("%.2f", need) + ")";
            }
            goals.push_back(g);
        }
    };
    auto speed = [](double Cell::*m) { return [m](const Cell &a, const Cell &b) { return b.*m / a.*m; }; };
    ratioGoal("session parse vs pugixml", "krv session", "pugixml", speed(&Cell::parse), 1.0, true);
    ratioGoal("heap parse vs tinyxml2", "krv heap", "tinyxml2", speed(&Cell::parse), 1.0, true);
    ratioGoal("session transform vs pugixml save", "krv session", "pugixml", speed(&Cell::print), 1.0, true);
    ratioGoal("heap transform vs pugixml save", "krv heap", "pugixml", speed(&Cell::print), 1.0, true);
    if (HeapCountExact()) {
        ratioGoal("session tree memory / pugixml", "krv session", "pugixml",
                  [](const Cell &a, const Cell &b) {
                      return static_cast<double>(a.treeBytes) / static_cast<double>(b.treeBytes);
                  },
                  1.5, false);
    }

    // Scaling: 100 MB against 1 MB of the same generator.
    int small = -1, large = -1;
    for (size_t fi = 0; fi < files.size(); ++fi) {
        if (files[fi].name == "synthetic_1MB") small = static_cast<int>(fi);
        if (files[fi].name == "synthetic_100MB") large = static_cast<int>(fi);
    }
    if (small >= 0 && large >= 0) {
        struct Op {
            const char *name;
            double Cell::*best;
            double Cell::*median;
        };
        const Op ops[] = {{"parse", &Cell::parse, &Cell::parseMedian},
                          {"print", &Cell::print, &Cell::printMedian},
                          {"clone", &Cell::clone, &Cell::cloneMedian},
                          {"free", &Cell::free, &Cell::freeMedian}};
        auto medians = [](const Cell &s, const Cell &l, const Op &op) {
            return "medians " + fmt("%.1f", l.*op.median / s.*op.median);
        };
        for (const char *lib : {"krv heap", "krv session"}) {
            const Cell *s = find(cells[small], libs, lib);
            const Cell *l = find(cells[large], libs, lib);
            for (const Op &op : ops) {
                Goal g{std::string(lib) + " " + op.name + " 100MB/1MB time", false, "a run failed"};
                if (s != nullptr && l != nullptr) {
                    double r = l->*op.best / s->*op.best;
                    g.met = r <= 110.0;
                    g.detail = fmt("%.1f", r) + " (need <= 110; " + medians(*s, *l, op) + ")";
                }
                goals.push_back(g);
            }
        }
        // The same ratios for a copy of the input and for pugixml: a 1 MB
        // tree stays in the caches and a 100 MB one does not, so what the
        // machine's memory costs shows in these too.
        const std::pair<const char *, int> refs[] = {{"memcpy", 1}, {"pugixml", 3}};
        for (const auto &ref : refs) {
            const Cell *s = find(cells[small], libs, ref.first);
            const Cell *l = find(cells[large], libs, ref.first);
            for (int i = 0; s != nullptr && l != nullptr && i < ref.second; ++i) {
                const char *op = ref.second == 1 ? "copy" : ops[i].name;
                goals.push_back(Goal{std::string(ref.first) + " " + op + " 100MB/1MB time", false,
                                     fmt("%.1f", l->*ops[i].best / s->*ops[i].best) + " (" +
                                         medians(*s, *l, ops[i]) + ")",
                                     true});
            }
        }
    }
    for (size_t fi = 0; fi < files.size(); ++fi) {
        if (files[fi].group != "hostile") {
            continue;
        }
        for (const char *lib : {"krv heap", "krv session"}) {
            for (size_t i = 0; i < libs.size(); ++i) {
                if (std::strcmp(libs[i].name, lib) == 0) {
                    const Cell &c = cells[fi][i];
                    goals.push_back(Goal{std::string(lib) + " completes " + files[fi].name, c.status == kOk,
                                         statusText(c) + ", parse " + fmt("%.3f s", c.parse)});
                }
            }
        }
    }
}

// ---- JSON ----------------------------------------------------------------

void num(std::string &out, const char *key, double v, bool comma = true)
{
    out += '"';
    out += key;
    out += "\":";
    out += (std::isnan(v) || std::isinf(v)) ? "null" : fmt("%.9g", v);
    if (comma) out += ',';
}

std::string toJson(const Options &opt, const std::vector<File> &files, const std::vector<Adapter> &libs,
                   const std::vector<std::vector<Cell>> &cells, const std::vector<Goal> &goals)
{
    std::string out = "{\"tool\":\"krvbench_peers\",";
    out += std::string("\"quick\":") + (opt.quick ? "true" : "false") + ",";
    out += "\"passes\":" + std::to_string(opt.passes) + ",";
    out += std::string("\"heap_counted\":") + (HeapCountExact() ? "true" : "false") + ",";
    num(out, "time", static_cast<double>(time(nullptr)));
    out += "\"files\":[";
    for (size_t fi = 0; fi < files.size(); ++fi) {
        const File &f = files[fi];
        out += fi ? ",{" : "{";
        out += "\"name\":";
        JsonString(out, f.name);
        out += ",\"group\":";
        JsonString(out, f.group);
        out += ",";
        num(out, "bytes", static_cast<double>(f.size));
        out += "\"results\":[";
        bool first = true;
        for (size_t i = 0; i < libs.size(); ++i) {
            const Cell &c = cells[fi][i];
            if (c.status == kSkipped) continue;
            out += first ? "{" : ",{";
            first = false;
            out += "\"library\":";
            JsonString(out, libs[i].name);
            out += ",\"kind\":";
            JsonString(out, libs[i].kind);
            out += ",\"status\":";
            JsonString(out, statusText(c));
            out += ",";
            num(out, "parse_s", c.parse);
            num(out, "print_s", c.print);
            num(out, "clone_s", c.clone);
            num(out, "free_s", c.free);
            num(out, "parse_median_s", c.parseMedian);
            num(out, "print_median_s", c.printMedian);
            num(out, "clone_median_s", c.cloneMedian);
            num(out, "free_median_s", c.freeMedian);
            num(out, "lookup_ns", c.lookupFound ? c.lookupNs : NAN);
            num(out, "parse_mb_s", mbps(f.size, c.parse));
            num(out, "print_mb_s", mbps(f.size, c.print));
            num(out, "tree_bytes", c.treeBytes >= 0 ? static_cast<double>(c.treeBytes) : NAN);
            num(out, "tree_blocks", c.treeBlocks >= 0 ? static_cast<double>(c.treeBlocks) : NAN);
            num(out, "parse_peak_bytes", c.parsePeak >= 0 ? static_cast<double>(c.parsePeak) : NAN);
            num(out, "output_bytes", c.outBytes >= 0 ? static_cast<double>(c.outBytes) : NAN);
            num(out, "reps", c.reps, false);
            out += "}";
        }
        out += "]}";
    }
    out += "],\"goals\":[";
    for (size_t i = 0; i < goals.size(); ++i) {
        out += i ? ",{" : "{";
        out += "\"goal\":";
        JsonString(out, goals[i].what);
        // A reference line is no goal: it has no "met".
        out += goals[i].reference ? std::string(",\"reference\":true,")
                                  : std::string(",\"met\":") + (goals[i].met ? "true," : "false,");
        out += "\"detail\":";
        JsonString(out, goals[i].detail);
        out += "}";
    }
    out += "]}\n";
    return out;
}

bool parseArgs(int argc, char **argv, Options &opt)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        const char *v = nullptr;
        if (a == "--quick") {
            opt.quick = true;
            opt.budget = 0.15;
            opt.hostileTimeout = 3.0;
            opt.timeout = 60.0;
            opt.passes = 1;
        } else if (a == "--manifest" && (v = value()) != nullptr) {
            opt.manifest = v;
        } else if (a == "--json" && (v = value()) != nullptr) {
            opt.json = v;
        } else if (a == "--passes" && (v = value()) != nullptr) {
            opt.passes = std::atoi(v) < 1 ? 1 : std::atoi(v);
        } else if (a == "--budget" && (v = value()) != nullptr) {
            opt.budget = std::atof(v);
        } else if (a == "--timeout" && (v = value()) != nullptr) {
            opt.hostileTimeout = std::atof(v);
        } else if (a == "--only" && (v = value()) != nullptr) {
            std::stringstream ss(v);
            std::string item;
            while (std::getline(ss, item, ',')) opt.only.push_back(item);
        } else {
            std::fprintf(stderr,
                         "usage: %s [--quick] [--manifest FILE] [--json FILE] [--only NAME,NAME] "
                         "[--budget SECONDS] [--timeout SECONDS] [--passes N]\n",
                         argv[0]);
            return false;
        }
    }
    return true;
}

}  // namespace

void JsonString(std::string &out, const std::string &s)
{
    out += '"';
    for (unsigned char ch : s) {
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
        } else if (ch < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", ch);
            out += buf;
        } else {
            out += static_cast<char>(ch);
        }
    }
    out += '"';
}

}  // namespace krvbench

int main(int argc, char **argv)
{
    using namespace krvbench;
    Options opt;
    if (!parseArgs(argc, argv, opt)) {
        return 2;
    }
    std::vector<Adapter> all;
    AddBaselines(all);
#ifdef KRVBENCH_HAVE_KRV
    AddKrv(all);
#endif
#ifdef KRVBENCH_HAVE_PUGIXML
    AddPugixml(all);
#endif
#ifdef KRVBENCH_HAVE_RAPIDXML
    AddRapidxml(all);
#endif
#ifdef KRVBENCH_HAVE_TINYXML2
    AddTinyxml2(all);
#endif
#ifdef KRVBENCH_HAVE_LIBXML2
    AddLibxml2(all);
#endif
#ifdef KRVBENCH_HAVE_MXML
    AddMxml(all);
#endif
#ifdef KRVBENCH_HAVE_EXPAT
    AddExpat(all);
#endif
    std::vector<Adapter> libs;
    for (const Adapter &a : all) {
        if (opt.only.empty() || std::find(opt.only.begin(), opt.only.end(), a.name) != opt.only.end()) {
            libs.push_back(a);
        }
    }
    std::vector<File> files = readManifest(opt.manifest);
    if (files.empty()) {
        std::fprintf(stderr, "no files in %s (run bench/make_corpus)\n", opt.manifest.c_str());
        return 2;
    }
    std::printf("krvbench_peers: %zu libraries, %zu files, heap count %s, %s\n", libs.size(), files.size(),
                HeapCountExact() ? "counted (malloc interposer)" : "not counted (sanitizer build)",
                opt.quick ? "quick" : "full");
    std::printf("MB/s are input bytes per second of the best repetition over %d pass%s; ratios /pugi: "
                ">1 faster (parse, print) or larger (mem) than pugixml.\n",
                opt.passes, opt.passes == 1 ? "" : "es");

    // A shared machine has slow spells of several seconds. The table is run
    // `passes` times, minutes apart, and each cell keeps its best, so that a
    // spell during one cell does not stand for that library on that file.
    std::vector<std::vector<Cell>> cells(files.size(), std::vector<Cell>(libs.size()));
    for (int pass = 0; pass < opt.passes; ++pass) {
        for (size_t k = 0; k < files.size(); ++k) {
            File &f = files[k];
            if (!loadFile(f)) {
                std::fprintf(stderr, "cannot read %s\n", f.path.c_str());
                return 2;
            }
            if (pass == 0) {
                planLookup(libs, f, opt);
            }
            for (size_t i = 0; i < libs.size(); ++i) {
                Cell c = runIsolated(libs[i], f, opt);
                if (pass == 0) {
                    cells[k][i] = c;
                } else {
                    foldPass(cells[k][i], c);
                }
            }
            if (pass + 1 == opt.passes) {
                printTable(f, libs, cells[k]);
            }
            std::vector<char>().swap(f.text);
        }
    }

    std::vector<Goal> goals;
    bool haveKrv = std::any_of(libs.begin(), libs.end(),
                               [](const Adapter &a) { return std::strncmp(a.name, "krv", 3) == 0; });
    if (haveKrv) {
        checkGoals(files, libs, cells, goals);
    }
    if (!goals.empty()) {
        std::printf("\n== goals\n");
        for (const Goal &g : goals) {
            const char *mark = g.reference ? "REF" : g.met ? "MET" : "MISS";
            std::printf("%-4s %-52s %s\n", mark, g.what.c_str(), g.detail.c_str());
        }
    }
    if (!opt.json.empty()) {
        std::ofstream out(opt.json);
        out << toJson(opt, files, libs, cells, goals);
        std::printf("\nJSON: %s\n", opt.json.c_str());
    }
    return 0;
}
