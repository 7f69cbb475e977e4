// One fuzz case for the parser: the bytes are parsed as text through every
// string entry point; an accepted document is printed whole, as head and as
// tail, and the whole text is parsed again and compared with the first tree.
#ifndef KRVXML_FUZZ_PARSE_CASE_H
#define KRVXML_FUZZ_PARSE_CASE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_checks.h"
#include "krv_xml.h"
#include "platform/krv_platform.h"
#include "xml/xml_parser_internal.h"

namespace krvfuzz {

// Prints top whole, as head and as tail and checks the results against each
// other; `whole` receives the whole text. Returns "" or the first failure.
inline std::string CheckTransforms(XmlNode *top, std::string *whole)
{
    const std::string before = Dump(top);
    const bool unnamed = TreeHasUnnamed(top);
    using Fn = uint32_t (*)(XmlNode *, char **);
    const Fn fns[3] = {KRV_XML_Transform, KRV_XML_TransformHead, KRV_XML_TransformTail};
    std::string texts[3];
    for (int mode = 0; mode < 3; ++mode) {
        char *const sentinel = reinterpret_cast<char *>(&texts);
        char *out = sentinel;  // must stay on failure
        uint32_t rc = fns[mode](top, &out);
        if (unnamed && (rc != KRV_XML_ERR_INVALID_PARAM || out != sentinel)) {
            return "printing a tree with an unnamed record gave " + std::to_string(rc);
        } else if (!unnamed && rc != KRV_XML_OK) {
            return "printing mode " + std::to_string(mode) + " gave " + std::to_string(rc);
        }
        if (!unnamed && out != nullptr) {
            texts[mode] = out;
            KRV_XML_FreeMem(out);
        }
        if (Dump(top) != before) {
            return "printing changed the tree";
        }
    }
    const std::string &w = texts[0], &head = texts[1], &tail = texts[2];
    *whole = w;
    if (unnamed || TreeHasMarkupInNames(top)) {
        return "";  // a line feed inside a name breaks the line structure checked below
    }
    if (w.empty() || w.back() != '\n') {
        return "whole text does not end with a line feed";
    }
    // The tail holds end tags only. When every element with children lies on
    // the chain of last children from the top, the tail closes the last leaf
    // and then its ancestors, which is also how the whole text ends.
    bool framing = true;
    for (XmlNode *n = top; n != nullptr && framing; n = NextInside(n, top)) {
        XmlNode *up = n;
        while (n->firstChild != nullptr && up != top && up->parent->lastChild == up) {
            up = up->parent;
        }
        framing = n->firstChild == nullptr || up == top;
    }
    if (tail.empty() && top->firstChild != nullptr) {
        return "empty tail for a top with children";
    }
    if (!tail.empty() && tail.compare(0, 2, "</") != 0) {
        return "tail does not begin with an end tag";
    }
    const std::string rest = tail.substr(tail.find('\n') + 1);
    if (framing && !tail.empty() &&
        (w.size() < rest.size() || w.compare(w.size() - rest.size(), rest.size(), rest) != 0)) {
        return "tail is not made of the whole text's closing tags";
    }
    // The head writes no end tags but those of leaves. For a framed tree it
    // is the whole text until its first open leaf, where the whole text has
    // an empty-element tag "<x/>" and the head leaves "<x>" open.
    if (head.empty() || head[0] != '<') {
        return "head does not begin with a start tag";
    }
    size_t same = 0;
    while (same < head.size() && same < w.size() && head[same] == w[same]) {
        ++same;
    }
    if (framing && same < head.size() && (head[same] != '>' || w[same] != '/')) {
        return "head departs from the whole text other than at an open leaf";
    }
    return "";
}

// Runs the case. Returns "" when every check held.
inline std::string RunParseCase(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);  // parsed up to the first NUL
    const long live = krv_test::LiveBlocks();
    XmlNode *heap = reinterpret_cast<XmlNode *>(uintptr_t{1});
    XmlNode *session = heap;
    const uint32_t rcHeap = KRV_XML_Parse(text.c_str(), &heap);
    const uint32_t rcSession = KRV_XML_ParseEx(text.c_str(), &session);
    auto allowed = [](uint32_t rc) { return rc == KRV_XML_OK || rc == KRV_XML_ERR_SYNTAX; };
    if (text.c_str()[0] == '\0') {
        bool refused = rcHeap == KRV_XML_ERR_INVALID_PARAM && rcSession == KRV_XML_ERR_INVALID_PARAM;
        return refused && krv_test::LiveBlocks() == live ? "" : "empty text not refused cleanly as invalid";
    } else if (!allowed(rcHeap) || !allowed(rcSession)) {
        return "parse gave " + std::to_string(rcHeap) + " / " + std::to_string(rcSession);
    } else if ((rcHeap != KRV_XML_OK && heap != nullptr) || (rcSession != KRV_XML_OK && session != nullptr)) {
        return "failed parse left the out-argument set";
    }
    std::string failure;
    if (rcHeap == KRV_XML_OK && heap->next == nullptr && rcSession != KRV_XML_OK) {
        failure = "heap parse accepted a single-rooted text the session parse refused";
    } else if (rcSession == KRV_XML_OK && rcHeap != KRV_XML_OK) {
        failure = "session parse accepted a text the heap parse refused";
    } else {
        failure = CheckLinks(heap) + CheckLinks(session);
    }
    if (failure.empty() && rcSession == KRV_XML_OK && !(failure = CompareTrees(heap, session, false)).empty()) {
        failure = "heap and session trees differ: " + failure;
    }

    // The reporting entry point, and the token-by-token steps alone without
    // the fast path, must read the text exactly as the plain parse: same
    // result, tree (ownership flags included) and failure report.
    KrvXmlParseInfo info{}, slowInfo{};
    XmlNode *viaInfo = nullptr, *slow = nullptr;
    const uint32_t rc = KRV_XML_ParseWithInfo(text.c_str(), 0, &viaInfo, &info);
    krv_test::UseFastParser(false);
    const uint32_t rcSlow = KRV_XML_ParseWithInfo(text.c_str(), 0, &slow, &slowInfo);
    krv_test::UseFastParser(true);
    if (failure.empty() && (rc != rcHeap || info.result != rc)) {
        failure = "parse with info disagrees with the plain parse";
    } else if (failure.empty() && rc != KRV_XML_OK && info.offset > text.size()) {
        failure = "error offset beyond the text";
    } else if (failure.empty() && rc == KRV_XML_OK) {
        failure = CompareTrees(heap, viaInfo, false);
    }
    if (failure.empty() && rcSlow != rcHeap) {
        failure = "fast path changed the result: " + std::to_string(rcHeap) + " against " + std::to_string(rcSlow);
    } else if (failure.empty() && rc != KRV_XML_OK &&
               (slowInfo.offset != info.offset || std::string(slowInfo.reason) != info.reason)) {
        failure = std::string("fast path changed the failure report: ") + info.reason + " at " +
                  std::to_string(info.offset) + " against " + slowInfo.reason + " at " +
                  std::to_string(slowInfo.offset);
    }
    auto flagsDiffer = [](XmlNode *s, XmlNode *t) {
        return s->nameOwned != t->nameOwned || s->valueOwned != t->valueOwned;
    };
    for (XmlNode *a = heap, *b = slow; failure.empty() && (a != nullptr || b != nullptr); a = a->next, b = b->next) {
        if (a == nullptr || b == nullptr || Dump(a) != Dump(b)) {
            failure = "fast path built a different tree";
            break;
        }
        for (XmlNode *x = a, *y = b; x != nullptr; x = NextInside(x, a), y = NextInside(y, b)) {
            bool differ = flagsDiffer(x, y);
            for (XmlNode *s = x->firstAttr, *t = y->firstAttr; s != nullptr; s = s->next, t = t->next) {
                differ = differ || flagsDiffer(s, t);
            }
            failure = differ ? "fast path set different ownership flags" : failure;
        }
    }
    KRV_XML_FreeNode(viaInfo);
    KRV_XML_FreeNode(slow);

    // The printed text reads back as the same tree, unless names hold markup
    // or values may hold references (then it may be refused).
    std::string whole;
    if (failure.empty() && heap != nullptr && (failure = CheckTransforms(heap, &whole)).empty() && !whole.empty()) {
        XmlNode *again = nullptr;
        bool read = KRV_XML_Parse(whole.c_str(), &again) == KRV_XML_OK;
        if (TreeHasMarkupInNames(heap)) {
            // not expected to read back: parsing it must only be clean
        } else if (!read && !TreeMayHoldReference(heap)) {
            failure = "printed text is refused: " + whole;
        } else if (read && !(failure = CompareTrees(heap, again, true)).empty()) {
            failure = "printed text reads back differently: " + failure + "\n" + whole;
        } else if (read && again->next != nullptr) {
            failure = "printed text has a second top-level element: " + whole;
        }
        KRV_XML_FreeNode(again);
    }
    if (failure.empty() && session != nullptr) {
        failure = CheckTransforms(session, &whole);
    }
    KRV_XML_FreeNode(heap);
    KRV_XML_FreeNode(session);
    if (failure.empty() && krv_test::LiveBlocks() != live) {
        failure = "heap blocks leaked: " + std::to_string(krv_test::LiveBlocks() - live);
    }
    return failure;
}

}  // namespace krvfuzz

#endif  // KRVXML_FUZZ_PARSE_CASE_H
