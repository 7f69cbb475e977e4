/*
 * KRV XML: a small XML document library with a flat C interface.
 *
 * Parse XML text or files into a tree, walk and edit it, read and write typed
 * values, find nodes by dotted paths, copy sub-trees and write the tree back
 * as text.
 *
 * Two memory regimes live side by side:
 *   - session documents (KRV_XML_ParseEx, KRV_XML_ParseFileEx, a document made
 *     by KRV_XML_CreateNodeEx): every record and string is carved from one
 *     arena, the memory session, which is released in one step;
 *   - heap trees (KRV_XML_Parse, KRV_XML_ParseFile, KRV_XML_CreateNode): every
 *     record and string is a heap block of its own.
 * Regimes are never mixed in one tree: a node that joins a session document
 * must be made in that document's session (KRV_XML_CreateNodeEx(doc->mem, ...))
 * or copied from that document (KRV_XML_CloneNode).
 *
 * Ownership: the caller owns every tree it creates, parses or copies and
 * releases it with KRV_XML_FreeNode on its root. Strings handed out by getters
 * belong to the tree and stay valid until the node changes or is released.
 * Text made by the transforms belongs to the caller: release it with
 * KRV_XML_FreeMem. Strings passed in are always copied.
 *
 * Threads: a tree (with its session) is used by one thread at a time, even by
 * calls that leave it unchanged, such as KRV_XML_CloneNode: finding a node's
 * top record updates bookkeeping kept with the tree. Parses of
 * different texts on different threads are independent. The five file
 * functions are the only global state; register them before any thread parses
 * a file.
 *
 * Every fallible function returns one of the KRV_XML_* result codes below and
 * writes its out-arguments only on success, unless its comment says otherwise.
 */
#ifndef KRV_XML_H
#define KRV_XML_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(KRV_XML_STATIC)
#define KRV_XML_API
#elif defined(KRV_XML_BUILDING)
#define KRV_XML_API __attribute__((visibility("default")))
#else
#define KRV_XML_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ===== Result codes ===================================================== */

#define KRV_XML_OK                   0x00000000u
/* A required argument is null, empty or out of range; a node of a kind or in a
 * place that the function refuses; a value text that cannot be read as the
 * requested type; a node without a name met while printing. */
#define KRV_XML_ERR_INVALID_PARAM    0x1F000701u
/* The element already has an attribute with the same prefix and name. */
#define KRV_XML_ERR_ALREADY_EXISTS   0x1F000702u
/* No attribute answers the prefix and name, the attribute list has no further
 * entry, or no node answers a path. */
#define KRV_XML_ERR_NOT_FOUND        0x1F000703u
/* A heap or session allocation failed. */
#define KRV_XML_ERR_NO_MEMORY        0x1F000704u
/* The XML text is not accepted, or anything failed inside a parse; an empty
 * file. Example: "<a>x<b/></a>" (text beside a child element). */
#define KRV_XML_ERR_SYNTAX           0x1F000705u
/* A path index stands where none is allowed ("root.2"), or is 0. */
#define KRV_XML_ERR_URL_NOT_FOUND    0x1F000706u
/* A file could not be opened. */
#define KRV_XML_ERR_FILE_OPEN        0x1F000707u
/* A file could not be written whole. */
#define KRV_XML_ERR_FILE_WRITE       0x1F000708u
/* A file could not be read whole. */
#define KRV_XML_ERR_FILE_READ        0x1F000709u
/* The caller's buffer is too small. */
#define KRV_XML_ERR_BUFFER_TOO_SMALL 0x1F00070Au

/* ===== Node kinds and typed value codes ================================= */

#define KRV_XML_NODE_ELEMENT   0
#define KRV_XML_NODE_ATTRIBUTE 1
#define KRV_XML_NODE_DOCUMENT  12

#define KRV_XML_VALUE_BOOL   0u /* uint32_t: 0 false, anything else true  */
#define KRV_XML_VALUE_INT32  1u /* int32_t  */
#define KRV_XML_VALUE_UINT32 2u /* uint32_t */
#define KRV_XML_VALUE_INT16  3u /* int16_t  */
#define KRV_XML_VALUE_UINT16 4u /* uint16_t */
#define KRV_XML_VALUE_INT8   5u /* int8_t   */
#define KRV_XML_VALUE_UINT8  6u /* uint8_t  */

/* ===== The node record ================================================== */

/* A memory session: an arena of chained blocks. Opaque; the only way to get
 * one is the `mem` field of a node of a session document. */
typedef struct XmlMemSession XmlMemSession;

#define KRV_XML_NAME_SLOTS     10
#define KRV_XML_NAME_SLOT_SIZE 12

/* One record type for documents, elements and attributes. The fields are
 * public for reading (in particular `mem`, to pass a document's session to
 * KRV_XML_CreateNodeEx); change a tree only through the functions below.
 *
 * Attribute records are allocated at a shorter size and end after `next`:
 * never read `prev`, `firstChild`, `lastChild`, `firstAttr` or `nameTable`
 * of an attribute. Only document records have `nameTable`. */
typedef struct XmlNode {
    XmlMemSession *mem;      /* session the record was carved from; null: heap */
    char *name;              /* local name, without prefix; may be null        */
    char *value;             /* text content or attribute value; may be null   */
    char *nsPrefix;          /* namespace prefix before ':'; null when none     */
    uint8_t kind;            /* KRV_XML_NODE_*                                  */
    uint8_t ownsSession;     /* 1 on documents                                  */
    uint8_t nameOwned;       /* 1 when `name` is released with the record       */
    uint8_t valueOwned;      /* 1 when `value` is released with the record      */
    struct XmlNode *parent;  /* parent element; for an attribute, its owner     */
    struct XmlNode *next;    /* next sibling; for an attribute, next attribute  */
    /* ---- attribute records end here ---- */
    struct XmlNode *prev;
    struct XmlNode *firstChild;
    struct XmlNode *lastChild;
    struct XmlNode *firstAttr;
    /* ---- element records end here ---- */
    char nameTable[KRV_XML_NAME_SLOTS][KRV_XML_NAME_SLOT_SIZE];
} XmlNode;

/* ===== Creating, setting and releasing nodes ============================ */

/* Makes a detached heap node of `kind` KRV_XML_NODE_ELEMENT or
 * KRV_XML_NODE_DOCUMENT with copies of the non-empty strings among prefix,
 * name and value (null or "" leaves a field null). A document made here is a
 * heap document. The caller owns *out and releases it with KRV_XML_FreeNode.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (other kind, out null);
 * KRV_XML_ERR_NO_MEMORY (nothing allocated, *out untouched). */
KRV_XML_API uint32_t KRV_XML_CreateNode(int32_t kind, const char *prefix, const char *name,
                                        const char *value, XmlNode **out);

/* As KRV_XML_CreateNode, with sessions. Kind KRV_XML_NODE_DOCUMENT begins a
 * new 8192-byte memory session owned by the new document (`session` is not
 * used). Kind KRV_XML_NODE_ELEMENT carves the element and its strings from
 * `session` when it is non-null (pass doc->mem to make a node for that
 * document; releasing such a node alone frees nothing, it goes with the
 * session), else behaves as KRV_XML_CreateNode.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM; KRV_XML_ERR_NO_MEMORY. */
KRV_XML_API uint32_t KRV_XML_CreateNodeEx(XmlMemSession *session, int32_t kind, const char *prefix,
                                          const char *name, const char *value, XmlNode **out);

/* Changes a node's strings. For each of prefix, name, value: null leaves the
 * field; "" clears it (its old string released); other text replaces it with
 * a copy made in the regime of the node's tree.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (node null);
 * KRV_XML_ERR_NO_MEMORY (no field replaced; fields given as "" stay cleared). */
KRV_XML_API uint32_t KRV_XML_SetNode(XmlNode *node, const char *prefix, const char *name,
                                     const char *value);

/* Takes an element or document out of its tree without releasing it; it
 * becomes a detached tree of the caller's, with its attributes and children.
 * A node of a session document stays in that session and must not be used
 * after the document is released. In either regime, names that moved into a
 * document's name table (see the insertion functions and attribute editing)
 * stay in that document's record: a node whose name, or whose attributes' or
 * descendants' names, lie there must not be used after that document is
 * released, even once it is linked into another tree (a name in a table
 * never moves again).
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (null, not linked, or an
 * attribute record: use KRV_XML_RemoveAttr). */
KRV_XML_API uint32_t KRV_XML_RemoveNode(XmlNode *node);

/* Releases a node with its attributes and descendants, after taking it out of
 * its tree (never its former siblings). A session document ends its session;
 * a node carved from a session frees nothing by itself. An attribute record is
 * taken out of its owner's list and released. A heap document parsed with
 * further top-level elements releases every record that follows it, while it
 * still heads them (no `prev`, and its `next` not cut since the parse); a
 * sibling linked to any other document stays behind, detached, as siblings
 * of other records do. Null: nothing happens. */
KRV_XML_API void KRV_XML_FreeNode(XmlNode *node);

/* Releases text handed out by the library (the transforms). Null is fine. */
KRV_XML_API void KRV_XML_FreeMem(void *ptr);

/* ===== Navigation and attribute reading ================================ */
/* (tree walking: parent, children, siblings, attributes, document order)
 *
 * Nothing here changes a tree or allocates. Nodes and strings handed out are
 * the tree's own: do not release them; they stay valid until the node is
 * changed or released. An attribute record (kind KRV_XML_NODE_ATTRIBUTE) has
 * no child list, previous sibling or attribute list: the getters for those
 * answer null for it, and the functions below that need an element refuse it
 * with KRV_XML_ERR_INVALID_PARAM.
 *
 * Attributes are identified by prefix and name together, compared byte for
 * byte: a null prefix finds only an attribute without prefix, and a "" prefix
 * finds none (no attribute has an empty prefix), so the attributes written
 * a:x, b:x and x are three different ones. A prefix and name handed out by
 * these functions may be passed straight back. */

/* The parent of node; for an attribute, the element that owns it. Null for a
 * null node or a root. */
KRV_XML_API XmlNode *KRV_XML_GetNodeParent(XmlNode *node);

/* The first child of node; null when it has none, or node is null or an
 * attribute. Attributes are never children. */
KRV_XML_API XmlNode *KRV_XML_GetNodeFirstChild(XmlNode *node);

/* The last child of node; null when it has none, or node is null or an
 * attribute. */
KRV_XML_API XmlNode *KRV_XML_GetNodeLastChild(XmlNode *node);

/* The next sibling of node; for an attribute, the next attribute of the same
 * element. Null at the end of the list or for a null node. */
KRV_XML_API XmlNode *KRV_XML_GetNodeNextSibling(XmlNode *node);

/* The previous sibling of node; null for the first one, or when node is null
 * or an attribute (attribute lists are linked forward only). */
KRV_XML_API XmlNode *KRV_XML_GetNodePrevSibling(XmlNode *node);

/* Writes to *count the number of children of node (attributes not counted).
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (node or count null, or node
 * an attribute; *count untouched). */
KRV_XML_API uint32_t KRV_XML_GetNodeChildNum(XmlNode *node, uint32_t *count);

/* Reads a node's strings and kind: each non-null out argument receives
 * nsPrefix, name, value (each may be null) or the kind (KRV_XML_NODE_*).
 * Every out argument is optional; works for attributes too.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (node null). */
KRV_XML_API uint32_t KRV_XML_GetNodeValue(XmlNode *node, int32_t *kind, const char **prefix,
                                          const char **name, const char **value);

/* Writes to *value the value of the element's attribute prefix:name (null
 * when the attribute has no value). prefix may be null (no prefix).
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (element, name or value null,
 * or element an attribute); KRV_XML_ERR_NOT_FOUND (no such attribute). */
KRV_XML_API uint32_t KRV_XML_GetAttr(XmlNode *element, const char *prefix, const char *name,
                                     const char **value);

/* Writes the prefix, name and value of the element's first attribute (each
 * may be null, except the name of an attribute made by this library).
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (any argument null, or
 * element an attribute); KRV_XML_ERR_NOT_FOUND (no attributes; nothing
 * written). Walk on with KRV_XML_GetNextSiblingAttr. */
KRV_XML_API uint32_t KRV_XML_GetFirstAttr(XmlNode *element, const char **prefix,
                                          const char **name, const char **value);

/* As KRV_XML_GetFirstAttr; when cursor is non-null it also receives the first
 * attribute record, a cursor for KRV_XML_GetNextSiblingAttrEx.
 * Results: as KRV_XML_GetFirstAttr (the cursor may be null). */
KRV_XML_API uint32_t KRV_XML_GetFirstAttrEx(XmlNode *element, const char **prefix,
                                            const char **name, const char **value,
                                            XmlNode **cursor);

/* Finds the element's attribute prefix:name (prefix null: none) and
 * writes the prefix, name and value of the attribute after it. Each call
 * searches from the start of the list, so a walk over n attributes this way
 * costs n*n; prefer KRV_XML_GetNextSiblingAttrEx for long lists.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (element, name or an out
 * argument null, or element an attribute); KRV_XML_ERR_NOT_FOUND (no such
 * attribute, or it is the last one; nothing written). */
KRV_XML_API uint32_t KRV_XML_GetNextSiblingAttr(XmlNode *element, const char *prefix,
                                                const char *name, const char **outPrefix,
                                                const char **outName, const char **outValue);

/* Steps an attribute cursor: when *cursor is null it moves to the element's
 * first attribute, otherwise to the attribute after *cursor. The new position
 * is stored in *cursor, null after the last attribute, so that a call after
 * KRV_XML_ERR_NOT_FOUND starts over. The prefix, name and value of the new
 * position are written on success. The cursor should be an attribute record
 * of this element (from this function or KRV_XML_GetFirstAttrEx) or null;
 * neither its kind nor its membership is checked: the step always follows
 * the cursor's own `next`.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (any argument null, or
 * element an attribute; nothing written);
 * KRV_XML_ERR_NOT_FOUND (no further attribute; *cursor set to null). */
KRV_XML_API uint32_t KRV_XML_GetNextSiblingAttrEx(XmlNode *element, const char **prefix,
                                                  const char **name, const char **value,
                                                  XmlNode **cursor);

/* The next element or document after node in document order (pre-order:
 * first child, else the next sibling of the nearest ancestor-or-self that has
 * one), or null at the end of the tree. The walk is not bounded by node's
 * sub-tree. Null or an attribute record gives null. Constant stack. */
KRV_XML_API XmlNode *KRV_XML_Iterator(XmlNode *node);

/* ===== Inserting nodes ================================================== */
/* (linking detached nodes as children or siblings)
 *
 * These functions link an existing detached node (no parent, no siblings: just
 * created, copied, or taken out with KRV_XML_RemoveNode) into a tree, with its
 * attributes and descendants. They copy nothing and allocate nothing; the node
 * is then released with the tree that holds it.
 *
 * Memory regimes are never mixed: the node's `mem` must equal the `mem` of the
 * top record of the tree it joins. Nodes for a session document are therefore
 * made with KRV_XML_CreateNodeEx(doc->mem, ...) or copied from that document
 * (KRV_XML_CloneNode); nodes for a heap tree are made with KRV_XML_CreateNode
 * or copied from a heap tree.
 *
 * When the tree is headed by a document without siblings, the node's own name
 * (not those of its attributes or descendants) moves into the document's name
 * table: the first ten distinct names of at most 11 bytes take a slot each,
 * equal names share it, and the node's former name string is released. The
 * slots lie inside the document record, so the name stays valid only while
 * that document lives, also after the node is taken out (KRV_XML_RemoveNode).
 *
 * Every refusal is KRV_XML_ERR_INVALID_PARAM and changes nothing. */

/* Links node as the first child of parent (an element or document).
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM when parent or node is null,
 * node is an attribute, a document with a memory session, or not detached,
 * parent is an attribute, parent is node or lies below it, or node's `mem`
 * differs from that of the top record of parent's tree. When that top record
 * has siblings (a heap tree) the link is made and nothing is interned; the
 * result is KRV_XML_OK. */
KRV_XML_API uint32_t KRV_XML_AddFirstChildNode(XmlNode *parent, XmlNode *node);

/* Links node as the last child of parent. Results: as
 * KRV_XML_AddFirstChildNode. */
KRV_XML_API uint32_t KRV_XML_AppendChildNode(XmlNode *parent, XmlNode *node);

/* Links node directly after sibling, under sibling's parent (none when sibling
 * is a root: then node becomes a second top-level node, which only a heap tree
 * may have; nothing is interned then).
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM when sibling or node is null,
 * they are the same record, either is an attribute, node is a document (any
 * kind of document) or not detached, sibling is a document with a memory
 * session or any other root carved from a session (a session tree keeps a
 * single root), sibling lies below node, or node's `mem` differs from that of
 * the top record of sibling's tree. */
KRV_XML_API uint32_t KRV_XML_AddNextSiblingNode(XmlNode *sibling, XmlNode *node);

/* Links node directly before sibling. Results: as
 * KRV_XML_AddNextSiblingNode. */
KRV_XML_API uint32_t KRV_XML_AddPrevSiblingNode(XmlNode *sibling, XmlNode *node);

/* ===== Attribute editing ================================================ */
/* (adding, changing and removing attributes)
 *
 * The element is an element or document record; an attribute record is
 * refused with KRV_XML_ERR_INVALID_PARAM. A null or "" prefix means no prefix.
 * Strings passed in are copied in the regime of the element's tree: from its
 * document's memory session when it has one, from the heap otherwise. In a
 * tree headed by a document, the attribute's name moves into the document's
 * name table as for inserted nodes.
 *
 * Cost: the first of these calls (or of KRV_XML_SetAttrValueEx, of
 * KRV_XML_FreeNode on an attribute, or of a search by KRV_XML_GetAttr,
 * KRV_XML_GetNextSiblingAttr or KRV_XML_GetAttrValueEx) that meets a list
 * longer than 16 attributes gives the element a hash index of it; from then
 * on each of these calls costs O(1) on average however long the list is, so
 * reading every attribute of a parsed list by name costs O(n), not O(n^2).
 * Without memory for the index a call walks the list, with the same result.
 * The index takes 48 to 192 bytes of heap per attribute in the list, is given
 * up when the list is down to 8 attributes, and goes with the element, or
 * with its session. */

/* Appends a new attribute prefix:name with a copy of value (null or "": no
 * value) to the element's attribute list.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (element null or an
 * attribute, name null or "", or the top record of the element's tree has
 * siblings); KRV_XML_ERR_NO_MEMORY; KRV_XML_ERR_ALREADY_EXISTS (the element
 * has an attribute with this prefix and name; checked after the new record
 * and its strings are made, so an allocation failure is reported first).
 * On every failure the list is unchanged; in a heap tree nothing is left
 * allocated, in a session tree the refused record stays in the session until
 * it ends. */
KRV_XML_API uint32_t KRV_XML_AddAttr(XmlNode *element, const char *prefix, const char *name,
                                     const char *value);

/* Replaces the value of the element's existing attribute prefix:name with a
 * copy of value; null or "" clears it. The attribute keeps its place.
 * Results: KRV_XML_OK (also when the top record of the tree has siblings: the
 * new value is stored, nothing is interned); KRV_XML_ERR_INVALID_PARAM
 * (element null or an attribute, name null); KRV_XML_ERR_NOT_FOUND (no such
 * attribute); KRV_XML_ERR_NO_MEMORY (the old value stays). */
KRV_XML_API uint32_t KRV_XML_SetAttr(XmlNode *element, const char *prefix, const char *name,
                                     const char *value);

/* Takes the element's attribute prefix:name out of its list and releases it
 * (in a session tree its memory goes with the session).
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (element null or an
 * attribute, name null); KRV_XML_ERR_NOT_FOUND (no such attribute). */
KRV_XML_API uint32_t KRV_XML_RemoveAttr(XmlNode *element, const char *prefix, const char *name);

/* ===== Cloning ========================================================== */
/* (copying a node, or a node with its sub-tree)
 *
 * A copy is detached (no parent, no siblings) and has fresh copies of the
 * source's prefix, name and value (the copy owns its name even when the
 * source's name lies in a name table) and of its attributes, in order. Names
 * are not interned while copying; they are when the copy is inserted into a
 * document. The source is only read, but a copy made in the source's session
 * grows that session: keep other uses of the source's tree out meanwhile.
 *
 * Memory regime of the copy:
 *   - the source's tree is a heap tree: the copy is on the heap and
 *     independent of the source;
 *   - the source is an element of a session tree: the copy is carved from that
 *     same session; releasing it frees nothing, it goes when the session ends,
 *     and it may be inserted into that session's tree only;
 *   - the source is a document with a memory session: the copy is a document
 *     with a new session of its own, independent of the source;
 *     KRV_XML_FreeNode on the copy ends that session.
 * The caller owns the copy and releases it with KRV_XML_FreeNode. *out is
 * written only on success; after a failure nothing of the copy is left. */

/* Copies source with its attributes, without its children.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (source or out null, source
 * an attribute, or the top record of source's tree has siblings);
 * KRV_XML_ERR_NO_MEMORY. */
KRV_XML_API uint32_t KRV_XML_CloneNodeSelf(XmlNode *source, XmlNode **out);

/* Copies source with its attributes and its whole sub-tree (never its
 * siblings), at any depth with constant stack.
 * Results: as KRV_XML_CloneNodeSelf; also KRV_XML_ERR_INVALID_PARAM for a
 * document record below the top of a session tree (which this library never
 * builds). */
KRV_XML_API uint32_t KRV_XML_CloneNode(XmlNode *source, XmlNode **out);

/* ===== Typed values ===================================================== */
/* (values as booleans and 8-, 16- and 32-bit integers) */

/* Texts written and read, by type code (the caller's variable has exactly the
 * type's width: 4, 4, 4, 2, 2, 1 or 1 bytes):
 *   KRV_XML_VALUE_BOOL    uint32_t; writes "true" (any non-zero) or "false";
 *                         reads exactly "true" or "1" as 1, "false" or "0" as 0
 *   KRV_XML_VALUE_INT32   int32_t,  -2147483648 .. 2147483647
 *   KRV_XML_VALUE_UINT32  uint32_t, 0 .. 4294967295
 *   KRV_XML_VALUE_INT16   int16_t,  -32768 .. 32767
 *   KRV_XML_VALUE_UINT16  uint16_t, 0 .. 65535
 *   KRV_XML_VALUE_INT8    int8_t,   -128 .. 127
 *   KRV_XML_VALUE_UINT8   uint8_t,  0 .. 255
 * Integers are written in decimal ("-128", "255"). The reader is strict: one
 * optional '-' or '+' for the signed types only, then decimal digits and
 * nothing else (no white space, no other bases, no point or exponent);
 * leading zeros are skipped ("0001" is 1, "-0" is 0), more than 24 digits
 * after them are refused, and the value must lie in the type's range. Every
 * text the writer makes reads back as the value written. */

/* Writes *value, read at the width of `type`, as the node's value text. The
 * node may be an element, a document or an attribute. An old value the node
 * owns is released first; one it does not own is only dropped. The new text
 * is a copy made in the regime of the node's tree and is owned by the node.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (node or value null, type
 * above KRV_XML_VALUE_UINT8; nothing changed); KRV_XML_ERR_NO_MEMORY (the
 * node's value is null afterwards: the old text is already gone). */
KRV_XML_API uint32_t KRV_XML_SetNodeValueEx(XmlNode *node, uint32_t type, const void *value);

/* Reads the node's value text as `type` into *out, written at exactly the
 * type's width and only on success. The node may be an element, a document or
 * an attribute.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (node or out null, type
 * above KRV_XML_VALUE_UINT8, the node has no value, or its text is not a
 * value of that type). */
KRV_XML_API uint32_t KRV_XML_GetNodeValueEx(XmlNode *node, uint32_t type, void *out);

/* Writes *value as the value of the element's attribute prefix:name (prefix
 * null: an attribute without prefix), as KRV_XML_SetNodeValueEx does. When
 * there is no such attribute it is made and appended as the element's last
 * attribute, its record and strings in the regime of the element's tree; in a
 * document its name may move into the document's name table. The element is
 * an element or document record.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (element, name or value
 * null, empty name, type above KRV_XML_VALUE_UINT8, an attribute record given
 * as the element, or the attribute is missing and the top of the element's
 * tree has a sibling; nothing changed); KRV_XML_ERR_ALREADY_EXISTS (the
 * attribute was missing under the given prefix but the new record, whose
 * empty prefix counts as none, equals an existing one; nothing changed);
 * KRV_XML_ERR_NO_MEMORY (a new attribute is not added; an existing one has a
 * null value afterwards). A new attribute's record and strings are made
 * before the type code is read and before the duplicate test, so an
 * allocation failure is reported first; in a session tree a refused record
 * stays in the session until it ends. */
KRV_XML_API uint32_t KRV_XML_SetAttrValueEx(XmlNode *element, const char *prefix, const char *name,
                                            uint32_t type, const void *value);

/* Reads the value of the element's attribute prefix:name (prefix null: an
 * attribute without prefix) as `type` into *out, as KRV_XML_GetNodeValueEx
 * does. An empty prefix or name is looked up like any other and never found.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (element, name or out null,
 * type above KRV_XML_VALUE_UINT8, an attribute record given as the element,
 * an attribute without value, or a text that is not a value of that type);
 * KRV_XML_ERR_NOT_FOUND (no such attribute). *out is written on success only. */
KRV_XML_API uint32_t KRV_XML_GetAttrValueEx(XmlNode *element, const char *prefix, const char *name,
                                            uint32_t type, void *out);

/* ===== Path lookup ====================================================== */
/* (finding a node by a dotted path) */

/* Finds a node by a path of dot-separated segments, the first of which names
 * `start` itself; each further name segment goes down to the first child of
 * that name, and a segment of digits n after a name segment picks the n-th
 * child of that name instead of the first (counting only children of that
 * name; "01" is 1). Example: "config.server.2" is the second child named
 * server of a start node named config.
 * A segment "name" matches a node by its local name whatever its prefix;
 * "p:name" matches a node with prefix p and name name, or a node without
 * prefix whose name is "p:name". Runs of dots count as one, dots at either end
 * are ignored, and "\." stands for a dot inside a name (the backslash goes;
 * any other backslash stays). The path is at most 511 bytes; the caller's
 * string is never changed, nothing is allocated and the tree is only read.
 * On success *out is the node found, which belongs to the tree.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (start, url or out null,
 * empty url, url longer than 511 bytes, or start is an attribute record);
 * KRV_XML_ERR_NOT_FOUND (only dots, the first segment does not match start, no
 * child answers a name segment, an index of more than 9 digits, fewer children
 * of that name than the index); KRV_XML_ERR_URL_NOT_FOUND (an index right
 * after the first segment or after another index, or an index of 0).
 * *out is written on success only. */
KRV_XML_API uint32_t KRV_XML_GetNodeByUrl(XmlNode *start, const char *url, XmlNode **out);

/* ===== Parsing and file functions ======================================= */
/* (text or files to trees; the replaceable file functions) */

/* The replaceable file functions, with the parameter lists and meanings of
 * the C runtime's fopen, fseek, fclose, fread and ftell. */
typedef FILE *(*KrvXmlFopenFn)(const char *path, const char *mode);
typedef int (*KrvXmlFseekFn)(FILE *file, long offset, int origin);
typedef int (*KrvXmlFcloseFn)(FILE *file);
typedef size_t (*KrvXmlFreadFn)(void *buffer, size_t size, size_t count, FILE *file);
typedef long (*KrvXmlFtellFn)(FILE *file);

/* Accepted text, read as bytes: an optional XML declaration ("<?xml " exactly,
 * case-sensitive; any other "<?...?>" is an instruction), comments,
 * processing instructions and one "<!DOCTYPE ...>" before the root, all
 * stepped over; elements with attributes; text only directly after a start
 * tag and only in elements without child elements (mixed content is
 * refused); CDATA sections; the entities &amp; &lt; &gt; &apos; &quot;;
 * character references "&#65;" and "&#x41;" (lower-case x) to characters
 * allowed in XML, written out in UTF-8. Of the white space that begins a
 * text, only the SPACE bytes after its last TAB, LF or CR are kept (" \tx"
 * reads "x", "\t x" reads " x"); trailing white space is kept; content of
 * white space alone is kept whole ("<a> \n</a>" reads " \n"). A text must be
 * followed by its end tag, comments and instructions between them being
 * stepped over ("<a>x<!--c-->y</a>" is refused). A name "p:x" gets nsPrefix
 * "p" and name "x". The text ends at its first NUL.
 * Refused: unterminated comments, instructions, declarations and CDATA
 * sections anywhere (also after the root), "<!-->", a text that ends while
 * an element is open, an attribute repeated with the same prefix and name,
 * any single name, value or text of 2^31 bytes or more.
 *
 * Several top-level elements: the heap entry points (KRV_XML_Parse,
 * KRV_XML_ParseFile) accept them; the document record is the first and the
 * others follow it through `next`, with a null `parent`, and KRV_XML_FreeNode
 * on the document releases them all. The session entry points
 * (KRV_XML_ParseEx, KRV_XML_ParseFileEx) refuse a second top-level element
 * with KRV_XML_ERR_SYNTAX.
 *
 * No stack is used in proportion to nesting depth or attribute count. */

/* Parses a NUL-terminated text into a heap document: every record and string
 * is a heap block of its own. text is only read and may be released as soon
 * as the call returns. On success *out is the document record (it is the
 * root element); the caller releases it with KRV_XML_FreeNode.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (text or out null, or text
 * empty; *out untouched); KRV_XML_ERR_NO_MEMORY (the parser state or the
 * document record could not be allocated); KRV_XML_ERR_SYNTAX (the text is
 * not accepted, or any later allocation failed). After the argument checks
 * *out is set to null, so it is null on every failure but the first. */
KRV_XML_API uint32_t KRV_XML_Parse(const char *text, XmlNode **out);

/* As KRV_XML_Parse, but the document lives in a new memory session begun
 * with 8192 bytes: every record and string is carved from it, and
 * KRV_XML_FreeNode on the document ends it. A second top-level element is
 * refused (KRV_XML_ERR_SYNTAX). Results as KRV_XML_Parse;
 * KRV_XML_ERR_NO_MEMORY also when the session cannot be begun. */
KRV_XML_API uint32_t KRV_XML_ParseEx(const char *text, XmlNode **out);

/* Loads the file at path whole through the registered file functions (open
 * with mode "rb", seek to the end, tell, seek to the start, one read, close)
 * and parses it as KRV_XML_Parse does. The buffer is released before the
 * call returns. On failure *out keeps whatever the caller put there.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (path or out null);
 * KRV_XML_ERR_FILE_OPEN (open failed); KRV_XML_ERR_FILE_READ (the size query
 * answered negative or 4 GiB or more, the seek back failed or the read was
 * short; no buffer is made for a refused size); KRV_XML_ERR_SYNTAX (empty
 * file, or the text is not accepted); KRV_XML_ERR_NO_MEMORY. */
KRV_XML_API uint32_t KRV_XML_ParseFile(const char *path, XmlNode **out);

/* As KRV_XML_ParseFile, into a new 8192-byte memory session as
 * KRV_XML_ParseEx. *out is set to null once the arguments passed their
 * checks. Results as KRV_XML_ParseFile. */
KRV_XML_API uint32_t KRV_XML_ParseFileEx(const char *path, XmlNode **out);

/* Replaces the five file functions used by every later file parse in the
 * process. Not synchronised: register before any thread parses a file.
 * KRV_XML_RegFileFunc(fopen, fseek, fclose, fread, ftell) restores the
 * defaults. Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (any argument
 * null; the registered functions are kept). */
KRV_XML_API uint32_t KRV_XML_RegFileFunc(KrvXmlFopenFn openFn, KrvXmlFseekFn seekFn,
                                         KrvXmlFcloseFn closeFn, KrvXmlFreadFn readFn,
                                         KrvXmlFtellFn tellFn);

/* Flag for the reporting parse functions: build the document in a memory
 * session (as KRV_XML_ParseEx). Without it the document is a heap document. */
#define KRV_XML_PARSE_SESSION 0x1u

/* Where and why a parse stopped, filled by the reporting parse functions. */
typedef struct KrvXmlParseInfo {
    uint32_t result;     /* the result code the call returned                  */
    uint64_t offset;     /* byte offset in the text where the parse stopped;
                            the length parsed on success; 0 when the failure
                            has no place in the text (arguments, memory for the
                            parser state, loading a file)                     */
    uint32_t line;       /* 1-based line of offset (lines end at LF); 0 when
                            the failure has no place in the text              */
    uint32_t column;     /* 1-based column of offset, counted in bytes; 0 as
                            for line                                          */
    const char *reason;  /* short constant text, "ok" on success; static, never
                            released                                          */
} KrvXmlParseInfo;

/* Parses text exactly as KRV_XML_Parse (flags 0) or KRV_XML_ParseEx (flags
 * KRV_XML_PARSE_SESSION): same results, *out and memory behaviour. When info
 * is non-null it receives the result, stopping offset, line, column and a
 * reason on every return, failures included. Other flag bits give
 * KRV_XML_ERR_INVALID_PARAM with *out untouched. */
KRV_XML_API uint32_t KRV_XML_ParseWithInfo(const char *text, uint32_t flags, XmlNode **out,
                                           KrvXmlParseInfo *info);

/* As KRV_XML_ParseFile (flags 0: *out untouched on failure) or
 * KRV_XML_ParseFileEx (KRV_XML_PARSE_SESSION), reporting into info (may be
 * null) as KRV_XML_ParseWithInfo. Offsets count bytes of the file. */
KRV_XML_API uint32_t KRV_XML_ParseFileWithInfo(const char *path, uint32_t flags, XmlNode **out,
                                               KrvXmlParseInfo *info);

/* ===== Printing ========================================================= */
/* (trees back to XML text, as a string or a file) */

/* Output format shared by the transforms. The text of a sub-tree is compact
 * and line-oriented: no XML declaration, no indentation, nodes in document
 * order, and a line feed after each start tag of an element with children,
 * after each leaf element and after each end tag. Documents print as
 * elements; a node of any other kind than element, attribute or document
 * writes nothing where it is reached. Names print as prefix ":" name when
 * the prefix is non-null (an empty prefix too).
 *   - an element with children: "<name attrs>", its children, "</name>"; its
 *     own value, if any, is not written;
 *   - a leaf with a value (the empty string too): "<name attrs>value</name>";
 *   - a leaf with a null value: "<name attrs/>".
 * Attributes print as name="value" separated by single spaces; a null value
 * gives name="". Values are escaped: " ' < > become &quot; &apos; &lt; &gt;,
 * and an ampersand becomes &amp; unless a well-formed reference begins there
 * (&lt; &gt; &amp; &apos; &quot;, "&#" decimal digits ";" or "&#x"
 * hexadecimal digits ";" up to 0x10FFFF, digits optional), which is kept as
 * it stands. All other bytes pass unchanged.
 *
 * The top node's parent, next and prev are cleared for the length of the call
 * (the sub-tree is printed alone) and restored before it returns, on every
 * path. The tree must not be used by another thread meanwhile. Deep trees
 * and long attribute lists cost no stack.
 *
 * Results of every transform: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (top or
 * out null, top an attribute record, or a node of the sub-tree with a null
 * name, or an attribute with a null name where attributes are written: the
 * partial text is discarded); KRV_XML_ERR_NO_MEMORY (only when the heap
 * cannot give the text's length plus one byte: a refused growth is asked
 * again at smaller sizes, down to the exact one). On success *out is null
 * when nothing was written. On failure *out is not written and nothing stays
 * allocated. */

/* The whole text of top's sub-tree (top: an element or document). On success
 * *out is the NUL-terminated text, from the heap, the caller's to release with
 * KRV_XML_FreeMem (null when nothing was written). Example: config with the
 * attribute version="2" and the leaf children port (value 8080) and item (no
 * value) gives
 *   <config version="2">\n<port>8080</port>\n<item/>\n</config>\n */
KRV_XML_API uint32_t KRV_XML_Transform(XmlNode *top, char **out);

/* The head of a frame: as KRV_XML_Transform, except that no end tags of
 * elements with children are written, and a leaf with a null value and no
 * next sibling is left open ("<name attrs>"). The caller streams its own
 * content after the head and closes it with KRV_XML_TransformTail.
 *
 * Head and tail together frame a well-formed document exactly when top has
 * children, every element with children lies on the chain of last children
 * from top, and the last element of that chain has a null value; its content
 * then goes between the two. When that last element has a value, the head
 * writes it whole ("<name>value</name>") and the tail still writes its end
 * tag, so the pair holds one end tag too many.
 * On success *out is the text (release with KRV_XML_FreeMem). Results above. */
KRV_XML_API uint32_t KRV_XML_TransformHead(XmlNode *top, char **out);

/* The tail of a frame: end tags only, one per line. For every leaf that is
 * the last child of its parent, in document order: the leaf's end tag, then
 * that of its parent, and so on up while the element just closed is its
 * parent's last child, at most up to top. On the chain of last children from
 * top this closes the last leaf and then each of its ancestors up to top,
 * innermost first; off the chain it closes more, e.g. a with the children
 * b (child c) and d gives "</c>\n</b>\n</d>\n</a>\n". Attributes are not
 * read. When top has no children nothing is written: the result is
 * KRV_XML_OK and *out is set to null. Otherwise *out is the text (release
 * with KRV_XML_FreeMem). Results above. */
KRV_XML_API uint32_t KRV_XML_TransformTail(XmlNode *top, char **out);

/* Writes the whole text of top's sub-tree (as KRV_XML_Transform) to the file
 * at path, without a NUL. The text is built in memory first; only then is the
 * file opened with the runtime's fopen in mode "w+" (created or truncated)
 * and written with a single fwrite. A failure while building the text never
 * creates or touches the file. The file functions registered for parsing are
 * not used. The result of closing the file is not looked at. A top node of
 * another kind than element or document gives an empty text, which counts
 * as an incomplete write: the file is created or truncated and the result is
 * KRV_XML_ERR_FILE_WRITE.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (top or path null, top an
 * attribute record, a null name in the sub-tree); KRV_XML_ERR_NO_MEMORY;
 * KRV_XML_ERR_FILE_OPEN (file not opened); KRV_XML_ERR_FILE_WRITE (the
 * write or its flush did not complete, as on a full disk; the file keeps
 * what was written). */
KRV_XML_API uint32_t KRV_XML_TransformFile(XmlNode *top, const char *path);

/* ===== Library services ================================================= */

/* Writes the version text "KRV XML 2.1.9" and its NUL (14 bytes) to buffer.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (buffer null);
 * KRV_XML_ERR_BUFFER_TOO_SMALL (size below 14, buffer untouched). */
KRV_XML_API uint32_t KRV_XML_GetVersion(char *buffer, uint32_t size);

typedef void (*KrvXmlDebugFn)(const char *text);
typedef void *(*KrvXmlMallocFn)(size_t size);
typedef void (*KrvXmlFreeFn)(void *ptr);

/* Kept for compatibility: the library has no debug output. Reads nothing,
 * registers nothing. Result: always KRV_XML_ERR_NOT_FOUND. */
KRV_XML_API uint32_t KRV_XML_RegDebugFunc(KrvXmlDebugFn fn);

/* Kept for compatibility: the library has no replaceable allocator. Reads
 * nothing, registers nothing. Result: always KRV_XML_OK. */
KRV_XML_API uint32_t KRV_XML_RegMemFunc(KrvXmlMallocFn mallocFn, KrvXmlFreeFn freeFn);

#ifdef __cplusplus
}
#endif

#endif /* KRV_XML_H */
