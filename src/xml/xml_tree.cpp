// Navigation, attribute lists, insertion and name interning, attribute
// editing, cloning.
#include <cstring>

#include "xml/xml_internal.h"

// ===== Attribute lists =====================================================

namespace {

// Prefix or name identity: both null, the same pointer, or equal bytes.
bool sameText(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return a == b || std::strcmp(a, b) == 0;
}

}  // namespace

XmlNode *xmlGetAttr(XmlNode *element, const char *prefix, const char *name)
{
    for (XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
        if (sameText(a->nsPrefix, prefix) && sameText(a->name, name)) {
            return a;
        }
    }
    return nullptr;
}

uint32_t XML_AddAttrNode(XmlNode *attr, XmlNode *element)
{
    if (attr == nullptr || element == nullptr || xmlIsAttr(element)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    // One pass finds both a duplicate and the end of the list.
    XmlNode *last = nullptr;
    for (XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
        if (sameText(a->nsPrefix, attr->nsPrefix) && sameText(a->name, attr->name)) {
            return KRV_XML_ERR_ALREADY_EXISTS;
        }
        last = a;
    }
    if (last == nullptr) {
        element->firstAttr = attr;
    } else {
        last->next = attr;
    }
    attr->parent = element;
    return KRV_XML_OK;
}

// ===== Document order ======================================================

XmlNode *KRV_XML_Iterator(XmlNode *node)
{
    if (node == nullptr || xmlIsAttr(node)) {
        return nullptr;
    }
    if (node->firstChild != nullptr) {
        return node->firstChild;
    }
    for (XmlNode *cur = node; cur != nullptr; cur = cur->parent) {
        if (cur->next != nullptr) {
            return cur->next;
        }
    }
    return nullptr;
}

// ===== Name interning ======================================================

void XML_InternName(XmlNode *document, XmlNode *node)
{
    const char *name = node->name;
    if (name == nullptr) {
        return;
    }
    for (auto &slot : document->nameTable) {
        if (slot[0] == '\0') {
            if (OSAL_StrLen(name) > KRV_XML_NAME_SLOT_SIZE - 1) {
                return;
            }
            strncpy_s(slot, KRV_XML_NAME_SLOT_SIZE, name, KRV_XML_NAME_SLOT_SIZE - 1);
        } else if (std::strcmp(slot, name) != 0) {
            continue;
        }
        XML_Free(node, node->name);
        node->name = slot;
        node->nameOwned = 0;
        return;
    }
}
