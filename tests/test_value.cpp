// TypedValue and PathLookup suites: typed value texts on nodes and attributes,
// and finding nodes by dotted paths.
#include <gtest/gtest.h>

#include <algorithm>
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

size_t widthOf(uint32_t type)
{
    return type == kI16 || type == kU16 ? 2 : type == kI8 || type == kU8 ? 1 : 4;
}

// Eight bytes of filler with the low `width` bytes of v in front, as the
// caller's variable of that width holds them.
std::vector<uint8_t> asBytes(int64_t v, size_t width, uint8_t filler)
{
    std::vector<uint8_t> bytes(8, filler);
    auto x32 = static_cast<uint32_t>(v);
    auto x16 = static_cast<uint16_t>(v);
    auto x8 = static_cast<uint8_t>(v);
    std::memcpy(bytes.data(), width == 4 ? static_cast<void *>(&x32) : width == 2 ? static_cast<void *>(&x16) : &x8,
                width);
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

}  // namespace

// ===== TypedValue ===========================================================

// The reader's table: signs for signed types only, leading zeros without
// limit, no other forms, and long numbers never wrap back into range.
TEST(TypedValue, ReaderIsStrictAndExactAtEveryWidth)
{
    struct Row {
        uint32_t type;
        std::string text;
        bool ok;
        int64_t expect;
    };
    const std::string manyZeros(300, '0');
    const Row rows[] = {
        {kBool, "true", true, 1}, {kBool, "1", true, 1}, {kBool, "false", true, 0}, {kBool, "0", true, 0},
        {kBool, "TRUE", false, 0}, {kBool, "01", false, 0}, {kBool, " true", false, 0}, {kBool, "true ", false, 0},
        {kBool, "yes", false, 0}, {kBool, "2", false, 0}, {kBool, "", false, 0},
        {kI8, "-128", true, -128}, {kI8, "127", true, 127}, {kI8, "-129", false, 0}, {kI8, "128", false, 0},
        {kU8, "0", true, 0}, {kU8, "255", true, 255}, {kU8, "256", false, 0}, {kU8, "-1", false, 0},
        {kU8, "-128", false, 0}, {kI16, "-32768", true, -32768}, {kI16, "32767", true, 32767},
        {kI16, "-32769", false, 0}, {kI16, "32768", false, 0}, {kU16, "0", true, 0}, {kU16, "65535", true, 65535},
        {kU16, "65536", false, 0}, {kU16, "-1", false, 0}, {kI32, "-2147483648", true, INT32_MIN},
        {kI32, "2147483647", true, INT32_MAX}, {kI32, "-2147483649", false, 0}, {kI32, "2147483648", false, 0},
        {kU32, "0", true, 0}, {kU32, "4294967295", true, UINT32_MAX}, {kU32, "4294967296", false, 0},
        {kU32, "-1", false, 0},
        // Signs: one, and for signed types only; minus zero is zero.
        {kI8, "+5", true, 5}, {kU8, "+5", false, 0}, {kI32, "-0", true, 0}, {kI16, "-000", true, 0},
        {kU16, "-0", false, 0}, {kI8, "+", false, 0}, {kI8, "-", false, 0}, {kI8, "--1", false, 0},
        {kI8, "+-1", false, 0},
        // Leading zeros without limit; no other forms.
        {kU32, "0001", true, 1}, {kU32, "000", true, 0}, {kU8, manyZeros + "7", true, 7},
        {kI32, "-" + manyZeros + "2147483648", true, INT32_MIN}, {kU32, "", false, 0}, {kU32, " 1", false, 0},
        {kU32, "1 ", false, 0}, {kU32, "12a", false, 0}, {kU32, "0x10", false, 0}, {kU32, "1.0", false, 0},
        {kU32, "1e3", false, 0},
        // Long numbers never wrap back into range.
        {kU32, "36893488147419103233", false, 0}, {kI32, "-18446744073709551616", false, 0},
        {kU8, "1" + std::string(23, '0') + "1", false, 0}, {kU8, std::string(25, '9'), false, 0},
    };
    XmlNode *node = Element("n");
    for (const Row &row : rows) {
        SCOPED_TRACE("type " + std::to_string(row.type) + " text \"" + row.text + "\"");
        node->value = const_cast<char *>(row.text.c_str());  // not owned: never released
        std::vector<uint8_t> target(8, 0xA5);
        EXPECT_EQ(KRV_XML_GetNodeValueEx(node, row.type, target.data()), row.ok ? KRV_XML_OK : KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(target, row.ok ? asBytes(row.expect, widthOf(row.type), 0xA5) : std::vector<uint8_t>(8, 0xA5))
            << "a wrong value, or written past the type's width or on failure";
    }
    node->value = nullptr;
    KRV_XML_FreeNode(node);
}

// The writer reads exactly the type's width (the bytes after the variable
// must not take part) and formats it; the text reads back as the same value.
TEST(TypedValue, WriterFormatsTheTypesWidthAndReadsBack)
{
    struct Row {
        uint32_t type;
        int64_t value;
        const char *text;
    };
    const Row rows[] = {
        {kBool, 2, "true"}, {kBool, 0x100, "true"}, {kBool, 0, "false"}, {kI8, -128, "-128"}, {kI8, 127, "127"},
        {kI8, -1, "-1"}, {kU8, 255, "255"}, {kI16, -32768, "-32768"}, {kI16, 32767, "32767"},
        {kU16, 65535, "65535"}, {kI32, INT32_MIN, "-2147483648"}, {kI32, INT32_MAX, "2147483647"},
        {kI32, 0, "0"}, {kU32, UINT32_MAX, "4294967295"},
    };
    krvtest::LeakGuard guard;
    XmlNode *doc = krvtest::Document(true);
    XmlNode *nodes[] = {Element("heap"), LinkChild(doc, Element("s", doc->mem))};
    for (const Row &row : rows) {
        for (XmlNode *node : nodes) {
            SCOPED_TRACE(row.text);
            std::vector<uint8_t> source = asBytes(row.value, widthOf(row.type), 0x5A);
            ASSERT_EQ(KRV_XML_SetNodeValueEx(node, row.type, source.data()), KRV_XML_OK);
            EXPECT_STREQ(node->value, row.text);
            std::vector<uint8_t> back(8, 0xA5);
            ASSERT_EQ(KRV_XML_GetNodeValueEx(node, row.type, back.data()), KRV_XML_OK);
            EXPECT_EQ(back, asBytes(row.type == kBool ? row.value != 0 : row.value, widthOf(row.type), 0xA5));
        }
    }
    KRV_XML_FreeNode(nodes[0]);
    KRV_XML_FreeNode(doc);
}

// In a heap tree the writer frees the old text only when the node owns it;
// in a session document every text comes from the session: node and
// attribute values, and names of new attributes (interned when short).
TEST(TypedValue, WriterOwnsTheNewTextInTheTreesRegime)
{
    krvtest::LeakGuard guard;
    const int32_t v = -42;
    const uint32_t u = 42;
    XmlNode *heap = Element("n");
    static char unowned[] = "keep";
    heap->value = unowned;
    ASSERT_EQ(KRV_XML_SetNodeValueEx(heap, kI32, &v), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetNodeValueEx(heap, kI32, &v), KRV_XML_OK);
    EXPECT_STREQ(unowned, "keep");
    EXPECT_STREQ(heap->value, "-42");
    KRV_XML_FreeNode(heap);

    XmlNode *doc = krvtest::Document(true);
    XmlNode *item = LinkChild(doc, Element("item", doc->mem));
    XmlNode *attr = addAttr(item, nullptr, "a", "1");
    long live = krv_test::LiveBlocks();
    ASSERT_EQ(KRV_XML_SetNodeValueEx(attr, kI32, &v), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetNodeValueEx(doc, kI32, &v), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetAttrValueEx(item, nullptr, "count", kU32, &u), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetAttrValueEx(item, "p", "a_very_long_name", kBool, &u), KRV_XML_OK);
    EXPECT_EQ(krv_test::LiveBlocks(), live) << "a text stayed on the heap";
    std::vector<XmlNode *> list = attrsOf(item);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(krvtest::Str(attr->value) + krvtest::Str(list[1]->value) + krvtest::Str(list[2]->value), "-4242true");
    EXPECT_EQ(list[1]->name, doc->nameTable[0]) << "a short name is interned";
    EXPECT_EQ(list[2]->nameOwned, 1) << "too long for a slot";
    KRV_XML_FreeNode(doc);
}

// Attributes are found by prefix and name; the lookup comes before the type
// code; a missing value and bad arguments change nothing.
TEST(TypedValue, ReadersFindByPrefixAndNameAndRefuseBadArguments)
{
    struct Row {
        const char *prefix, *name;
        uint32_t type, rc;
        int32_t value;
    };
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
    for (const Row &row : rows) {
        int32_t target = 99;
        EXPECT_EQ(KRV_XML_GetAttrValueEx(el, row.prefix, row.name, row.type, &target), row.rc) << krvtest::Str(row.name);
        EXPECT_EQ(target, row.rc == KRV_XML_OK ? row.value : 99);
    }
    int32_t target = 99;
    EXPECT_EQ(KRV_XML_GetNodeValueEx(el, kU32, &target), KRV_XML_ERR_INVALID_PARAM) << "no value";
    for (uint32_t rc : {KRV_XML_GetAttrValueEx(nullptr, nullptr, "x", kI32, &target),
                        KRV_XML_GetAttrValueEx(el, nullptr, "x", kI32, nullptr),
                        KRV_XML_GetAttrValueEx(x, nullptr, "x", kI32, &target),
                        KRV_XML_GetNodeValueEx(nullptr, kU32, &target), KRV_XML_GetNodeValueEx(x, kU32, nullptr),
                        KRV_XML_GetNodeValueEx(x, kBadType, &target), KRV_XML_SetNodeValueEx(nullptr, kU32, &target),
                        KRV_XML_SetNodeValueEx(x, kU32, nullptr), KRV_XML_SetNodeValueEx(x, kBadType, &target)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(target, 99);
    EXPECT_STREQ(x->value, "5");
    KRV_XML_FreeNode(el);
}

TEST(TypedValue, AttrWriterAddsLastThenChangesInPlace)
{
    krvtest::LeakGuard guard;
    XmlNode *el = krvtest::Document(false, "e");  // a heap document: new names are interned, old ones freed
    XmlNode *a = addAttr(el, nullptr, "a", "x");
    const int16_t minus5 = -5, seven = 7;
    ASSERT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "n", kI16, &minus5), KRV_XML_OK);
    std::vector<XmlNode *> list = attrsOf(el);
    ASSERT_EQ(list.size(), 2u);
    XmlNode *n = list[1];
    EXPECT_EQ(list[0], a);
    EXPECT_TRUE(n->name == el->nameTable[0] && n->parent == el);
    EXPECT_STREQ(n->name, "n");
    EXPECT_STREQ(n->value, "-5");
    ASSERT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "n", kI16, &seven), KRV_XML_OK);
    EXPECT_EQ(attrsOf(el), list);
    EXPECT_STREQ(n->value, "7");
    ASSERT_EQ(KRV_XML_SetAttrValueEx(el, "p", "n", kI16, &seven), KRV_XML_OK);
    list = attrsOf(el);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_STREQ(list[2]->nsPrefix, "p");

    // An empty prefix misses the lookup, but the new record has no prefix and
    // duplicates n. Refusals leave the list as it was.
    EXPECT_EQ(KRV_XML_SetAttrValueEx(el, "", "n", kI16, &seven), KRV_XML_ERR_ALREADY_EXISTS);
    for (uint32_t rc : {KRV_XML_SetAttrValueEx(nullptr, nullptr, "m", kI16, &seven),
                        KRV_XML_SetAttrValueEx(el, nullptr, nullptr, kI16, &seven),
                        KRV_XML_SetAttrValueEx(el, nullptr, "", kI16, &seven),
                        KRV_XML_SetAttrValueEx(el, nullptr, "m", kI16, nullptr),
                        KRV_XML_SetAttrValueEx(el, nullptr, "m", kBadType, &seven),
                        KRV_XML_SetAttrValueEx(a, nullptr, "a", kI16, &seven)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(attrsOf(el), list);
    EXPECT_STREQ(a->value, "x");
    KRV_XML_FreeNode(el);

    // Under a heap root with siblings an attribute can be changed, not added.
    XmlNode *first = Element("r1"), *second = Element("r2");
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

// A new attribute is made and filled before the type code is read and before
// the duplicate test, so a failing allocation is heard first; the move of
// the value into a session comes only after the duplicate test, and a
// failure there (with the value's heap copy alive) leaves nothing behind.
TEST(TypedValue, AttrWriterFailuresInEveryOrder)
{
    const int32_t v = 123;
    const int32_t record = static_cast<int32_t>((kAttrRecordSize + 7) & ~size_t{7});
    // An element in a session document whose block keeps `room` free bytes
    // (after an attribute n="old" when asked).
    auto sessionTree = [](int32_t room, bool withOld) {
        XmlNode *doc = krvtest::Document(true, "d");
        XmlNode *el = LinkChild(doc, Element("e", doc->mem));
        if (withOld) {
            addAttr(el, nullptr, "n", "old");
        }
        EXPECT_NE(XML_MemSpecialMalloc(doc->mem, doc->mem->freeBytes - room), nullptr);
        return el;
    };
    // A full session: the record needs a new block (the session its block
    // index and first slab), then the value is a heap copy. Room for record,
    // prefix and name: the session grows for the value while its heap copy
    // is alive. Either way three allocations can fail, and leave nothing.
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

    struct Early {
        bool session;
        const char *prefix, *name;
        uint32_t type;
        long failAt;
        uint32_t rc;
    };
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

// ===== PathLookup ===========================================================

namespace {

constexpr uint32_t kOk = KRV_XML_OK, kMissing = KRV_XML_ERR_NOT_FOUND, kBad = KRV_XML_ERR_INVALID_PARAM;

// Looks every path up from start: the node found (by label) or the result
// code; a failure leaves the out-argument alone, and no lookup allocates.
void expectPaths(XmlNode *start, const std::vector<std::vector<std::string>> &rows,
                 const std::map<std::string, XmlNode *> &labels)
{
    const std::map<std::string, uint32_t> codes = {
        {"missing", kMissing}, {"bad-url", KRV_XML_ERR_URL_NOT_FOUND}, {"invalid", kBad}};
    long allocations = krv_test::AllocationCount();
    for (const auto &row : rows) {
        XmlNode *out = krvtest::Sentinel();
        const bool found = labels.count(row.at(1)) != 0;
        EXPECT_EQ(KRV_XML_GetNodeByUrl(start, row[0].c_str(), &out), found ? kOk : codes.at(row[1])) << row[0];
        EXPECT_EQ(out, found ? labels.at(row[1]) : krvtest::Sentinel()) << row[0];
    }
    EXPECT_EQ(krv_test::AllocationCount(), allocations) << "path lookup allocated";
}

}  // namespace

// Indexes (1-based, at most 9 digits), escaped dots, runs of separators, the
// 511-byte limit; the caller's path is only read.
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
    const std::string before = path;
    XmlNode *out = nullptr;
    EXPECT_EQ(KRV_XML_GetNodeByUrl(config, path, &out), KRV_XML_OK);
    EXPECT_TRUE(out == labels["version"] && before == path);
    out = nullptr;
    XmlNode *attr = addAttr(config, nullptr, "config", nullptr);
    for (uint32_t rc : {KRV_XML_GetNodeByUrl(nullptr, "config", &out), KRV_XML_GetNodeByUrl(config, nullptr, &out),
                        KRV_XML_GetNodeByUrl(config, "config", nullptr), KRV_XML_GetNodeByUrl(attr, "config", &out),
                        KRV_XML_GetNodeByUrl(attr, "config.server", &out)}) {
        EXPECT_EQ(rc, kBad);
    }
    EXPECT_EQ(out, nullptr);
    KRV_XML_FreeNode(config);
}

// A segment matches by name, or by prefix and name when it holds a colon
// that splits it (a name may hold a colon too).
TEST(PathLookup, PrefixesInSegments)
{
    krvtest::LeakGuard guard;
    XmlNode *root = Element("root", nullptr, nullptr, "p");
    LinkChild(root, Element(nullptr, nullptr, nullptr, "q"));
    std::map<std::string, XmlNode *> labels = {{"root", root}};
    labels["item"] = LinkChild(root, Element("item", nullptr, nullptr, "q"));
    labels["colon"] = LinkChild(root, Element("a:b"));
    labels["plain"] = LinkChild(root, Element("plain"));
    labels["longer"] = LinkChild(root, Element("catalogues", nullptr, nullptr, "q"));
    labels["long"] = LinkChild(root, Element("catalogue", nullptr, nullptr, "q"));
    labels["prefixed colon"] = LinkChild(root, Element("c:d", nullptr, nullptr, "pq"));
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
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.a.2001", &out), kMissing);
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.b.1001", &out), kMissing);
        EXPECT_EQ(out, krvtest::Sentinel());
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.b.1000", &out), KRV_XML_OK);
        EXPECT_STREQ(out->firstAttr->value, "2999");
        KRV_XML_FreeNode(doc);
    }
}
