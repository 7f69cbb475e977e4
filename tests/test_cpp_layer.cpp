// CppLayer suite: ownership of the C++ handle, views and ranges, and the adapters that hand trees to the C interface.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "krv_xml.hpp"
#include "test_support.h"

using namespace krv::xml;

static bool g_failNextNew = false;  // the next operator new throws

// Lets a test make one std::string copy fail. g++ takes the free() of the replaced operator delete, inlined at its
// callers, for a mismatch.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void *operator new(std::size_t bytes)
{
    void *p = g_failNextNew ? nullptr : std::malloc(bytes != 0 ? bytes : 1);
    g_failNextNew = false;
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }

// Scenarios shuffle two heap trees and name what each handle owns after ("-": none); no tree leaks or is freed twice.
TEST(CppLayer, OwnershipNeverFreesTwiceNorLeaks)
{
    const std::pair<void (*)(document &, document &), const char *> scenarios[] = {
        {[](document &a, document &b) { document c(std::move(a)); b = std::move(c); }, "-a"},
        {[](document &a, document &b) { b = std::move(a); }, "-a"},
        {[](document &a, document &) { document &same = a; a = std::move(same); }, "ab"},
        {[](document &a, document &) { a.reset(a.get()); }, "ab"},
        {[](document &a, document &) { a.reset(); }, "-b"},
        {[](document &a, document &b) { a.reset(b.release()); }, "b-"},
        {[](document &a, document &b) { b.reset(a.release()); }, "-a"},
        {[](document &a, document &b) { swap(a, b); }, "ba"},
        {[](document &a, document &b) { document c(std::move(a)); a.reset(krvtest::Element("c")); b = std::move(c); },
         "ca"},  // a moved-from handle is reusable
    };
    for (const auto &[run, expect] : scenarios) {
        SCOPED_TRACE(expect);
        krvtest::LeakGuard guard;
        document a(krvtest::Element("a")), b(krvtest::Element("b"));
        run(a, b);
        EXPECT_EQ(std::string(a ? a.root().name() : "-") + std::string(b ? b.root().name() : "-"), expect);
    }
}

// A tree goes over only when the C call succeeds, and never to a handle that would free it twice (see each case).
TEST(CppLayer, LinkingAndCopiesReleaseOnlyOnSuccess)
{
    krvtest::LeakGuard guard;
    auto print = [](node n) { std::string text; return n.to_string(text) ? text : "(failed)"; };
    document parent(krvtest::Element("parent")), child(krvtest::Element("child"));
    document first(krvtest::Element("first")), middle(krvtest::Element("middle")), last(krvtest::Element("last"));
    EXPECT_EQ(node().append_child(child), errc::invalid_param);
    ASSERT_TRUE(child);
    ASSERT_TRUE(parent.root().append_child(child));
    EXPECT_FALSE(child);
    ASSERT_TRUE(parent.root().prepend_child(first) && parent.root().last_child().insert_after(last));
    ASSERT_TRUE(parent.root().last_child().insert_before(middle));
    std::string names;
    for (node c : parent.root().children()) {
        names += std::string(c.name()) + " ";
    }
    EXPECT_EQ(names, "first child middle last ");
    document removed;  // taken out again, the child is the handle's to free
    ASSERT_TRUE(parent.root().first_child().next_sibling().remove(removed));
    EXPECT_TRUE(removed.root().name() == "child" && removed.root().parent() == node());

    const std::string twice = "<r>\n<a x=\"1\">\n<b/>\n</a>\n<a x=\"1\">\n<b/>\n</a>\n</r>\n";
    document doc, copy;
    ASSERT_TRUE(document::parse("<r><a x=\"1\"><b/></a></r>", doc, regime::session));
    node a;
    ASSERT_TRUE(doc.root().find("r.a", a));  // carved from the session doc's handle ends: no taking it there
    for (result rc : {a.clone(doc), a.clone_self(doc), a.remove(doc),
                      document::create_element_in(doc.root(), "n", nullptr, doc)}) {
        EXPECT_EQ(rc, errc::invalid_param);
    }
    ASSERT_TRUE(a.clone(copy) && doc.root().append_child(copy));
    EXPECT_EQ(print(doc.root()), twice);
    // A copy of a session document has a session of its own: the document's own handle may take it.
    ASSERT_TRUE(doc.root().clone(doc));
    EXPECT_EQ(print(doc.root()), twice);
    ASSERT_TRUE(doc.root().clone_self(doc));
    EXPECT_EQ(print(doc.root()), "<r/>\n");

    document heap, other, item(krvtest::Element("item"));
    ASSERT_TRUE(document::create("doc", heap, regime::heap) && document::create("other", other, regime::heap));
    ASSERT_TRUE(heap.root().append_child(item));
    EXPECT_EQ(heap.root().first_child().remove(heap), errc::invalid_param);  // the document keeps its short name
    EXPECT_EQ(print(heap.root()), "<doc>\n<item/>\n</doc>\n");
    ASSERT_TRUE(heap.root().first_child().remove(other));
    EXPECT_EQ(other.root().name(), "item");
    document frag(krvtest::Element("frag")), inner, leaf(krvtest::Element("leaf"));  // such a document deeper down
    ASSERT_TRUE(document::create("inner", inner, regime::heap) && inner.root().append_child(leaf));
    ASSERT_TRUE(frag.root().append_child(inner));
    EXPECT_EQ(frag.root().first_child().first_child().remove(frag), errc::invalid_param);
    document multi, taken;
    ASSERT_TRUE(document::parse("<a/><b/>", multi, regime::heap));
    EXPECT_EQ(multi.root().remove(taken), errc::invalid_param);  // the head of a heap document's top level
    EXPECT_TRUE(!taken && multi.get()->next != nullptr);
    if (taken.get() == multi.get()) {
        taken.release();  // the old code handed the root to both handles
    }
}

static_assert(!std::is_convertible_v<bool, result>, "a flag is no result code");
static_assert(std::is_convertible_v<int, result> && std::is_convertible_v<std::uint32_t, result>,
              "integer codes convert without ambiguity");

// A C++17 forward iterator must dereference to a reference; ours makes views.
template <class It>
constexpr bool honestCategory =
    !std::is_base_of_v<std::forward_iterator_tag, typename std::iterator_traits<It>::iterator_category> ||
    std::is_reference_v<typename std::iterator_traits<It>::reference>;
static_assert(honestCategory<sibling_range<node>::iterator> && honestCategory<sibling_range<attribute>::iterator>,
              "iterator category matches what dereferencing gives");

// Views read through to the record, null views are safe, ranges walk in order, typed accessors use each width.
TEST(CppLayer, ViewsRangesAndTypedValues)
{
    for (regime r : {regime::session, regime::heap}) {
        krvtest::LeakGuard guard;
        document doc;
        ASSERT_TRUE(document::parse("<p:r a=\"1\" q:b=\"x\"><c>v</c><d/></p:r>", doc, r));
        node root = doc.root(), c = root.first_child();
        EXPECT_EQ(std::string(root.prefix()) + ":" + std::string(root.name()), "p:r");
        EXPECT_FALSE(root.has_value());
        std::string attrs;
        for (auto at : root.attributes()) {
            attrs += std::string(at.prefix()) + "|" + std::string(at.name()) + "=" + std::string(at.value()) + " ";
        }
        EXPECT_EQ(attrs, "|a=1 q|b=x ");
        std::string_view v;
        EXPECT_EQ(root.attr("b", v), errc::not_found);  // prefix is part of the identity
        ASSERT_TRUE(root.attr("b", v, "q"));
        EXPECT_EQ(v, "x");
        EXPECT_TRUE(node().name().empty() && node().first_child() == node() && node().children().empty());
        EXPECT_TRUE(root.last_child().children().empty());
        int8_t low = 0;
        uint8_t ulow = 7;
        ASSERT_TRUE(root.set_attr_as<int8_t>("low", -128) && root.get_attr_as("low", low));
        EXPECT_EQ(root.get_attr_as("low", ulow), errc::invalid_param);
        EXPECT_TRUE(low == -128 && ulow == 7);
        bool flag = false;
        ASSERT_TRUE(c.set_value_as(true) && c.get_value(flag));
        EXPECT_TRUE(flag && c.value() == "true");
        uint32_t big = 0;
        ASSERT_TRUE(c.set_value_as<uint32_t>(4294967295u) && c.get_value(big));
        EXPECT_EQ(big, 4294967295u);
    }
}

// A range loop may remove the record at hand; a root gets no sibling; printed text is freed when its copy throws.
TEST(CppLayer, EditsThatHandlesAndRangesSurvive)
{
    for (regime r : {regime::session, regime::heap}) {
        krvtest::LeakGuard guard;
        document doc;
        ASSERT_TRUE(document::parse("<r a=\"1\" b=\"2\" c=\"3\"><x/><y/><z/></r>", doc, r));
        int visited = 0;
        for (node c : doc.root().children()) {
            document out;  // a heap child is released here, inside the loop
            ASSERT_TRUE(c.remove(out));
            ++visited;
        }
        for (auto at : doc.root().attributes()) {
            ASSERT_TRUE(doc.root().remove_attr(std::string(at.name()).c_str()));
            ++visited;
        }
        EXPECT_EQ(visited, 6);
        EXPECT_TRUE(doc.root().children().empty() && doc.root().attributes().empty());
        EXPECT_TRUE(node(doc.root().get()->firstAttr).attributes().empty());
    }
    krvtest::LeakGuard guard;
    document root(krvtest::Element("root")), sibling(krvtest::Element("sibling"));
    EXPECT_EQ(root.root().insert_after(sibling), errc::invalid_param);
    EXPECT_EQ(root.root().insert_before(sibling), errc::invalid_param);
    EXPECT_TRUE(sibling && root.get()->next == nullptr && root.get()->prev == nullptr);
    ASSERT_TRUE(root.root().set_attr_as<uint32_t>("long", 4000000000u));
    std::string text = "kept";
    g_failNextNew = true;
    EXPECT_THROW((void)root.root().to_string(text), std::bad_alloc);
    g_failNextNew = false;
    EXPECT_EQ(text, "kept");
}

// Parsing replaces the handle's tree only on success.
TEST(CppLayer, FailedParseKeepsTheHandle)
{
    krvtest::LeakGuard guard;
    document doc;
    ASSERT_TRUE(document::parse("<keep/>", doc));
    XmlNode *before = doc.get();
    KrvXmlParseInfo info{};
    EXPECT_EQ(document::parse("<a>x<b/></a>", doc), errc::syntax);
    EXPECT_EQ(document::parse_file("/nonexistent/krvxml.xml", doc, regime::heap), errc::file_open);
    EXPECT_EQ(document::parse("<a>\n<b/>x</a>", doc, regime::heap, info), errc::syntax);
    EXPECT_TRUE(info.result == KRV_XML_ERR_SYNTAX && info.line == 2u && doc.get() == before);
    ASSERT_TRUE(document::parse("<new/>", doc, regime::heap, info));  // the old tree is released
    EXPECT_TRUE(doc.root().name() == "new" && doc.root().get()->mem == nullptr);
}
