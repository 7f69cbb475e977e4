// TypedValue and PathLookup suites: typed value texts on nodes and attributes,
// and finding nodes by dotted paths.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "xml/xml_internal.h"

namespace {

constexpr uint32_t kBool = KRV_XML_VALUE_BOOL, kI32 = KRV_XML_VALUE_INT32,
                   kU32 = KRV_XML_VALUE_UINT32, kI16 = KRV_XML_VALUE_INT16,
                   kU16 = KRV_XML_VALUE_UINT16, kI8 = KRV_XML_VALUE_INT8, kU8 = KRV_XML_VALUE_UINT8;
constexpr uint32_t kBadType = KRV_XML_VALUE_UINT8 + 1;

size_t widthOf(uint32_t type)
{
    return type == kI16 || type == kU16 ? 2 : type == kI8 || type == kU8 ? 1 : 4;
}

// The low `width` bytes of v as the caller's variable of that width holds them.
std::vector<uint8_t> asBytes(int64_t v, size_t width)
{
    std::vector<uint8_t> bytes(width);
    if (width == 4) {
        auto x = static_cast<uint32_t>(v);
        std::memcpy(bytes.data(), &x, 4);
    } else if (width == 2) {
        auto x = static_cast<uint16_t>(v);
        std::memcpy(bytes.data(), &x, 2);
    } else {
        bytes[0] = static_cast<uint8_t>(v);
    }
    return bytes;
}

XmlNode *newElement(const char *name, const char *prefix = nullptr, XmlMemSession *mem = nullptr)
{
    XmlNode *node = nullptr;
    EXPECT_EQ(KRV_XML_CreateNodeEx(mem, KRV_XML_NODE_ELEMENT, prefix, name, nullptr, &node), KRV_XML_OK);
    return node;
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
        {kBool, "true", true, 1}, {kBool, "1", true, 1}, {kBool, "false", true, 0},
        {kBool, "0", true, 0}, {kBool, "TRUE", false, 0}, {kBool, "01", false, 0},
        {kBool, " true", false, 0}, {kBool, "true ", false, 0}, {kBool, "yes", false, 0},
        {kBool, "2", false, 0}, {kBool, "", false, 0},
        {kI8, "-128", true, -128}, {kI8, "127", true, 127}, {kI8, "-129", false, 0},
        {kI8, "128", false, 0}, {kU8, "0", true, 0}, {kU8, "255", true, 255},
        {kU8, "256", false, 0}, {kU8, "-1", false, 0}, {kU8, "-128", false, 0},
        {kI16, "-32768", true, -32768}, {kI16, "32767", true, 32767}, {kI16, "-32769", false, 0},
        {kI16, "32768", false, 0}, {kU16, "0", true, 0}, {kU16, "65535", true, 65535},
        {kU16, "65536", false, 0}, {kU16, "-1", false, 0},
        {kI32, "-2147483648", true, INT32_MIN}, {kI32, "2147483647", true, INT32_MAX},
        {kI32, "-2147483649", false, 0}, {kI32, "2147483648", false, 0},
        {kU32, "0", true, 0}, {kU32, "4294967295", true, UINT32_MAX}, {kU32, "4294967296", false, 0},
        {kU32, "-1", false, 0},
        // Signs: one, and for signed types only; minus zero is zero.
        {kI8, "+5", true, 5}, {kU8, "+5", false, 0}, {kI32, "-0", true, 0}, {kI16, "-000", true, 0},
        {kU16, "-0", false, 0}, {kI8, "+", false, 0}, {kI8, "-", false, 0}, {kI8, "--1", false, 0},
        {kI8, "+-1", false, 0},
        // Leading zeros without limit; no other forms.
        {kU32, "0001", true, 1}, {kU32, "000", true, 0}, {kU8, manyZeros + "7", true, 7},
        {kI32, "-" + manyZeros + "2147483648", true, INT32_MIN}, {kU32, "", false, 0},
        {kU32, " 1", false, 0}, {kU32, "1 ", false, 0}, {kU32, "12a", false, 0},
        {kU32, "0x10", false, 0}, {kU32, "1.0", false, 0}, {kU32, "1e3", false, 0},
        // Long numbers never wrap back into range.
        {kU32, "36893488147419103233", false, 0}, {kI32, "-18446744073709551616", false, 0},
        {kU8, "1" + std::string(23, '0') + "1", false, 0}, {kU8, std::string(25, '9'), false, 0},
    };
    XmlNode *node = newElement("n");
    for (const Row &row : rows) {
        SCOPED_TRACE("type " + std::to_string(row.type) + " text \"" + row.text + "\"");
        node->value = const_cast<char *>(row.text.c_str());  // not owned: never released
        uint8_t target[8];
        std::memset(target, 0xA5, sizeof target);
        uint32_t rc = KRV_XML_GetNodeValueEx(node, row.type, target);
        size_t width = widthOf(row.type);
        std::vector<uint8_t> expect = row.ok ? asBytes(row.expect, width) : std::vector<uint8_t>(width, 0xA5);
        EXPECT_EQ(rc, row.ok ? KRV_XML_OK : KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(std::vector<uint8_t>(target, target + width), expect);
        EXPECT_EQ(std::vector<uint8_t>(target + width, target + 8), std::vector<uint8_t>(8 - width, 0xA5))
            << "written past the type's width";
    }
    node->value = nullptr;
    KRV_XML_FreeNode(node);
}

TEST(TypedValue, WriterReadsTheTypesWidthAndFormatsIt)
{
    struct Row {
        uint32_t type;
        int64_t value;
        const char *text;
    };
    const Row rows[] = {
        {kBool, 2, "true"}, {kBool, 0x100, "true"}, {kBool, 0, "false"},
        {kI8, -128, "-128"}, {kI8, -1, "-1"}, {kU8, 255, "255"}, {kI16, -32768, "-32768"},
        {kU16, 65535, "65535"}, {kI32, INT32_MIN, "-2147483648"}, {kI32, 0, "0"},
        {kU32, UINT32_MAX, "4294967295"},
    };
    krvtest::LeakGuard guard;
    XmlNode *node = newElement("n");
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        // The bytes after the variable must not take part.
        uint8_t source[8];
        std::memset(source, 0x5A, sizeof source);
        std::vector<uint8_t> bytes = asBytes(row.value, widthOf(row.type));
        std::memcpy(source, bytes.data(), bytes.size());
        ASSERT_EQ(KRV_XML_SetNodeValueEx(node, row.type, source), KRV_XML_OK);
        EXPECT_STREQ(node->value, row.text);
    }
    KRV_XML_FreeNode(node);
}

TEST(TypedValue, WrittenValuesReadBackUnchanged)
{
    krvtest::LeakGuard guard;
    std::mt19937 rng(20261123u);
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, "doc", nullptr, &doc), KRV_XML_OK);
    XmlNode *nodes[] = {newElement("heap"), krvtest::LinkChild(doc, newElement("s", nullptr, doc->mem))};
    for (uint32_t type = kBool; type <= kU8; ++type) {
        for (int i = 0; i < 400; ++i) {
            XmlNode *node = nodes[i % 2];
            uint32_t bits = rng();
            if (i < 4) {  // both ends of the range come first
                bits = (i % 2) ? 0xFFFFFFFFu : 0u;
            } else if (i < 8) {
                uint32_t shift = 8 * static_cast<uint32_t>(widthOf(type) - 1);  // signed bounds
                bits = (i % 2) ? (0x7Fu << shift) | ((1u << shift) - 1) : 0x80u << shift;
            }
            std::vector<uint8_t> in = asBytes(bits, widthOf(type));
            ASSERT_EQ(KRV_XML_SetNodeValueEx(node, type, in.data()), KRV_XML_OK);
            uint8_t out[4] = {0xA5, 0xA5, 0xA5, 0xA5};
            ASSERT_EQ(KRV_XML_GetNodeValueEx(node, type, out), KRV_XML_OK) << node->value;
            std::vector<uint8_t> expect = type == kBool ? asBytes(bits != 0, 4) : in;
            ASSERT_EQ(std::vector<uint8_t>(out, out + widthOf(type)), expect) << node->value;
        }
    }
    KRV_XML_FreeNode(nodes[0]);
    KRV_XML_FreeNode(doc);
}

TEST(TypedValue, BadArgumentsAndMissingValuesChangeNothing)
{
    krvtest::LeakGuard guard;
    XmlNode *node = newElement("n");
    uint32_t target = 77;
    EXPECT_EQ(KRV_XML_GetNodeValueEx(node, kU32, &target), KRV_XML_ERR_INVALID_PARAM) << "no value";
    static char unowned[] = "5";
    node->value = unowned;
    for (uint32_t rc : {KRV_XML_GetNodeValueEx(nullptr, kU32, &target),
                        KRV_XML_GetNodeValueEx(node, kU32, nullptr),
                        KRV_XML_GetNodeValueEx(node, kBadType, &target),
                        KRV_XML_SetNodeValueEx(nullptr, kU32, &target),
                        KRV_XML_SetNodeValueEx(node, kU32, nullptr),
                        KRV_XML_SetNodeValueEx(node, kBadType, &target)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(target, 77u);
    EXPECT_EQ(node->value, unowned);
    EXPECT_EQ(KRV_XML_GetNodeValueEx(node, kU32, &target), KRV_XML_OK);
    EXPECT_EQ(target, 5u);
    KRV_XML_FreeNode(node);
}

TEST(TypedValue, WriterOwnsTheNewTextInTheTreesRegime)
{
    krvtest::LeakGuard guard;
    const int32_t v = -42;
    XmlNode *heap = newElement("n");
    static char unowned[] = "keep";
    heap->value = unowned;
    long live = krv_test::LiveBlocks();
    ASSERT_EQ(KRV_XML_SetNodeValueEx(heap, kI32, &v), KRV_XML_OK);
    EXPECT_STREQ(unowned, "keep") << "a text the node does not own is left alone";
    EXPECT_STREQ(heap->value, "-42");
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1);
    ASSERT_EQ(KRV_XML_SetNodeValueEx(heap, kI32, &v), KRV_XML_OK);  // old text freed
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1);
    KRV_XML_FreeNode(heap);

    // In a session document every text comes from the session: node and
    // attribute values, and names of new attributes (interned when short).
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, "doc", nullptr, &doc), KRV_XML_OK);
    XmlNode *item = krvtest::LinkChild(doc, newElement("item", nullptr, doc->mem));
    XmlNode *attr = addAttr(item, nullptr, "a", "1");
    live = krv_test::LiveBlocks();
    const uint32_t u = 42;
    ASSERT_EQ(KRV_XML_SetNodeValueEx(attr, kI32, &v), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetNodeValueEx(doc, kI32, &v), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetAttrValueEx(item, nullptr, "count", kU32, &u), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetAttrValueEx(item, "p", "a_very_long_name", kBool, &u), KRV_XML_OK);
    EXPECT_EQ(krv_test::LiveBlocks(), live) << "a text stayed on the heap";
    std::vector<XmlNode *> list = attrsOf(item);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_STREQ(attr->value, "-42");
    EXPECT_EQ(list[1]->mem, doc->mem);
    EXPECT_STREQ(list[1]->value, "42");
    EXPECT_EQ(list[1]->name, doc->nameTable[0]) << "a short name is interned";
    EXPECT_STREQ(list[2]->value, "true");
    EXPECT_EQ(list[2]->nameOwned, 1) << "too long for a slot";
    KRV_XML_FreeNode(doc);
}

TEST(TypedValue, AttrReaderFindsByPrefixAndName)
{
    struct Row {
        const char *prefix;
        const char *name;
        uint32_t rc;
        int32_t value;
    };
    const Row rows[] = {
        {nullptr, "x", KRV_XML_OK, 5}, {"p", "x", KRV_XML_OK, -7},
        {"q", "x", KRV_XML_ERR_NOT_FOUND, 0}, {nullptr, "y", KRV_XML_ERR_NOT_FOUND, 0},
        {"", "x", KRV_XML_ERR_NOT_FOUND, 0}, {nullptr, "", KRV_XML_ERR_NOT_FOUND, 0},
        {nullptr, "empty", KRV_XML_ERR_INVALID_PARAM, 0}, {nullptr, nullptr, KRV_XML_ERR_INVALID_PARAM, 0},
    };
    krvtest::LeakGuard guard;
    XmlNode *el = newElement("e");
    XmlNode *x = addAttr(el, nullptr, "x", "5");
    addAttr(el, "p", "x", "-7");
    addAttr(el, nullptr, "empty", nullptr);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name == nullptr ? "(null)" : row.name);
        int32_t target = 99;
        EXPECT_EQ(KRV_XML_GetAttrValueEx(el, row.prefix, row.name, kI32, &target), row.rc);
        EXPECT_EQ(target, row.rc == KRV_XML_OK ? row.value : 99);
    }
    int32_t target = 99;
    EXPECT_EQ(KRV_XML_GetAttrValueEx(nullptr, nullptr, "x", kI32, &target), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetAttrValueEx(el, nullptr, "x", kI32, nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetAttrValueEx(el, nullptr, "x", kBadType, &target), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetAttrValueEx(el, nullptr, "missing", kBadType, &target), KRV_XML_ERR_NOT_FOUND)
        << "the lookup comes before the type code";
    EXPECT_EQ(KRV_XML_GetAttrValueEx(x, nullptr, "x", kI32, &target), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(target, 99);
    KRV_XML_FreeNode(el);
}

TEST(TypedValue, AttrWriterAddsLastThenChangesInPlace)
{
    krvtest::LeakGuard guard;
    XmlNode *el = nullptr;  // a heap document: new names are interned, old ones freed
    ASSERT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, "e", nullptr, &el), KRV_XML_OK);
    XmlNode *a = addAttr(el, nullptr, "a", "x");
    const int16_t minus5 = -5, seven = 7;
    ASSERT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "n", kI16, &minus5), KRV_XML_OK);
    std::vector<XmlNode *> list = attrsOf(el);
    ASSERT_EQ(list.size(), 2u);
    XmlNode *n = list[1];
    EXPECT_EQ(list[0], a);
    EXPECT_EQ(n->name, el->nameTable[0]);
    EXPECT_STREQ(n->name, "n");
    EXPECT_STREQ(n->value, "-5");
    EXPECT_EQ(n->parent, el);
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
    EXPECT_EQ(KRV_XML_SetAttrValueEx(nullptr, nullptr, "m", kI16, &seven), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, nullptr, kI16, &seven), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "", kI16, &seven), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "m", kI16, nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_SetAttrValueEx(el, nullptr, "m", kBadType, &seven), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_SetAttrValueEx(a, nullptr, "a", kI16, &seven), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(attrsOf(el), list);
    EXPECT_STREQ(a->value, "x");
    KRV_XML_FreeNode(el);
}

TEST(TypedValue, AttrWriterAddsOnlyUnderARootWithoutSiblings)
{
    krvtest::LeakGuard guard;
    XmlNode *first = newElement("r1");
    XmlNode *second = newElement("r2");
    first->next = second;
    second->prev = first;
    XmlNode *child = krvtest::LinkChild(first, newElement("c"));
    XmlNode *x = addAttr(child, nullptr, "x", "1");
    const uint8_t nine = 9;
    EXPECT_EQ(KRV_XML_SetAttrValueEx(child, nullptr, "y", kU8, &nine), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(attrsOf(child), std::vector<XmlNode *>{x});
    EXPECT_EQ(KRV_XML_SetAttrValueEx(child, nullptr, "x", kU8, &nine), KRV_XML_OK);
    EXPECT_STREQ(x->value, "9");
    KRV_XML_FreeNode(first);
    KRV_XML_FreeNode(second);
}

TEST(TypedValue, SettersSurviveEveryAllocationFailure)
{
    struct Tree {
        XmlNode *root;
        XmlNode *el;
    };
    const int32_t v = 123;
    auto heapTree = [] {
        XmlNode *root = newElement("r");
        return Tree{root, krvtest::LinkChild(root, newElement("e"))};
    };
    // A session document whose block keeps `room` free bytes, so that the
    // session has to grow at a chosen point of the call.
    auto sessionTree = [](int32_t room) {
        XmlNode *doc = nullptr;
        EXPECT_EQ(KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, "d", nullptr, &doc), KRV_XML_OK);
        XmlNode *el = krvtest::LinkChild(doc, newElement("e", nullptr, doc->mem));
        EXPECT_NE(XML_MemSpecialMalloc(doc->mem, doc->mem->freeBytes - room), nullptr);
        return Tree{doc, el};
    };
    auto release = [](uint32_t, Tree &t) { KRV_XML_FreeNode(t.root); };

    // Replacing a node's value: on failure the old text is gone, the value null.
    long points = krvtest::SweepAllocationFailures(
        [&] {
            Tree t = heapTree();
            EXPECT_EQ(KRV_XML_SetNode(t.el, nullptr, nullptr, "old"), KRV_XML_OK);
            return t;
        },
        [&](Tree &t) { return KRV_XML_SetNodeValueEx(t.el, kI32, &v); },
        [&](uint32_t rc, Tree &t) {
            EXPECT_TRUE(rc == KRV_XML_OK ? std::strcmp(t.el->value, "123") == 0
                                         : rc == KRV_XML_ERR_NO_MEMORY && t.el->value == nullptr);
            release(rc, t);
        });
    EXPECT_EQ(points, 1);

    // Adding an attribute: on failure the element has no attribute.
    auto attempt = [&](Tree &t) { return KRV_XML_SetAttrValueEx(t.el, "p", "n", kI32, &v); };
    auto check = [&](uint32_t rc, Tree &t) {
        if (rc == KRV_XML_OK) {
            EXPECT_EQ(attrsOf(t.el).size(), 1u);
            EXPECT_STREQ(t.el->firstAttr->value, "123");
        } else {
            EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
            EXPECT_EQ(t.el->firstAttr, nullptr);
        }
        release(rc, t);
    };
    EXPECT_EQ(krvtest::SweepAllocationFailures(heapTree, attempt, check), 4);  // record, prefix, name, value
    // Session full: the record needs a new block (and the session its block
    // index and first slab), then the value text is a heap copy.
    EXPECT_EQ(krvtest::SweepAllocationFailures([&] { return sessionTree(0); }, attempt, check), 3);
    // Room for record, prefix and name only: the session copy of the value
    // needs a new block (index and first slab) while the heap copy is alive.
    const int32_t room = static_cast<int32_t>((kAttrRecordSize + 7) & ~size_t{7}) + 8 + 8;
    EXPECT_EQ(krvtest::SweepAllocationFailures([&] { return sessionTree(room); }, attempt, check), 3);

    // A new attribute is made and filled before the type code is read and
    // before the duplicate test, so a failing allocation is heard first; the
    // move of the value into the session comes only after the duplicate test.
    struct Early {
        const char *why;
        bool session;
        XmlNode *(*prepare)(Tree &);
        const char *prefix;
        uint32_t type;
        long failAt;
        uint32_t rc;
    };
    const int32_t nameOnly = static_cast<int32_t>((kAttrRecordSize + 7) & ~size_t{7}) + 8;
    const Early early[] = {
        {"bad type", false, nullptr, nullptr, kBadType, 1, KRV_XML_ERR_NO_MEMORY},
        {"duplicate", false, [](Tree &t) { return addAttr(t.el, nullptr, "n", "old"); }, "", kI32, 1,
         KRV_XML_ERR_NO_MEMORY},
        {"duplicate", true, [](Tree &t) { return addAttr(t.el, nullptr, "n", "old"); }, "", kI32, 2,
         KRV_XML_ERR_ALREADY_EXISTS},
    };
    for (const Early &e : early) {
        SCOPED_TRACE(std::string(e.why) + (e.session ? ", session" : ", heap"));
        krvtest::LeakGuard guard;
        Tree t = heapTree();
        if (e.session) {  // the same shape, in a session document
            release(0, t);
            XmlNode *doc = nullptr;
            ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, "d", nullptr, &doc),
                      KRV_XML_OK);
            t = Tree{doc, krvtest::LinkChild(doc, newElement("e", nullptr, doc->mem))};
        }
        if (e.prepare != nullptr) {
            e.prepare(t);
        }
        const std::vector<XmlNode *> before = attrsOf(t.el);
        if (e.session) {  // room for the record and its name, not for the value
            ASSERT_NE(XML_MemSpecialMalloc(t.root->mem, t.root->mem->freeBytes - nameOnly), nullptr);
        }
        krv_test::FailAllocationAt(e.failAt);
        EXPECT_EQ(KRV_XML_SetAttrValueEx(t.el, e.prefix, "n", e.type, &v), e.rc);
        krv_test::FailAllocationAt(0);
        EXPECT_EQ(attrsOf(t.el), before);
        release(0, t);
    }

    // Changing an existing attribute: on failure it stays, without a value.
    points = krvtest::SweepAllocationFailures(
        [&] {
            Tree t = heapTree();
            addAttr(t.el, "p", "n", "old");
            return t;
        },
        attempt,
        [&](uint32_t rc, Tree &t) {
            ASSERT_EQ(attrsOf(t.el).size(), 1u);
            EXPECT_TRUE(rc == KRV_XML_OK ? std::strcmp(t.el->firstAttr->value, "123") == 0
                                         : rc == KRV_XML_ERR_NO_MEMORY && t.el->firstAttr->value == nullptr);
            release(rc, t);
        });
    EXPECT_EQ(points, 1);
}

// ===== PathLookup ===========================================================

namespace {

// config: server, port, server, version.2, 1a, a\b, .hidden, <no name>
struct ConfigTree {
    XmlNode *config = newElement("config");
    XmlNode *server1 = krvtest::LinkChild(config, newElement("server"));
    XmlNode *port = krvtest::LinkChild(config, newElement("port"));
    XmlNode *server2 = krvtest::LinkChild(config, newElement("server"));
    XmlNode *version = krvtest::LinkChild(config, newElement("version.2"));
    XmlNode *digitsName = krvtest::LinkChild(config, newElement("1a"));
    XmlNode *backslash = krvtest::LinkChild(config, newElement("a\\b"));
    XmlNode *dotName = krvtest::LinkChild(config, newElement(".hidden"));
    XmlNode *nameless = krvtest::LinkChild(config, newElement(nullptr));
    ~ConfigTree() { KRV_XML_FreeNode(config); }
};

constexpr uint32_t kOk = KRV_XML_OK, kMissing = KRV_XML_ERR_NOT_FOUND, kBadUrl = KRV_XML_ERR_URL_NOT_FOUND;

struct PathRow {
    std::string path;
    XmlNode *node;  // expected on success
    uint32_t rc;
};

void expectPaths(XmlNode *start, const std::vector<PathRow> &rows)
{
    long allocations = krv_test::AllocationCount();
    XmlNode sentinel{};
    for (const PathRow &row : rows) {
        SCOPED_TRACE(row.path);
        XmlNode *out = &sentinel;
        EXPECT_EQ(KRV_XML_GetNodeByUrl(start, row.path.c_str(), &out), row.rc);
        EXPECT_EQ(out, row.rc == KRV_XML_OK ? row.node : &sentinel);
    }
    EXPECT_EQ(krv_test::AllocationCount(), allocations) << "path lookup allocated";
}

}  // namespace

TEST(PathLookup, IndexesEscapesAndSeparators)
{
    ConfigTree t;
    expectPaths(t.config, {
        {"config", t.config, kOk}, {"config.server", t.server1, kOk}, {"config.server.2", t.server2, kOk},
        {"..config..server..", t.server1, kOk}, {"config.version\\.2", t.version, kOk},
        {"config.server.3", nullptr, kMissing}, {"config.server.0", nullptr, kBadUrl},
        {"config.2", nullptr, kBadUrl}, {"config.server.2.1", nullptr, kBadUrl},
        {"other.server", nullptr, kMissing}, {"config.host", nullptr, kMissing},
        // index digits, escapes and runs of separators
        {"config...", t.config, kOk}, {"...", nullptr, kMissing}, {"config.server.01", t.server1, kOk},
        {"config.server.1", t.server1, kOk},
        {"config.server.000000002", t.server2, kOk},         // 9 digits
        {"config.server.0000000002", nullptr, kMissing},  // 10 digits
        {"config.server.0000000000", nullptr, kMissing}, {"config.server.000", nullptr, kBadUrl},
        {"config.server.2.2", nullptr, kBadUrl}, {"config.port.2", nullptr, kMissing},
        {"config.server.2.port", nullptr, kMissing},  // no children below
        {"config.1a", t.digitsName, kOk}, {"config.1", nullptr, kBadUrl}, {"config.a\\b", t.backslash, kOk},
        {"config.\\.hidden", t.dotName, kOk}, {"config.version.2", nullptr, kMissing},
        {"config\\", nullptr, kMissing},
    });
}

TEST(PathLookup, PrefixesInSegments)
{
    XmlNode *root = newElement("root", "p");
    XmlNode *nameless = krvtest::LinkChild(root, newElement(nullptr, "q"));
    XmlNode *item = krvtest::LinkChild(root, newElement("item", "q"));
    XmlNode *colon = krvtest::LinkChild(root, newElement("a:b"));
    XmlNode *plain = krvtest::LinkChild(root, newElement("plain"));
    (void)nameless;
    expectPaths(root, {
        {"root", root, kOk}, {"p:root", root, kOk}, {"q:root", nullptr, kMissing}, {"p:", nullptr, kMissing},
        {"root.item", item, kOk}, {"root.q:item", item, kOk}, {"root.p:item", nullptr, kMissing},
        {"root.a:b", colon, kOk}, {"p:root.plain", plain, kOk}, {"root.x:plain", nullptr, kMissing},
    });
    KRV_XML_FreeNode(root);
}

TEST(PathLookup, LengthLimitArgumentsAndCallersPath)
{
    krvtest::LeakGuard guard;
    ConfigTree t;
    const std::string name504(504, 'x');
    XmlNode *longChild = krvtest::LinkChild(t.config, newElement(name504.c_str()));
    krvtest::LinkChild(t.config, newElement((name504 + "y").c_str()));
    std::string path511 = "config." + name504;
    ASSERT_EQ(path511.size(), 511u);
    expectPaths(t.config, {
        {path511, longChild, KRV_XML_OK},
        {path511 + "y", nullptr, KRV_XML_ERR_INVALID_PARAM},
        {"config" + std::string(505, '.'), t.config, KRV_XML_OK},
        {"config" + std::string(506, '.'), nullptr, KRV_XML_ERR_INVALID_PARAM},
        {"", nullptr, KRV_XML_ERR_INVALID_PARAM},
    });

    XmlNode *out = nullptr;
    char path[] = "..config..version\\.2..";
    const std::string before = path;
    EXPECT_EQ(KRV_XML_GetNodeByUrl(t.config, path, &out), KRV_XML_OK);
    EXPECT_EQ(out, t.version);
    EXPECT_EQ(std::string(path, sizeof path - 1), before);

    out = nullptr;
    EXPECT_EQ(KRV_XML_GetNodeByUrl(nullptr, "config", &out), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetNodeByUrl(t.config, nullptr, &out), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetNodeByUrl(t.config, "config", nullptr), KRV_XML_ERR_INVALID_PARAM);
    XmlNode *attr = addAttr(t.config, nullptr, "config", nullptr);
    EXPECT_EQ(KRV_XML_GetNodeByUrl(attr, "config", &out), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetNodeByUrl(attr, "config.server", &out), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(out, nullptr);
}
