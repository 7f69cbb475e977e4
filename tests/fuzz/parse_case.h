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
    std::string before = Dump(top);
    bool unnamed = TreeHasUnnamed(top);
    using Fn = uint32_t (*)(XmlNode *, char **);
    const Fn fns[3] = {KRV_XML_Transform, KRV_XML_TransformHead, KRV_XML_TransformTail};
    std::string texts[3];
    for (int mode = 0; mode < 3; ++mode) {
        char *out = reinterpret_cast<char *>(&texts);  // sentinel: must stay on failure
        char *const sentinel = out;
        uint32_t rc = fns[mode](top, &out);
        if (unnamed) {
            if (rc != KRV_XML_ERR_INVALID_PARAM || out != sentinel) {
                return "printing a tree with an unnamed record gave " + std::to_string(rc);
            }
            continue;
        }
        if (rc != KRV_XML_OK) {
            return "printing mode " + std::to_string(mode) + " gave " + std::to_string(rc);
        }
        if (out != nullptr) {
            texts[mode] = out;
            KRV_XML_FreeMem(out);
        }
        if (Dump(top) != before) {
            return "printing changed the tree";
        }
    }
    if (unnamed) {
        return "";
    }
    const std::string &w = texts[0];
    *whole = w;
    if (TreeHasMarkupInNames(top)) {
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
        if (n->firstChild != nullptr) {
            XmlNode *up = n;
            while (up != top && up->parent->lastChild == up) {
                up = up->parent;
            }
            framing = up == top;
        }
    }
    const std::string &tail = texts[2];
    size_t firstEnd = tail.find('\n');
    if (!tail.empty() && !framing) {
        if (tail.compare(0, 2, "</") != 0) {
            return "tail does not begin with an end tag";
        }
    } else if (!tail.empty()) {
        std::string rest = tail.substr(firstEnd + 1);
        if (tail.compare(0, 2, "</") != 0 || w.size() < rest.size() ||
            w.compare(w.size() - rest.size(), rest.size(), rest) != 0) {
            return "tail is not made of the whole text's closing tags";
        }
    } else if (top->firstChild != nullptr) {
        return "empty tail for a top with children";
    }
    // The head writes no end tags but those of leaves. For a framed tree it
    // is the whole text until its first open leaf, where the whole text has
    // an empty-element tag "<x/>" and the head leaves "<x>" open.
    const std::string &head = texts[1];
    if (!framing) {
        return head.empty() || head[0] != '<' ? "head does not begin with a start tag" : "";
    }
    size_t same = 0;
    while (same < head.size() && same < w.size() && head[same] == w[same]) {
        ++same;
    }
    if (head.empty() || (same < head.size() && (head[same] != '>' || w[same] != '/'))) {
        return "head departs from the whole text other than at an open leaf";
    }
    return "";
}

// Runs the case. Returns "" when every check held.
inline std::string RunParseCase(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);  // parsed up to the first NUL
    long live = krv_test::LiveBlocks();
    std::string failure;

    XmlNode *heap = reinterpret_cast<XmlNode *>(&text);
    XmlNode *session = heap;
    uint32_t rcHeap = KRV_XML_Parse(text.c_str(), &heap);
    uint32_t rcSession = KRV_XML_ParseEx(text.c_str(), &session);
    bool emptyText = text.c_str()[0] == '\0';

    auto allowed = [](uint32_t rc) {
        return rc == KRV_XML_OK || rc == KRV_XML_ERR_SYNTAX;
    };
    if (emptyText) {
        if (rcHeap != KRV_XML_ERR_INVALID_PARAM || rcSession != KRV_XML_ERR_INVALID_PARAM) {
            failure = "empty text not refused as invalid";
        }
        heap = session = nullptr;
    } else if (!allowed(rcHeap) || !allowed(rcSession)) {
        failure = "parse gave " + std::to_string(rcHeap) + " / " + std::to_string(rcSession);
    } else if ((rcHeap != KRV_XML_OK && heap != nullptr) || (rcSession != KRV_XML_OK && session != nullptr)) {
        failure = "failed parse left the out-argument set";
    }
    if (!failure.empty()) {
        return failure;
    }
    if (rcHeap == KRV_XML_OK && heap->next == nullptr && rcSession != KRV_XML_OK) {
        failure = "heap parse accepted a single-rooted text the session parse refused";
    } else if (rcSession == KRV_XML_OK && rcHeap != KRV_XML_OK) {
        failure = "session parse accepted a text the heap parse refused";
    }
    for (XmlNode *doc : {heap, session}) {
        if (failure.empty() && doc != nullptr) {
            failure = CheckLinks(doc);
        }
    }
    if (failure.empty() && rcSession == KRV_XML_OK) {
        failure = CompareTrees(heap, session, false);
        if (!failure.empty()) {
            failure = "heap and session trees differ: " + failure;
        }
    }

    KrvXmlParseInfo info{};
    XmlNode *viaInfo = nullptr;
    if (failure.empty() && !emptyText) {
        uint32_t rc = KRV_XML_ParseWithInfo(text.c_str(), 0, &viaInfo, &info);
        if (rc != rcHeap || info.result != rc) {
            failure = "parse with info disagrees with the plain parse";
        } else if (rc != KRV_XML_OK && info.offset > text.size()) {
            failure = "error offset beyond the text";
        } else if (rc == KRV_XML_OK) {
            failure = CompareTrees(heap, viaInfo, false);
        }
        KRV_XML_FreeNode(viaInfo);
    }

    // The token-by-token steps alone must read the text exactly as the
    // parser with its fast path: same result, tree and failure report.
    if (failure.empty() && !emptyText) {
        KrvXmlParseInfo slowInfo{};
        XmlNode *slow = nullptr;
        krv_test::UseFastParser(false);
        uint32_t rc = KRV_XML_ParseWithInfo(text.c_str(), 0, &slow, &slowInfo);
        krv_test::UseFastParser(true);
        if (rc != rcHeap) {
            failure = "fast path changed the result: " + std::to_string(rcHeap) + " against " +
                      std::to_string(rc);
        } else if (rc != KRV_XML_OK && (slowInfo.offset != info.offset ||
                                        std::string(slowInfo.reason) != info.reason)) {
            failure = std::string("fast path changed the failure report: ") + info.reason +
                      " at " + std::to_string(info.offset) + " against " + slowInfo.reason +
                      " at " + std::to_string(slowInfo.offset);
        }
        for (XmlNode *a = heap, *b = slow; failure.empty() && (a != nullptr || b != nullptr);
             a = a->next, b = b->next) {
            if (a == nullptr || b == nullptr || Dump(a) != Dump(b)) {
                failure = "fast path built a different tree";
                break;
            }
            for (XmlNode *x = a, *y = b; x != nullptr && failure.empty();
                 x = NextInside(x, a), y = NextInside(y, b)) {
                if (x->nameOwned != y->nameOwned || x->valueOwned != y->valueOwned) {
                    failure = "fast path set different ownership flags";
                }
                for (XmlNode *s = x->firstAttr, *t = y->firstAttr; s != nullptr; s = s->next, t = t->next) {
                    if (s->nameOwned != t->nameOwned || s->valueOwned != t->valueOwned) {
                        failure = "fast path set different attribute flags";
                    }
                }
            }
        }
        KRV_XML_FreeNode(slow);
    }

    if (failure.empty() && heap != nullptr) {
        std::string whole;
        failure = CheckTransforms(heap, &whole);
        if (failure.empty() && !whole.empty()) {
            XmlNode *again = nullptr;
            uint32_t rc = KRV_XML_Parse(whole.c_str(), &again);
            bool refs = TreeMayHoldReference(heap);
            if (TreeHasMarkupInNames(heap)) {
                // Not expected to read back; it must only be handled cleanly.
            } else if (rc == KRV_XML_OK) {
                failure = CompareTrees(heap, again, true);
                if (failure.empty() && again->next != nullptr) {
                    failure = "printed text has a second top-level element";
                }
                if (!failure.empty()) {
                    failure = "printed text reads back differently: " + failure + "\n" + whole;
                }
            } else if (!refs) {
                failure = "printed text is refused: " + whole;
            }
            KRV_XML_FreeNode(again);
        }
    }
    if (failure.empty() && session != nullptr) {
        std::string whole;
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
