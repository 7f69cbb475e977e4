// KRV XML itself, in both memory regimes: heap trees (KRV_XML_Parse) and
// session documents (KRV_XML_ParseEx). Everything after the parse is the
// same call for both.
#include <cstring>
#include <string>

#include "bench_lib.h"
#include "krv_xml.h"

namespace krvbench {
namespace {

void *parseHeap(const char *text, size_t)
{
    XmlNode *doc = nullptr;
    return KRV_XML_Parse(text, &doc) == KRV_XML_OK ? doc : nullptr;
}

void *parseSession(const char *text, size_t)
{
    XmlNode *doc = nullptr;
    return KRV_XML_ParseEx(text, &doc) == KRV_XML_OK ? doc : nullptr;
}

void release(void *doc)
{
    KRV_XML_FreeNode(static_cast<XmlNode *>(doc));
}

void *print(void *doc)
{
    char *text = nullptr;
    if (KRV_XML_Transform(static_cast<XmlNode *>(doc), &text) != KRV_XML_OK || text == nullptr) {
        return nullptr;
    }
    return text;
}

size_t releaseOutput(void *out)
{
    size_t n = std::strlen(static_cast<char *>(out));
    KRV_XML_FreeMem(out);
    return n;
}

void *clone(void *doc)
{
    XmlNode *copy = nullptr;
    return KRV_XML_CloneNode(static_cast<XmlNode *>(doc), &copy) == KRV_XML_OK ? copy : nullptr;
}

bool lookup(void *doc, const Query &q)
{
    XmlNode *found = nullptr;
    return KRV_XML_GetNodeByUrl(static_cast<XmlNode *>(doc), q.url.c_str(), &found) == KRV_XML_OK &&
           found != nullptr;
}

std::string qualifiedName(const XmlNode *n)
{
    std::string s;
    if (n->nsPrefix != nullptr) {
        s = n->nsPrefix;
        s += ':';
    }
    if (n->name != nullptr) {
        s += n->name;
    }
    return s;
}

// A path segment with its dots escaped.
std::string segment(const std::string &name)
{
    std::string s;
    for (char c : name) {
        if (c == '.') {
            s += '\\';
        }
        s += c;
    }
    return s;
}

bool describe(void *doc, Query &q)
{
    auto *root = static_cast<XmlNode *>(doc);
    if (root->name == nullptr || root->firstChild == nullptr || root->firstChild->name == nullptr) {
        return false;
    }
    q.root = qualifiedName(root);
    q.child = qualifiedName(root->firstChild);
    q.index = 0;
    for (XmlNode *n = root->firstChild; n != nullptr; n = n->next) {
        if (qualifiedName(n) == q.child) {
            ++q.index;
        }
    }
    q.url = segment(q.root) + "." + segment(q.child) + "." + std::to_string(q.index);
    return q.url.size() <= 511;
}

}  // namespace

void AddKrv(std::vector<Adapter> &out)
{
    out.push_back(Adapter{"krv session", "DOM", parseSession, release, print, releaseOutput, clone,
                          release, lookup, describe});
    out.push_back(Adapter{"krv heap", "DOM", parseHeap, release, print, releaseOutput, clone, release,
                          lookup, describe});
}

}  // namespace krvbench
