// Google Benchmark programs for the memory session and for how the main
// operations scale with document size.
//
// SessionMalloc/N: N small requests (8..120 bytes, a fixed pseudo-random
// pattern) carved from one session, then the session ended. The time per
// request should not depend on N: the first-fit search is O(1) or O(log
// blocks), never a walk over the chain, and the heap is asked for a few
// slabs, not for every block. Both sizes run on resident memory (an untimed
// session clears, and so faults in, every block the timed ones use; main()
// keeps freed memory in the process). What still differs is the cache: at
// 10M the blocks cleared for the session come from main memory, at 10K from
// the cache.
//
// BuildChain/regime/N: N elements made one by one, each appended under the one
// made before it, then an attribute added at the tip. A session remembers the
// top record of the last insertion and a heap tree finds it through its path
// links, so the time per element should not grow with N (for the heap, not
// faster than log N).
//
// EditInOrder/regime/N: the attribute of each element of an N-deep chain set
// anew, top down. The time per element should not grow with N in either
// regime.
//
// AddUpward/regime/N: an attribute added to each element of an N-deep
// chain, from the deepest up. A session remembers the parent of the element
// just edited, so its time per element should not grow with N; a heap tree
// finds its top through the path links, in amortised O(log N).
//
// EditComb/regime/N: an attribute added to each element of a comb, in
// document order: an N-deep spine whose every element has a leaf after its
// spine child. In a session whose records all lie in its document no walk
// is needed, so the time per element should not grow with N; heap trees use
// the path links.
//
// AddShuffledHoldingNew/regime/N: an attribute added to each element of an
// N-deep chain in a shuffled order, while a new unlinked record is held.
// Both regimes then use the path links: the time per element may grow as
// log N, and with the cache misses of a random order, but not as N.
//
// RemoveIntoReusedHandle/regime/N: the side tree of each level of an N-deep
// chain taken out through the C++ layer into one handle. The time per
// removal should not grow with N.
//
// WideElement/regime/N: N attributes added to one element one call at a
// time, each then read and the last first removed; parsed_regime: N
// attributes parsed, each set, read and the last first removed; read_regime:
// N attributes parsed, each read by name, then all walked by name
// (KRV_XML_GetNextSiblingAttr). A list longer than 16 attributes gets an index
// at its first edit or search, so the time per attribute should not grow with
// N.
//
// Parse, Print, Clone, Free at 1 MB and 100 MB of the same synthetic
// document, heap and session regimes: the time per byte should be flat.
// The documents come from bench/make_corpus (KRVBENCH_CORPUS overrides the
// directory).
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "krv_xml.h"
#include "krv_xml.hpp"
#include "krv_xml_component.h"

namespace {

// Sizes 8..120, multiples of 8 and odd ones alike, from a fixed-seed LCG.
const std::vector<int32_t> &requestSizes()
{
    static const std::vector<int32_t> sizes = [] {
        std::vector<int32_t> v(4096);
        uint64_t s = 0x2545F4914F6CDD1Dull;
        for (auto &n : v) {
            s = s * 6364136223846793005ull + 1442695040888963407ull;
            n = 8 + static_cast<int32_t>((s >> 33) % 113);
        }
        return v;
    }();
    return sizes;
}

void SessionMalloc(benchmark::State &state)
{
    const auto &sizes = requestSizes();
    const int64_t n = state.range(0);
    auto once = [&] {
        XmlMemSession *session = XML_MemSessionBegin(8192);
        for (int64_t i = 0; i < n; ++i) {
            void *p = XML_MemSpecialMalloc(session, sizes[static_cast<size_t>(i) & 4095]);
            benchmark::DoNotOptimize(p);
        }
        XML_MemSessionEnd(session);
    };
    once();  // untimed: faults in the memory that the timed sessions reuse
    for (auto _ : state) {
        once();
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(SessionMalloc)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(SessionMalloc)->Arg(10000000)->Iterations(3)->Unit(benchmark::kMillisecond);

#ifdef KRVBENCH_HAVE_KRV

void BuildChain(benchmark::State &state, bool session)
{
    const int64_t n = state.range(0);
    for (auto _ : state) {
        XmlNode *doc = nullptr;
        uint32_t rc = session ? KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, "doc", nullptr, &doc)
                              : KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, "doc", nullptr, &doc);
        XmlNode *tip = doc;
        for (int64_t i = 0; i < n && rc == KRV_XML_OK; ++i) {
            XmlNode *e = nullptr;
            rc = KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, nullptr, "e", nullptr, &e);
            if (rc == KRV_XML_OK) {
                rc = KRV_XML_AppendChildNode(tip, e);
                tip = e;
            }
        }
        if (rc == KRV_XML_OK) {
            rc = KRV_XML_AddAttr(tip, nullptr, "tip", "1");
        }
        KRV_XML_FreeNode(doc);
        if (rc != KRV_XML_OK) {
            state.SkipWithError("building the chain failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK_CAPTURE(BuildChain, session, true)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BuildChain, heap, false)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// Every attribute value of an N-deep chain replaced in document order, as a
// tool that rewrites values does. Each new string is routed by the tree: a
// session remembers the top found for the owner of the attribute just set,
// so the walk from the next record down stops after one step.
void EditInOrder(benchmark::State &state, bool session)
{
    const int64_t n = state.range(0);
    std::string text;
    for (int64_t i = 0; i < n; ++i) {
        text += "<e a=\"1\">";
    }
    for (int64_t i = 0; i < n; ++i) {
        text += "</e>";
    }
    for (auto _ : state) {
        state.PauseTiming();
        XmlNode *doc = nullptr;
        uint32_t rc = session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc);
        state.ResumeTiming();
        for (XmlNode *e = doc; e != nullptr && rc == KRV_XML_OK; e = e->firstChild) {
            rc = KRV_XML_SetNode(e->firstAttr, nullptr, nullptr, "2");
        }
        state.PauseTiming();
        KRV_XML_FreeNode(doc);
        state.ResumeTiming();
        if (rc != KRV_XML_OK) {
            state.SkipWithError("editing the chain failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK_CAPTURE(EditInOrder, session, true)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(EditInOrder, heap, false)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// An attribute added to every element of a parsed text, in the order that
// `collect` lists them.
// With `holdNew`, a new record of the document's regime is held unlinked
// meanwhile, as a caller does that builds something to insert later.
void AddToEach(benchmark::State &state, bool session, const std::string &text,
               void (*collect)(XmlNode *doc, std::vector<XmlNode *> &order), bool holdNew = false)
{
    std::vector<XmlNode *> order;
    for (auto _ : state) {
        state.PauseTiming();
        XmlNode *doc = nullptr;
        XmlNode *held = nullptr;
        uint32_t rc = session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc);
        order.clear();
        if (rc == KRV_XML_OK) {
            collect(doc, order);
        }
        if (rc == KRV_XML_OK && holdNew) {
            rc = KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, nullptr, "new", nullptr, &held);
        }
        state.ResumeTiming();
        for (size_t i = 0; i < order.size() && rc == KRV_XML_OK; ++i) {
            rc = KRV_XML_AddAttr(order[i], nullptr, "a", "1");
        }
        state.PauseTiming();
        KRV_XML_FreeNode(held);
        KRV_XML_FreeNode(doc);
        state.ResumeTiming();
        if (rc != KRV_XML_OK) {
            state.SkipWithError("editing the tree failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(order.size()));
}

std::string repeated(const char *open, const char *close, int64_t n)
{
    std::string text;
    for (int64_t i = 0; i < n; ++i) {
        text += open;
    }
    for (int64_t i = 0; i < n; ++i) {
        text += close;
    }
    return text;
}

// New attributes added from the leaf of an N-deep chain up to its top, as an
// edit that works its way up from a found node does.
void AddUpward(benchmark::State &state, bool session)
{
    AddToEach(state, session, repeated("<e>", "</e>", state.range(0)), [](XmlNode *doc, std::vector<XmlNode *> &order) {
        for (XmlNode *e = doc; e != nullptr; e = e->firstChild) {
            order.push_back(e);
        }
        std::reverse(order.begin(), order.end());
    });
}

// Attributes added in document order to a comb, where the record looked up
// before is a leaf far below the next one's parent.
void EditComb(benchmark::State &state, bool session)
{
    AddToEach(state, session, repeated("<s>", "<l/></s>", state.range(0)), [](XmlNode *doc, std::vector<XmlNode *> &order) {
        for (XmlNode *e = doc; e != nullptr; e = KRV_XML_Iterator(e)) {
            order.push_back(e);
        }
    });
}
BENCHMARK_CAPTURE(EditComb, session, true)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(EditComb, heap, false)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(AddUpward, session, true)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(AddUpward, heap, false)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// Attributes added to every element of an N-deep chain in a shuffled order
// while a new record is held: a session then has a tree outside its
// document, so its lookups cannot answer with the document.
void AddShuffledHoldingNew(benchmark::State &state, bool session)
{
    AddToEach(
        state, session, repeated("<e>", "</e>", state.range(0)),
        [](XmlNode *doc, std::vector<XmlNode *> &order) {
            for (XmlNode *e = doc; e != nullptr; e = e->firstChild) {
                order.push_back(e);
            }
            std::shuffle(order.begin(), order.end(), std::mt19937(12345));
        },
        true);
}
BENCHMARK_CAPTURE(AddShuffledHoldingNew, session, true)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(AddShuffledHoldingNew, heap, false)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

enum class Wide { Add, Parsed, Read };

void WideElement(benchmark::State &state, bool session, Wide mode)
{
    const auto n = static_cast<size_t>(state.range(0));
    std::vector<std::string> names(n);
    std::string text = "<r";
    for (size_t i = 0; i < n; ++i) {
        names[i] = "a" + std::to_string(i * 7919 % 1000003);
        text += mode != Wide::Add ? " " + names[i] + "=\"v\"" : "";
    }
    text += "/>";
    for (auto _ : state) {
        XmlNode *doc = nullptr;
        if ((session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc)) != KRV_XML_OK) {
            state.SkipWithError("parse failed");
            return;
        }
        bool ok = true;
        for (size_t i = 0; mode != Wide::Read && i < n; ++i) {
            ok = ok && (mode == Wide::Parsed ? KRV_XML_SetAttr(doc, nullptr, names[i].c_str(), "w")
                                             : KRV_XML_AddAttr(doc, nullptr, names[i].c_str(), "v")) == KRV_XML_OK;
        }
        for (const std::string &name : names) {
            const char *value = nullptr;
            ok = ok && KRV_XML_GetAttr(doc, nullptr, name.c_str(), &value) == KRV_XML_OK;
        }
        if (mode == Wide::Read) {  // the by-name walk: each step searches for the attribute it stands on
            const char *prefix = nullptr, *name = nullptr, *value = nullptr;
            size_t seen = KRV_XML_GetFirstAttr(doc, &prefix, &name, &value) == KRV_XML_OK ? 1 : 0;
            while (seen != 0 && KRV_XML_GetNextSiblingAttr(doc, prefix, name, &prefix, &name, &value) == KRV_XML_OK) {
                ++seen;
            }
            ok = ok && seen == n;
        }
        for (auto it = names.rbegin(); mode != Wide::Read && it != names.rend(); ++it) {
            ok = ok && KRV_XML_RemoveAttr(doc, nullptr, it->c_str()) == KRV_XML_OK;
        }
        KRV_XML_FreeNode(doc);
        if (!ok) {
            state.SkipWithError("an attribute call failed");
            return;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK_CAPTURE(WideElement, session, true, Wide::Add)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(WideElement, heap, false, Wide::Add)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(WideElement, parsed_session, true, Wide::Parsed)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(WideElement, parsed_heap, false, Wide::Parsed)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(WideElement, read_session, true, Wide::Read)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(WideElement, read_heap, false, Wide::Read)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The side tree of every level of an N-deep chain taken out through the C++
// layer into one reused handle, which releases the one taken before. The
// check that the handle does not hold the node's own tree walks up from the
// node and through the handle's tree by turns, so it costs the shorter walk.
void RemoveIntoReusedHandle(benchmark::State &state, krv::xml::regime r)
{
    const int64_t n = state.range(0);
    std::string text;
    for (int64_t i = 0; i < n; ++i) {
        text += "<l><s><c/></s>";
    }
    for (int64_t i = 0; i < n; ++i) {
        text += "</l>";
    }
    for (auto _ : state) {
        state.PauseTiming();
        krv::xml::document doc, out;
        bool ok = static_cast<bool>(krv::xml::document::parse(text.c_str(), doc, r));
        std::vector<krv::xml::node> sides;
        for (krv::xml::node l = doc.root(); ok && l; l = l.last_child()) {
            if (krv::xml::node s = l.first_child(); s && s.name() == "s") {
                sides.push_back(s);
            }
        }
        state.ResumeTiming();
        for (krv::xml::node s : sides) {
            ok = ok && s.remove(out);
        }
        state.PauseTiming();
        out.reset();
        doc.reset();
        state.ResumeTiming();
        if (!ok || static_cast<int64_t>(sides.size()) != n) {
            state.SkipWithError("taking the side trees out failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK_CAPTURE(RemoveIntoReusedHandle, session, krv::xml::regime::session)
    ->Arg(1000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RemoveIntoReusedHandle, heap, krv::xml::regime::heap)
    ->Arg(1000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);

#endif  // KRVBENCH_HAVE_KRV

#ifdef KRVBENCH_HAVE_KRV

double now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

const std::string *document(const std::string &name)
{
    static std::map<std::string, std::string> cache;
    auto it = cache.find(name);
    if (it != cache.end()) {
        return &it->second;
    }
    const char *dir = std::getenv("KRVBENCH_CORPUS");
    std::string path = std::string(dir != nullptr ? dir : KRVBENCH_CORPUS_DIR) + "/" + name + ".xml";
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return nullptr;
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    return &(cache[name] = ss.str());
}

enum class Op { Parse, Print, Clone, Free };

XmlNode *parse(const std::string &text, bool session)
{
    XmlNode *doc = nullptr;
    uint32_t rc = session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc);
    return rc == KRV_XML_OK ? doc : nullptr;
}

// Each iteration prepares what the operation needs untimed and times only the
// operation itself (manual time).
void Scaling(benchmark::State &state, Op op, bool session, const char *file)
{
    const std::string *text = document(file);
    if (text == nullptr) {
        state.SkipWithError("corpus file missing: run bench/make_corpus");
        return;
    }
    for (auto _ : state) {
        XmlNode *doc = parse(*text, session);
        if (doc == nullptr) {
            state.SkipWithError("parse failed");
            return;
        }
        double t0 = now();
        switch (op) {
        case Op::Parse:
            KRV_XML_FreeNode(doc);
            t0 = now();
            doc = parse(*text, session);
            break;
        case Op::Print: {
            char *out = nullptr;
            KRV_XML_Transform(doc, &out);
            state.SetIterationTime(now() - t0);
            KRV_XML_FreeMem(out);
            t0 = -1;
            break;
        }
        case Op::Clone: {
            XmlNode *copy = nullptr;
            KRV_XML_CloneNode(doc, &copy);
            state.SetIterationTime(now() - t0);
            KRV_XML_FreeNode(copy);
            t0 = -1;
            break;
        }
        case Op::Free:
            KRV_XML_FreeNode(doc);
            doc = nullptr;
            break;
        }
        if (t0 >= 0) {
            state.SetIterationTime(now() - t0);
        }
        KRV_XML_FreeNode(doc);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text->size()));
}

int registerScaling()
{
    const std::pair<const char *, Op> ops[] = {
        {"Parse", Op::Parse}, {"Print", Op::Print}, {"Clone", Op::Clone}, {"Free", Op::Free}};
    for (const auto &op : ops) {
        for (bool session : {false, true}) {
            for (const char *file : {"synthetic_1MB", "synthetic_100MB"}) {
                std::string name = std::string(op.first) + "/" + (session ? "session/" : "heap/") + file;
                // Fixed counts: every iteration also parses untimed, so a
                // minimum time on a short operation (a session free) would
                // run for minutes.
                bool large = std::string(file).find("100MB") != std::string::npos;
                benchmark::RegisterBenchmark(name.c_str(), Scaling, op.second, session, file)
                    ->UseManualTime()
                    ->Iterations(large ? 2 : 20)
                    ->Unit(benchmark::kMillisecond);
            }
        }
    }
    return 0;
}
const int g_registered = registerScaling();

#endif  // KRVBENCH_HAVE_KRV

}  // namespace

int main(int argc, char **argv)
{
    // Freed memory stays in the process, so that repetitions measure the
    // library and not the first touch of fresh pages (costly on a VM).
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, INT32_MAX);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
