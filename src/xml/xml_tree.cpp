// Navigation, attribute lists, insertion and name interning, attribute
// editing, cloning.
#include <cstring>

#include "xml/xml_internal.h"

// ===== Attribute lists =====================================================

namespace {

// An empty prefix counts as none, as every string argument does.
const char *prefixOrNull(const char *prefix)
{
    return prefix != nullptr && prefix[0] == '\0' ? nullptr : prefix;
}

// True for a record that may head an attribute list or a child list.
bool isElementShaped(const XmlNode *node)
{
    return node != nullptr && !xmlIsAttr(node);
}

void readAttr(const XmlNode *attr, const char **prefix, const char **name, const char **value)
{
    *prefix = attr->nsPrefix;
    *name = attr->name;
    *value = attr->value;
}

// The index of element's long list, for a search that has walked kAttrWalk
// attributes: the one it has, or one built now; null to walk on.
const AttrIndex *indexForSearch(XmlNode *element)
{
    const AttrIndex *index = xmlAttrIndexOf(element);
    return index != nullptr ? index : xmlAttrIndexMake(element);
}

// The first attribute of element with prefix and name, or null; with
// `before`, its predecessor (null for the first) is written there. Past the
// first kAttrWalk attributes, the index of a long list answers.
XmlNode *findAttr(XmlNode *element, const char *prefix, const char *name, XmlNode **before)
{
    XmlNode *prev = nullptr;
    size_t walked = 0;
    for (XmlNode *a = element->firstAttr; a != nullptr; prev = a, a = a->next) {
        if (xmlSameText(a->nsPrefix, prefix) && xmlSameText(a->name, name)) {
            if (before != nullptr) {
                *before = prev;
            }
            return a;
        }
        if (++walked == kAttrWalk && a->next != nullptr) {
            if (const AttrIndex *index = indexForSearch(element)) {
                XmlNode *found = xmlAttrIndexFind(index, prefix, name);
                if (found != nullptr && before != nullptr) {
                    xmlAttrIndexPrev(index, found, before);
                }
                return found;
            }
        }
    }
    return nullptr;
}

}  // namespace

XmlNode *xmlGetAttr(XmlNode *element, const char *prefix, const char *name)
{
    return findAttr(element, prefix, name, nullptr);
}

bool xmlAttrBefore(XmlNode *element, const XmlNode *attr, XmlNode **before)
{
    XmlNode *prev = nullptr;
    size_t walked = 0;
    for (XmlNode *a = element->firstAttr; a != nullptr; prev = a, a = a->next) {
        if (a == attr) {
            *before = prev;
            return true;
        }
        if (++walked == kAttrWalk && a->next != nullptr) {
            if (const AttrIndex *index = indexForSearch(element)) {
                return xmlAttrIndexPrev(index, attr, before);
            }
        }
    }
    return false;
}

void xmlCutAttr(XmlNode *element, XmlNode *attr, XmlNode *before)
{
    xmlAttrIndexCut(element, attr, before);
    if (before == nullptr) {
        element->firstAttr = attr->next;
    } else {
        before->next = attr->next;
    }
    attr->next = nullptr;
}

uint32_t XML_AddAttrNode(XmlNode *attr, XmlNode *element)
{
    bool loose = attr != nullptr && attr->parent == nullptr;
    uint32_t rc = xmlAddAttrNode(attr, element);
    if (rc == KRV_XML_OK && loose) {
        xmlNoteLoose(attr->mem, -1);
    }
    return rc;
}

uint32_t xmlAddAttrNode(XmlNode *attr, XmlNode *element)
{
    if (attr == nullptr || element == nullptr || xmlIsAttr(element)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    // One pass finds both a duplicate and the end of the list; past the
    // first kAttrWalk attributes, the index of a long list answers both.
    XmlNode *last = nullptr;
    size_t length = 0;
    for (XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
        if (xmlSameText(a->nsPrefix, attr->nsPrefix) && xmlSameText(a->name, attr->name)) {
            return KRV_XML_ERR_ALREADY_EXISTS;
        }
        last = a;
        if (++length == kAttrWalk && a->next != nullptr) {
            if (const AttrIndex *index = xmlAttrIndexOf(element)) {
                if (xmlAttrIndexFind(index, attr->nsPrefix, attr->name) != nullptr) {
                    return KRV_XML_ERR_ALREADY_EXISTS;
                }
                last = xmlAttrIndexTail(index);
                break;
            }
        }
    }
    if (last == nullptr) {
        element->firstAttr = attr;
    } else {
        last->next = attr;
    }
    attr->parent = element;
    xmlAttrIndexAppended(element, attr, last, length + 1);
    return KRV_XML_OK;
}

// ===== Navigation ==========================================================
//
// Attribute records end after `next`: the getters below answer null for the
// fields that an attribute lacks instead of reading past the record.

XmlNode *KRV_XML_GetNodeParent(XmlNode *node)
{
    return node != nullptr ? node->parent : nullptr;
}

XmlNode *KRV_XML_GetNodeFirstChild(XmlNode *node)
{
    return isElementShaped(node) ? node->firstChild : nullptr;
}

XmlNode *KRV_XML_GetNodeLastChild(XmlNode *node)
{
    return isElementShaped(node) ? node->lastChild : nullptr;
}

XmlNode *KRV_XML_GetNodeNextSibling(XmlNode *node)
{
    return node != nullptr ? node->next : nullptr;
}

XmlNode *KRV_XML_GetNodePrevSibling(XmlNode *node)
{
    return isElementShaped(node) ? node->prev : nullptr;
}

uint32_t KRV_XML_GetNodeChildNum(XmlNode *node, uint32_t *count)
{
    if (!isElementShaped(node) || count == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    uint32_t n = 0;
    for (const XmlNode *c = node->firstChild; c != nullptr; c = c->next) {
        ++n;
    }
    *count = n;
    return KRV_XML_OK;
}

uint32_t KRV_XML_GetNodeValue(XmlNode *node, int32_t *kind, const char **prefix, const char **name,
                              const char **value)
{
    // Only fields common to all shapes are read, so attributes are welcome.
    if (node == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (prefix != nullptr) {
        *prefix = node->nsPrefix;
    }
    if (name != nullptr) {
        *name = node->name;
    }
    if (value != nullptr) {
        *value = node->value;
    }
    if (kind != nullptr) {
        *kind = node->kind;
    }
    return KRV_XML_OK;
}

// ===== Attribute reading ===================================================

uint32_t KRV_XML_GetAttr(XmlNode *element, const char *prefix, const char *name,
                         const char **value)
{
    if (!isElementShaped(element) || name == nullptr || value == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    const XmlNode *attr = xmlGetAttr(element, prefix, name);
    if (attr == nullptr) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    *value = attr->value;
    return KRV_XML_OK;
}

uint32_t KRV_XML_GetFirstAttrEx(XmlNode *element, const char **prefix, const char **name,
                                const char **value, XmlNode **cursor)
{
    if (!isElementShaped(element) || prefix == nullptr || name == nullptr || value == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *attr = element->firstAttr;
    if (attr == nullptr) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    readAttr(attr, prefix, name, value);
    if (cursor != nullptr) {
        *cursor = attr;
    }
    return KRV_XML_OK;
}

uint32_t KRV_XML_GetFirstAttr(XmlNode *element, const char **prefix, const char **name,
                              const char **value)
{
    return KRV_XML_GetFirstAttrEx(element, prefix, name, value, nullptr);
}

uint32_t KRV_XML_GetNextSiblingAttr(XmlNode *element, const char *prefix, const char *name,
                                    const char **outPrefix, const char **outName,
                                    const char **outValue)
{
    if (!isElementShaped(element) || name == nullptr || outPrefix == nullptr ||
        outName == nullptr || outValue == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    const XmlNode *current = xmlGetAttr(element, prefix, name);
    if (current == nullptr || current->next == nullptr) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    readAttr(current->next, outPrefix, outName, outValue);
    return KRV_XML_OK;
}

uint32_t KRV_XML_GetNextSiblingAttrEx(XmlNode *element, const char **prefix, const char **name,
                                      const char **value, XmlNode **cursor)
{
    if (!isElementShaped(element) || prefix == nullptr || name == nullptr || value == nullptr ||
        cursor == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    // The cursor is not checked: `next` exists in every record shape.
    XmlNode *at = *cursor;
    XmlNode *attr = at == nullptr ? element->firstAttr : at->next;
    *cursor = attr;  // null at the end, so that the next call starts over
    if (attr == nullptr) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    readAttr(attr, prefix, name, value);
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
        // The document is the root of node's tree and has no siblings, so
        // its `mem` alone decides the release rule; no walk up is needed.
        xmlReleaseTo(document->mem, node->name);
        node->name = slot;
        node->nameOwned = 0;
        return;
    }
}

// ===== Inserting nodes =====================================================
//
// A node joins a tree as it is: nothing is copied or allocated. The checks
// keep every tree in one memory regime (a node's `mem` equals the `mem` of
// the top record of the tree it joins) and keep session trees single-rooted,
// so that the release rule, which decides by the top record, always agrees
// with where each record came from.

namespace {

bool hasSibling(const XmlNode *node)
{
    return node->prev != nullptr || node->next != nullptr;
}

bool isDetached(const XmlNode *node)
{
    return node->parent == nullptr && node->prev == nullptr && node->next == nullptr;
}

bool isSessionDocument(const XmlNode *node)
{
    return node->ownsSession == 1 && node->mem != nullptr;
}

// The shared last step of every insertion: when the tree whose top record is
// `top` is headed by a document without siblings, the inserted node's own
// name moves into that document's name table. A top record with siblings
// leaves the link in place and interns nothing.
uint32_t finishInsert(XmlNode *top, XmlNode *node)
{
    xmlNoteLinked(node, top);  // the next insertion below node need not walk
    xmlNoteLoose(node->mem, -1);
    if (!hasSibling(top) && top->ownsSession == 1 && node->nameOwned == 1) {
        XML_InternName(top, node);
    }
    return KRV_XML_OK;
}

enum class ChildPlace { First, Last };
enum class SiblingPlace { After, Before };

uint32_t insertChild(XmlNode *parent, XmlNode *node, ChildPlace place)
{
    if (parent == nullptr || node == nullptr || xmlIsAttr(node) || isSessionDocument(node)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if ((parent->kind != kKindElement && parent->kind != kKindDocument) || !isDetached(node)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *top = xmlKnownTopForLeaf(parent, node);
    if (top == nullptr) {
        top = xmlTopOf(parent);  // never null: parent is not an attribute
    }
    if (top == node || node->mem != top->mem) {
        return KRV_XML_ERR_INVALID_PARAM;  // a cycle, or mixed memory regimes
    }
    xmlBeforeLink(node);
    node->parent = parent;
    if (place == ChildPlace::First) {
        node->next = parent->firstChild;
        if (parent->firstChild != nullptr) {
            parent->firstChild->prev = node;
        } else {
            parent->lastChild = node;
        }
        parent->firstChild = node;
    } else {
        node->prev = parent->lastChild;
        if (parent->lastChild != nullptr) {
            parent->lastChild->next = node;
        } else {
            parent->firstChild = node;
        }
        parent->lastChild = node;
    }
    return finishInsert(top, node);
}

uint32_t insertSibling(XmlNode *sibling, XmlNode *node, SiblingPlace place)
{
    if (sibling == node || sibling == nullptr || node == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (xmlIsAttr(sibling) || xmlIsAttr(node) || isSessionDocument(sibling) ||
        node->ownsSession == 1 || !isDetached(node)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    // A session tree keeps a single root: its top record never gets siblings.
    if (sibling->parent == nullptr && sibling->mem != nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *top = xmlKnownTopForLeaf(sibling, node);
    if (top == nullptr) {
        top = xmlTopOf(sibling);
    }
    if (top == node || node->mem != top->mem) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *parent = sibling->parent;
    if (parent != nullptr) {
        xmlBeforeLink(node);
    }
    node->parent = parent;
    if (place == SiblingPlace::After) {
        node->prev = sibling;
        node->next = sibling->next;
        if (sibling->next != nullptr) {
            sibling->next->prev = node;
        }
        sibling->next = node;
        if (parent != nullptr && parent->lastChild == sibling) {
            parent->lastChild = node;
        }
    } else {
        node->next = sibling;
        node->prev = sibling->prev;
        if (sibling->prev != nullptr) {
            sibling->prev->next = node;
        }
        sibling->prev = node;
        if (parent != nullptr && parent->firstChild == sibling) {
            parent->firstChild = node;
        }
    }
    return finishInsert(top, node);
}

}  // namespace

uint32_t KRV_XML_AddFirstChildNode(XmlNode *parent, XmlNode *node)
{
    return insertChild(parent, node, ChildPlace::First);
}

uint32_t KRV_XML_AppendChildNode(XmlNode *parent, XmlNode *node)
{
    return insertChild(parent, node, ChildPlace::Last);
}

uint32_t KRV_XML_AddNextSiblingNode(XmlNode *sibling, XmlNode *node)
{
    return insertSibling(sibling, node, SiblingPlace::After);
}

uint32_t KRV_XML_AddPrevSiblingNode(XmlNode *sibling, XmlNode *node)
{
    return insertSibling(sibling, node, SiblingPlace::Before);
}

// ===== Attribute editing ===================================================

uint32_t KRV_XML_AddAttr(XmlNode *element, const char *prefix, const char *name,
                         const char *value)
{
    if (!isElementShaped(element) || name == nullptr || name[0] == '\0') {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *root = xmlFindRoot(element);
    if (root == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;  // the top record has siblings
    }
    // The record and its strings are made first and the duplicate test runs
    // on the copies, so an allocation failure is reported before a duplicate.
    // In a session tree a refused record stays in the session until it ends.
    XmlNode *attr = xmlNewRecord(root->mem, KRV_XML_NODE_ATTRIBUTE);
    if (attr == nullptr) {
        return KRV_XML_ERR_NO_MEMORY;
    }
    uint32_t rc = XML_SetNode(root, attr, prefix, name, value);
    if (rc != KRV_XML_OK) {
        // Never linked: freed to the heap, or left to the root's session.
        xmlReleaseTo(root->mem, attr);
        return rc;
    }
    if (xmlAddAttrNode(attr, element) != KRV_XML_OK) {
        // A duplicate, never linked: freed with its strings in a heap tree,
        // left to the session otherwise.
        if (root->mem == nullptr) {
            XML_FreeSingleNode(attr);
        }
        return KRV_XML_ERR_ALREADY_EXISTS;
    }
    if (root->ownsSession == 1 && attr->nameOwned == 1) {
        XML_InternName(root, attr);
    }
    return KRV_XML_OK;
}

uint32_t KRV_XML_SetAttr(XmlNode *element, const char *prefix, const char *name,
                         const char *value)
{
    if (!isElementShaped(element) || name == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *attr = xmlGetAttr(element, prefixOrNull(prefix), name);
    if (attr == nullptr) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    // Routing context: the root when the tree has one, else null (the heap),
    // which is what the session-owned test gives for such a tree.
    XmlNode *root = xmlFindRoot(element);
    char *copy = nullptr;
    if (value != nullptr && value[0] != '\0') {
        copy = XML_Strdup(root, value);
        if (copy == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
    }
    if (attr->valueOwned == 1) {
        XML_Free(root, attr->value);
    }
    attr->value = copy;
    attr->valueOwned = copy != nullptr ? 1 : 0;
    if (root != nullptr && root->ownsSession == 1 && attr->nameOwned == 1) {
        XML_InternName(root, attr);
    }
    return KRV_XML_OK;
}

uint32_t KRV_XML_RemoveAttr(XmlNode *element, const char *prefix, const char *name)
{
    if (!isElementShaped(element) || name == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *before = nullptr;
    XmlNode *attr = findAttr(element, prefixOrNull(prefix), name, &before);
    if (attr == nullptr) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    xmlCutAttr(element, attr, before);
    // `parent` still names the element, so the release follows its tree.
    XML_FreeSingleNode(attr);
    return KRV_XML_OK;
}

// ===== Cloning =============================================================
//
// A copy is made in the regime of its source's tree: in the session of the
// tree's root, or on the heap. A document that owns a session is the one
// exception: sharing its session would let the copy end it, so its copy
// begins a session of its own. The root is found once per call, and every
// string of the copy is routed by the top record of the copy, which is
// detached, so routing costs no walk.

namespace {

struct CloneTarget {
    XmlMemSession *session;  // where every record of the copy is carved; null: heap
    XmlNode *top;            // the top record of the copy, once it exists
    // A session begun for the copy: its new blocks are not cleared, and the
    // copy writes every byte it takes (see xmlSessionTakeWhole). Clearing a
    // block just before it is written costs a pass of its own over memory
    // that a large copy has to fetch first.
    bool whole;
};

// A record of the kind's shape, written whole, from the copy's own session.
XmlNode *newWholeRecord(XmlMemSession *session, int32_t kind)
{
    size_t size = kind == kKindAttribute ? kAttrRecordSize : kElementRecordSize;
    void *raw = xmlSessionTakeWhole(session, static_cast<int32_t>(size));
    if (raw == nullptr) {
        return nullptr;
    }
    // A constant size per shape makes the clearing a few wide stores.
    if (size == kAttrRecordSize) {
        std::memset(raw, 0, kAttrRecordSize);
    } else {
        std::memset(raw, 0, kElementRecordSize);
    }
    // The copy fills its blocks in order: the lines 2 KB on are the ones it
    // writes a few dozen records later. Asked for now, they are in the cache
    // by then instead of each write waiting for its line.
    __builtin_prefetch(static_cast<char *>(raw) + 2048);
    __builtin_prefetch(static_cast<char *>(raw) + 2048 + 64);
    auto *node = static_cast<XmlNode *>(raw);
    node->kind = kind == kKindAttribute ? kKindAttribute : kKindElement;  // as xmlNewRecord
    node->mem = session;
    return node;
}

// A copy of a non-empty text, written whole with the zero padding of its
// piece, from the copy's own session; null when memory ran out.
char *copyWholeText(XmlMemSession *session, const char *text)
{
    size_t len = std::strlen(text);
    if (len >= static_cast<size_t>(INT32_MAX)) {
        return nullptr;
    }
    auto *copy = static_cast<char *>(xmlSessionTakeWhole(session, static_cast<int32_t>(len + 1)));
    if (copy == nullptr) {
        return nullptr;
    }
    // The piece is 8-aligned and len + 1 rounded up: its last word holds the
    // NUL and the padding, and is written first.
    size_t last = ((len + 1 + 7) & ~size_t{7}) - 8;
    std::memset(copy + last, 0, 8);
    xmlPutText(copy, text, len);
    return copy;
}

// xmlSetStrings for a record just made by newWholeRecord.
uint32_t setWholeStrings(XmlMemSession *session, XmlNode *node, const XmlNode *source)
{
    if (source->nsPrefix != nullptr && source->nsPrefix[0] != '\0') {
        if ((node->nsPrefix = copyWholeText(session, source->nsPrefix)) == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
    }
    if (source->name != nullptr && source->name[0] != '\0') {
        if ((node->name = copyWholeText(session, source->name)) == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
        node->nameOwned = 1;
    }
    if (source->value != nullptr && source->value[0] != '\0') {
        if ((node->value = copyWholeText(session, source->value)) == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
        node->valueOwned = 1;
    }
    return KRV_XML_OK;
}

// A new record of the copy, and the copy of source's strings into it, each
// by the way of the copy's target.
XmlNode *newCopyRecord(const CloneTarget &target, int32_t kind)
{
    return target.whole ? newWholeRecord(target.session, kind) : xmlNewRecord(target.session, kind);
}

uint32_t copyStrings(const CloneTarget &target, XmlNode *copy, const XmlNode *source)
{
    return target.whole ? setWholeStrings(target.session, copy, source)
                        : xmlSetStrings(target.top, copy, source->nsPrefix, source->name, source->value);
}

// Copies source's strings and attribute list into copy, appending attribute
// copies through a running tail. On failure the attribute copies made so far
// stay linked under copy, for the caller to release with it.
uint32_t copyContent(const XmlNode *source, XmlNode *copy, const CloneTarget &target)
{
    uint32_t rc = copyStrings(target, copy, source);
    if (rc != KRV_XML_OK) {
        return rc;
    }
    XmlNode **tail = &copy->firstAttr;
    for (const XmlNode *a = source->firstAttr; a != nullptr; a = a->next) {
        XmlNode *ac = newCopyRecord(target, KRV_XML_NODE_ATTRIBUTE);
        if (ac == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
        ac->parent = copy;
        *tail = ac;
        tail = &ac->next;
        rc = copyStrings(target, ac, a);  // no index yet
        if (rc != KRV_XML_OK) {
            return rc;
        }
    }
    return KRV_XML_OK;
}

// Makes the detached top record of a copy of source (with its attributes).
uint32_t cloneTop(XmlNode *source, XmlNode **out)
{
    if (source == nullptr || out == nullptr || xmlIsAttr(source)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    // A session tree has one root, and every element of it carries the
    // session: only a heap tree needs the walk, to refuse a root with siblings.
    XmlMemSession *mem = source->mem;
    if (mem == nullptr) {
        XmlNode *root = xmlFindRoot(source);
        if (root == nullptr) {
            return KRV_XML_ERR_INVALID_PARAM;
        }
        mem = root->mem;
    }
    CloneTarget target{mem, nullptr, false};
    bool ownSession = source->kind == kKindDocument && mem != nullptr;
    if (ownSession) {
        target.session = XML_MemSessionBegin(kSessionInitialSize);
        if (target.session == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
        target.whole = true;
    }
    XmlNode *copy = xmlNewRecord(target.session, source->kind);
    if (copy == nullptr) {
        if (ownSession) {
            XML_MemSessionEnd(target.session);
        }
        return KRV_XML_ERR_NO_MEMORY;
    }
    target.top = copy;
    uint32_t rc = copyContent(source, copy, target);
    if (rc != KRV_XML_OK) {
        // Heap: freed; shared session: left to it; own session: ended.
        XML_FreeNode(copy);
        return rc;
    }
    *out = copy;
    return KRV_XML_OK;
}

// Copies the descendants of source under copy, which stands for source and is
// the detached top of the copy. Pre-order walk over the links with no stack:
// `dest` is always the copy of the current source node's parent, and each
// copy is appended through dest's last child. On failure the copies made so
// far stay linked under copy.
uint32_t xmlClone(const XmlNode *source, XmlNode *copy)
{
    CloneTarget target{copy->mem, copy, copy->ownsSession == 1 && copy->mem != nullptr};
    XmlNode *dest = copy;
    const XmlNode *cur = source->firstChild;
    while (cur != nullptr) {
        // A document record inside a session tree would claim the session as
        // its own; such a tree is not built by this library and is refused.
        if (cur->kind == kKindDocument && target.session != nullptr) {
            return KRV_XML_ERR_INVALID_PARAM;
        }
        XmlNode *c = newCopyRecord(target, cur->kind);
        if (c == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
        xmlPrefetchFarPast(cur);  // the next source records
        c->parent = dest;
        c->prev = dest->lastChild;
        if (dest->lastChild != nullptr) {
            dest->lastChild->next = c;
        } else {
            dest->firstChild = c;
        }
        dest->lastChild = c;
        uint32_t rc = copyContent(cur, c, target);
        if (rc != KRV_XML_OK) {
            return rc;
        }
        if (cur->firstChild != nullptr) {
            cur = cur->firstChild;
            dest = c;
            continue;
        }
        while (cur != source && cur->next == nullptr) {
            cur = cur->parent;
            dest = dest->parent;
        }
        cur = cur == source ? nullptr : cur->next;
    }
    return KRV_XML_OK;
}

// A copy in a session of its own is owned by its document; one carved from
// the source's session is a loose tree of that session.
void noteCopy(XmlNode *copy)
{
    if (copy->ownsSession == 1 && copy->mem != nullptr) {
        xmlSessionClearRest(copy->mem);  // the copy wrote its pieces whole
        xmlNoteOwner(copy);
    } else {
        xmlNoteLoose(copy->mem, 1);
    }
}

}  // namespace

uint32_t KRV_XML_CloneNodeSelf(XmlNode *source, XmlNode **out)
{
    uint32_t rc = cloneTop(source, out);
    if (rc == KRV_XML_OK) {
        noteCopy(*out);
    }
    return rc;
}

uint32_t KRV_XML_CloneNode(XmlNode *source, XmlNode **out)
{
    if (out == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *copy = nullptr;
    uint32_t rc = cloneTop(source, &copy);
    if (rc != KRV_XML_OK) {
        return rc;
    }
    rc = xmlClone(source, copy);
    if (rc != KRV_XML_OK) {
        XML_FreeNode(copy);
        return rc;
    }
    noteCopy(copy);
    *out = copy;
    return KRV_XML_OK;
}
