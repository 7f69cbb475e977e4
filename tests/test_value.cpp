// TypedValue and PathLookup suites: typed value texts on nodes and attributes, and lookups by dotted paths.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"

using krvtest::Element;
using krvtest::LinkChild;

namespace {

constexpr uint32_t kBool = KRV_XML_VALUE_BOOL, kI32 = KRV_XML_VALUE_INT32, kU32 = KRV_XML_VALUE_UINT32,
                   kI16 = KRV_XML_VALUE_INT16, kU16 = KRV_XML_VALUE_UINT16, kI8 = KRV_XML_VALUE_INT8,
                   kU8 = KRV_XML_VALUE_UINT8, kBadType = KRV_XML_VALUE_UINT8 + 1;

// Eight filler bytes led by v as the caller's variable of the type's width holds it.
std::vector<uint8_t> asBytes(int64_t v, uint32_t type, uint8_t filler)
{
    std::vector<uint8_t> bytes(8, filler);
    const size_t width = type == kI16 || type == kU16 ? 2 : type == kI8 || type == kU8 ? 1 : 4;
    const auto x32 = static_cast<uint32_t>(v);
    const auto x16 = static_cast<uint16_t>(v);
    const auto x8 = static_cast<uint8_t>(v);
    const void *low = width == 4 ? static_cast<const void *>(&x32) : width == 2 ? static_cast<const void *>(&x16) : &x8;
    std::memcpy(bytes.data(), low, width);
    return bytes;
}

XmlNode *addAttr(XmlNode *element, const char *prefix, const char *name, const char *value)
{
    XmlNode *attr = XML_NewNode(element->mem, KRV_XML_NODE_ATTRIBUTE);
    EXPECT_EQ(XML_SetNode(element, attr, prefix, name, value), KRV_XML_OK);
    EXPECT_EQ(XML_AddAttrNode(attr, element), KRV_XML_OK);
    return attr;
}

std::vector<XmlNode *> attrsOf(XmlNode *element)
{
    std::vector<XmlNode *> list;
    for (XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
        list.push_back(a);
    }
    return list;
}

// Each row: a path and the label of the node it finds, or the failure, which leaves the out-argument alone.
// No lookup allocates.
void expectPaths(XmlNode *start, const std::vector<std::vector<std::string>> &rows,
                 const std::map<std::string, XmlNode *> &labels)
{
    const std::map<std::string, uint32_t> codes = {{"missing", KRV_XML_ERR_NOT_FOUND},
                                                   {"bad-url", KRV_XML_ERR_URL_NOT_FOUND},
                                                   {"invalid", KRV_XML_ERR_INVALID_PARAM}};
    long allocations = krv_test::AllocationCount();
    for (const auto &row : rows) {
        XmlNode *out = krvtest::Sentinel();
        const bool found = labels.count(row.at(1)) != 0;
        EXPECT_EQ(KRV_XML_GetNodeByUrl(start, row[0].c_str(), &out), found ? KRV_XML_OK : codes.at(row[1])) << row[0];
        EXPECT_EQ(out, found ? labels.at(row[1]) : krvtest::Sentinel()) << row[0];
    }
    EXPECT_EQ(krv_test::AllocationCount(), allocations) << "path lookup allocated";
}

}  // namespace

// Signs for signed types only, any leading zeros, no other forms, no wrapping; nothing written past the value.
TEST(TypedValue, ReaderIsStrictAndExactAtEveryWidth)
{
    using Texts = std::vector<std::pair<std::string, int64_t>>;
    struct Row { uint32_t type; Texts read; std::vector<std::string> refused; };
    const std::string zeros(300, '0');
    const Row rows[] = {
        {kBool, {{"true", 1}, {"1", 1}, {"false", 0}, {"0", 0}}, {"TRUE", "01", " true", "true ", "yes", "2", ""}},
        {kI8, {{"-128", -128}, {"127", 127}, {"+5", 5}}, {"-129", "128", "+", "-", "--1", "+-1"}},
        {kU8, {{"0", 0}, {"255", 255}, {zeros + "7", 7}},
         {"256", "-1", "-128", "+5", "1" + std::string(23, '0') + "1", std::string(25, '9')}},
        {kI16, {{"-32768", -32768}, {"32767", 32767}, {"-000", 0}}, {"-32769", "32768"}},
        {kU16, {{"0", 0}, {"65535", 65535}}, {"65536", "-1", "-0"}},
        {kI32,
         {{"-2147483648", INT32_MIN}, {"2147483647", INT32_MAX}, {"-0", 0}, {"-" + zeros + "2147483648", INT32_MIN}},
         {"-2147483649", "2147483648", "-18446744073709551616"}},
        {kU32, {{"0", 0}, {"4294967295", UINT32_MAX}, {"0001", 1}, {"000", 0}},
         {"4294967296", "-1", "", " 1", "1 ", "12a", "0x10", "1.0", "1e3", "36893488147419103233"}},
    };
    constexpr int64_t kRefused = INT64_MIN;
    XmlNode *node = Element("n");
    for (const Row &row : rows) {
        Texts cases = row.read;
        for (const std::string &text : row.refused) {
            cases.emplace_back(text, kRefused);
        }
        for (const auto &[text, expect] : cases) {
            SCOPED_TRACE("type " + std::to_string(row.type) + " text \"" + text + "\"");
            node->value = const_cast<char *>(text.c_str());  // not owned: never released
            std::vector<uint8_t> target(8, 0xA5);
            const bool ok = expect != kRefused;
            EXPECT_EQ(KRV_XML_GetNodeValueEx(node, row.type, target.data()), ok ? KRV_XML_OK : KRV_XML_ERR_INVALID_PARAM);
            EXPECT_EQ(target, ok ? asBytes(expect, row.type, 0xA5) : std::vector<uint8_t>(8, 0xA5));
        }
    }
    node->value = nullptr;
    KRV_XML_FreeNode(node);
}

// Only the type's width counts; a heap node's unowned text is left alone, a session tree's texts are the session's.
TEST(TypedValue, WriterFormatsExactlyTheTypesWidth)
{
    struct Row { uint32_t type; int64_t value; const char *text; };
    const Row rows[] = {
        {kBool, 2, "true"}, {kBool, 0x100, "true"}, {kBool, 0, "false"}, {kI8, -128, "-128"}, {kI8, 127, "127"},
        {kI8, -1, "-1"}, {kU8, 255, "255"}, {kI16, -32768, "-32768"}, {kI16, 32767, "32767"},
        {kU16, 65535, "65535"}, {kI32, INT32_MIN, "-2147483648"}, {kI32, INT32_MAX, "2147483647"},
        {kI32, 0, "0"}, {kU32, UINT32_MAX, "4294967295"},
    };
    krvtest::LeakGuard guard;
    static char unowned[] = "keep";
    XmlNode *doc = krvtest::Document(true);
    XmlNode *item = LinkChild(doc, Element("s", doc->mem));
    XmlNode *nodes[] = {Element("heap"), item, addAttr(item, nullptr, "a", "1"), doc};
    nodes[0]->value = unowned;
    const long live = krv_test::LiveBlocks();
    for (const Row &row : rows) {
        for (XmlNode *node : nodes) {
            SCOPED_TRACE(row.text);
            ASSERT_EQ(KRV_XML_SetNodeValueEx(node, row.type, asBytes(row.value, row.type, 0x5A).data()), KRV_XML_OK);
            EXPECT_STREQ(node->value, row.text);
        }
    }
    EXPECT_STREQ(unowned, "keep");
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1) << "the heap node's text, and no other";
    KRV_XML_FreeNode(nodes[0]);
    KRV_XML_FreeNode(doc);
}

// Attributes are found by prefix and name, before the type code is read; refused calls change nothing.
TEST(TypedValue, ReadersFindByPrefixAndNameAndRefuseBadArguments)
{
    struct Row { const char *prefix, *name; uint32_t type, rc; int32_t value; };
    const Row rows[] = {
        {nullptr, "x", kI32, KRV_XML_OK, 5}, {"p", "x", kI32, KRV_XML_OK, -7},
        {"q", "x", kI32, KRV_XML_ERR_NOT_FOUND, 0}, {nullptr, "y", kI32, KRV_XML_ERR_NOT_FOUND, 0},
        {"", "x", kI32, KRV_XML_ERR_NOT_FOUND, 0}, {nullptr, "", kI32, KRV_XML_ERR_NOT_FOUND, 0},
        {nullptr, "empty", kI32, KRV_XML_ERR_INVALID_PARAM, 0}, {nullptr, nullptr, kI32, KRV_XML_ERR_INVALID_PARAM, 0},
        {nullptr, "x", kBadType, KRV_XML_ERR_INVALID_PARAM, 0}, {nullptr, "missing", kBadType, KRV_XML_ERR_NOT_FOUND, 0},
    };
    krvtest::LeakGuard guard;
    XmlNode *el = Element("e");
    XmlNode *x = addAttr(el, nullptr, "x", "5");
    addAttr(el, "p", "x", "-7");
    addAttr(el, nullptr, "empty", nullptr);
    const std::vector<XmlNode *> list = attrsOf(el);
    for (const Row &row : rows) {
        int32_t target = 99;
        EXPECT_EQ(KRV_XML_GetAttrValueEx(el, row.prefix, row.name, row.type, &target), row.rc) << krvtest::Str(row.name);
        EXPECT_EQ(target, row.rc == KRV_XML_OK ? row.value : 99);
    }
    int32_t target = 99;
    // An empty prefix misses the lookup, but the new record has no prefix and duplicates x.
    EXPECT_EQ(KRV_XML_SetAttrValueEx(el, "", "x", kI32, &target), KRV_XML_ERR_ALREADY_EXISTS);
    for (uint32_t rc : {KRV_XML_GetNodeValueEx(el, kU32, &target),  // no value
                        KRV_XML_GetAttrValueEx(nullptr, nullptr, "x", kI32, &target),
                        KRV_XML_GetAttrValueEx(el, nullptr, "x", kI32, nullptr),
                        KRV_XML_GetAttrValueEx(x, nullptr, "x", kI32, &target),
                        KRV_XML_GetNodeValueEx(nullptr, kU32, &target), KRV_XML_GetNodeValueEx(x, kU32, nullptr),
                        KRV_XML_GetNodeValueEx(x, kBadType, &target), KRV_XML_SetNodeValueEx(nullptr, kU32, &target),
                        KRV_XML_SetNodeValueEx(x, kU32, nullptr), KRV_XML_SetNodeValueEx(x, kBadType, &target),
                        KRV_XML_SetAttrValueEx(nullptr, nullptr, "m", kI32, &target),
                        KRV_XML_SetAttrValueEx(el, nullptr, nullptr, kI32, &target),
                        KRV_XML_SetAttrValueEx(el, nullptr, "", kI32, &target),
                        KRV_XML_SetAttrValueEx(el, nullptr, "m", kI32, nullptr),
                        KRV_XML_SetAttrValueEx(el, nullptr, "m", kBadType, &target),
                        KRV_XML_SetAttrValueEx(x, nullptr, "x", kI32, &target)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_TRUE(target == 99 && attrsOf(el) == list);
    EXPECT_STREQ(x->value, "5");
    KRV_XML_FreeNode(el);
}

// A new attribute goes last (short names interned, texts where the tree lives); an existing one changes in place.
TEST(TypedValue, AttrWriterAddsLastThenChangesInPlace)
{
    krvtest::LeakGuard guard;
    const int16_t minus5 = -5, seven = 7;
    for (bool session : {false, true}) {
        XmlNode *doc = krvtest::Document(session, "d");  // new names are interned, old ones freed
        XmlNode *el = session ? LinkChild(doc, Element("e", doc->mem)) : doc;
        XmlNode *a = addAttr(el, nullptr, "a", "x");
        const long live = krv_test::LiveBlocks();
        ASSERT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "n", kI16, &minus5), KRV_XML_OK);
        std::vector<XmlNode *> list = attrsOf(el);
        ASSERT_EQ(list.size(), 2u);
        XmlNode *n = list[1];
        EXPECT_TRUE(list[0] == a && n->name == doc->nameTable[0] && n->parent == el);
        EXPECT_EQ(krvtest::Str(n->name) + "=" + krvtest::Str(n->value), "n=-5");
        ASSERT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "n", kI16, &seven), KRV_XML_OK);
        EXPECT_EQ(attrsOf(el), list);
        EXPECT_STREQ(n->value, "7");
        ASSERT_EQ(KRV_XML_SetAttrValueEx(el, "p", "n", kI16, &seven), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_SetAttrValueEx(el, "p", "a_very_long_name", kI16, &seven), KRV_XML_OK);
        list = attrsOf(el);
        ASSERT_EQ(list.size(), 4u);
        EXPECT_EQ(krvtest::Str(list[2]->nsPrefix) + ":" + list[2]->name + "=" + list[2]->value, "p:n=7");
        EXPECT_EQ(list[3]->nameOwned, 1) << "too long for a slot";
        EXPECT_TRUE(!session || krv_test::LiveBlocks() == live) << "a text stayed on the heap";
        KRV_XML_FreeNode(doc);
    }
    XmlNode *first = Element("r1"), *second = Element("r2");  // a heap root with siblings: no new attributes
    first->next = second;
    second->prev = first;
    XmlNode *child = LinkChild(first, Element("c"));
    XmlNode *x = addAttr(child, nullptr, "x", "1");
    const uint8_t nine = 9;
    EXPECT_EQ(KRV_XML_SetAttrValueEx(child, nullptr, "y", kU8, &nine), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(attrsOf(child), std::vector<XmlNode *>{x});
    EXPECT_EQ(KRV_XML_SetAttrValueEx(child, nullptr, "x", kU8, &nine), KRV_XML_OK);
    EXPECT_STREQ(x->value, "9");
    KRV_XML_FreeNode(first);
    KRV_XML_FreeNode(second);
}

// Record and name come before the type and duplicate tests, the move into the session after; failures leave nothing.
TEST(TypedValue, AttrWriterFailuresInEveryOrder)
{
    const int32_t v = 123;
    const int32_t record = static_cast<int32_t>((kAttrRecordSize + 7) & ~size_t{7});
    auto sessionTree = [](int32_t room, bool withOld) {  // an element in a session block with `room` bytes free
        XmlNode *doc = krvtest::Document(true, "d");
        XmlNode *el = LinkChild(doc, Element("e", doc->mem));
        if (withOld) {
            addAttr(el, nullptr, "n", "old");
        }
        EXPECT_NE(XML_MemSpecialMalloc(doc->mem, doc->mem->freeBytes - room), nullptr);
        return el;
    };
    // A full session: a new block (block index, first slab), then the value's heap copy. Room for the record:
    // the session grows for the value while its heap copy is alive. Three allocations either way.
    for (int32_t room : {0, record + 16}) {
        long points = krvtest::SweepAllocationFailures(
            [&] { return sessionTree(room, false); },
            [&](XmlNode *el) { return KRV_XML_SetAttrValueEx(el, "p", "n", kI32, &v); },
            [](uint32_t rc, XmlNode *el) {
                EXPECT_EQ(el->firstAttr == nullptr, rc != KRV_XML_OK);
                KRV_XML_FreeNode(el->parent);
            });
        EXPECT_EQ(points, 3) << room;
    }
    struct Early { bool session; const char *prefix, *name; uint32_t type; long failAt; uint32_t rc; };
    for (const Early &e : {Early{false, nullptr, "m", kBadType, 1, KRV_XML_ERR_NO_MEMORY},
                           Early{false, "", "n", kI32, 1, KRV_XML_ERR_NO_MEMORY},
                           Early{true, "", "n", kI32, 2, KRV_XML_ERR_ALREADY_EXISTS}}) {
        krvtest::LeakGuard guard;
        XmlNode *el = e.session ? sessionTree(record + 8, true) : LinkChild(Element("r"), Element("e"));
        if (!e.session) {
            addAttr(el, nullptr, "n", "old");
        }
        const std::vector<XmlNode *> before = attrsOf(el);
        krv_test::FailAllocationAt(e.failAt);
        EXPECT_EQ(KRV_XML_SetAttrValueEx(el, e.prefix, e.name, e.type, &v), e.rc);
        krv_test::FailAllocationAt(0);
        EXPECT_EQ(attrsOf(el), before);
        KRV_XML_FreeNode(el->parent);
    }
}

// Indexes (1-based, 9 digits), escaped dots, separator runs, 511 bytes; paths only read.
TEST(PathLookup, IndexesEscapesSeparatorsAndLimits)
{
    krvtest::LeakGuard guard;
    XmlNode *config = Element("config");
    std::map<std::string, XmlNode *> labels = {{"config", config}};
    const std::string x504(504, 'x');
    const std::pair<const char *, std::string> children[] = {
        {"server1", "server"}, {"port", "port"}, {"server2", "server"}, {"version", "version.2"}, {"digits", "1a"},
        {"backslash", "a\\b"}, {"dot", ".hidden"}, {"nameless", ""}, {"long", x504}, {"longer", x504 + "y"},
        {"catalogues", "catalogues"}, {"catalogue", "catalogue"}};
    for (const auto &[label, name] : children) {
        labels[label] = LinkChild(config, Element(name.c_str()));  // "": no name
    }
    const std::string path511 = "config." + x504;
    expectPaths(config, {
        {"config", "config"}, {"config.server", "server1"}, {"config.server.2", "server2"},
        {"..config..server..", "server1"}, {"config.version\\.2", "version"}, {"config.server.3", "missing"},
        {"config.server.0", "bad-url"}, {"config.2", "bad-url"}, {"config.server.2.1", "bad-url"},
        {"other.server", "missing"}, {"config.host", "missing"}, {"config...", "config"}, {"...", "missing"},
        {"config.server.01", "server1"}, {"config.server.1", "server1"}, {"config.server.000000002", "server2"},
        {"config.server.0000000002", "missing"}, {"config.server.0000000000", "missing"},
        {"config.server.000", "bad-url"}, {"config.server.2.2", "bad-url"}, {"config.port.2", "missing"},
        {"config.server.2.port", "missing"}, {"config.1a", "digits"}, {"config.1", "bad-url"},
        {"config.a\\b", "backslash"}, {"config.\\.hidden", "dot"}, {"config.version.2", "missing"},
        {"config\\", "missing"}, {"config.9", "bad-url"}, {"config.catalogue", "catalogue"},
        {"config.catalogues", "catalogues"}, {"config.catalogue.2", "missing"}, {path511, "long"},
        {path511 + "y", "invalid"},
        {"config" + std::string(505, '.'), "config"}, {"config" + std::string(506, '.'), "invalid"}, {"", "invalid"},
    }, labels);
    char path[] = "..config..version\\.2..";
    XmlNode *out = nullptr;
    EXPECT_EQ(KRV_XML_GetNodeByUrl(config, path, &out), KRV_XML_OK);
    EXPECT_TRUE(out == labels["version"] && std::string(path) == "..config..version\\.2..");
    out = nullptr;
    XmlNode *attr = addAttr(config, nullptr, "config", nullptr);
    for (uint32_t rc : {KRV_XML_GetNodeByUrl(nullptr, "config", &out), KRV_XML_GetNodeByUrl(config, nullptr, &out),
                        KRV_XML_GetNodeByUrl(config, "config", nullptr), KRV_XML_GetNodeByUrl(attr, "config", &out),
                        KRV_XML_GetNodeByUrl(attr, "config.server", &out)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(out, nullptr);
    KRV_XML_FreeNode(config);
}

// A segment with a colon that splits it matches by prefix and name (a name may hold a colon too).
TEST(PathLookup, PrefixesInSegments)
{
    krvtest::LeakGuard guard;
    XmlNode *root = Element("root", nullptr, nullptr, "p");
    LinkChild(root, Element(nullptr, nullptr, nullptr, "q"));
    std::map<std::string, XmlNode *> labels = {{"root", root}};
    const std::pair<const char *, std::pair<const char *, const char *>> children[] = {
        {"item", {"item", "q"}}, {"colon", {"a:b", nullptr}}, {"plain", {"plain", nullptr}},
        {"longer", {"catalogues", "q"}}, {"long", {"catalogue", "q"}}, {"prefixed colon", {"c:d", "pq"}}};
    for (const auto &[label, name] : children) {
        labels[label] = LinkChild(root, Element(name.first, nullptr, nullptr, name.second));
    }
    expectPaths(root,
                {{"root", "root"}, {"p:root", "root"}, {"q:root", "missing"}, {"p:", "missing"},
                 {"root.item", "item"}, {"root.q:item", "item"}, {"root.p:item", "missing"}, {"root.a:b", "colon"},
                 {"p:root.plain", "plain"}, {"root.x:plain", "missing"}, {"root.q:catalogue", "long"},
                 {"root.catalogue", "long"}, {"root.q:catalogues", "longer"}, {"root.pq:c:d", "prefixed colon"},
                 {"root.pqzc:d", "missing"}, {"root.p::c:d", "missing"}},
                labels);
    KRV_XML_FreeNode(root);
}

// Index walks over runs of siblings longer than a thousand, in parsed trees
// of both regimes (records in document order, far apart): the n-th of a name
// among interleaved others, up to the last, and one past it.
TEST(PathLookup, IndexesOverLongSiblingRunsInParsedTrees)
{
    krvtest::LeakGuard guard;
    std::string text = "<r>";
    const std::string pad(200, 'p');
    for (int i = 0; i < 3000; ++i) {
        text += std::string(i % 3 == 2 ? "<b" : "<a") + " n=\"" + std::to_string(i) + "\" pad=\"" + pad + "\"/>";
    }
    text += "</r>";
    // The k-th "a" is child 3 * ((k - 1) / 2) + (k - 1) % 2; 2000 of them.
    const std::pair<long, long> rows[] = {{1, 0}, {2, 1}, {1024, 1534}, {1025, 1536}, {1999, 2997}, {2000, 2998}};
    for (bool session : {false, true}) {
        XmlNode *doc = nullptr;
        ASSERT_EQ(session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc), KRV_XML_OK);
        for (const auto &[k, child] : rows) {
            XmlNode *out = nullptr;
            const std::string path = "r.a." + std::to_string(k);
            ASSERT_EQ(KRV_XML_GetNodeByUrl(doc, path.c_str(), &out), KRV_XML_OK) << path;
            EXPECT_STREQ(out->firstAttr->value, std::to_string(child).c_str()) << path << " session " << session;
        }
        XmlNode *out = krvtest::Sentinel();
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.a.2001", &out), KRV_XML_ERR_NOT_FOUND);
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.b.1001", &out), KRV_XML_ERR_NOT_FOUND);
        EXPECT_EQ(out, krvtest::Sentinel());
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.b.1000", &out), KRV_XML_OK);
        EXPECT_STREQ(out->firstAttr->value, "2999");
        KRV_XML_FreeNode(doc);
    }
}
