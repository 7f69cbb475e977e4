/*
 * KRV XML: functions the library also shows to other components of the kit.
 * Applications use krv_xml.h; these are the building blocks underneath it:
 * allocation routing, memory sessions, raw node records, the file forwarders
 * and the growable output buffer.
 */
#ifndef KRV_XML_COMPONENT_H
#define KRV_XML_COMPONENT_H

#include "krv_xml.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ===== Memory sessions ================================================== */

/* Begins a session with one zero-filled block of `size` data bytes.
 * Returns the session, or null when size <= 0 or the allocation failed. */
KRV_XML_API XmlMemSession *XML_MemSessionBegin(int32_t size);

/* Carves `n` zero bytes from the session: the oldest block with room serves
 * the request (first fit); when none has room, a new block is appended whose
 * capacity is the last block's, doubled until the request fits. Requests are
 * rounded up to 8 bytes so that records stay aligned. Returns null for a null
 * session, n <= 0, a request above 2^30 bytes, or an allocation failure (the
 * chain is then unchanged). */
KRV_XML_API void *XML_MemSpecialMalloc(XmlMemSession *session, int32_t n);

/* Releases every block of the session. Returns 1, or 0 for a null session. */
KRV_XML_API int32_t XML_MemSessionEnd(XmlMemSession *session);

/* ===== Allocation routing =============================================== */
/* A context node names the tree that memory belongs to. The tree is
 * session-owned when its top record (reached through `parent`, an attribute
 * stepping to its owner) has no siblings and a non-null `mem`; memory for it
 * then comes from that session and is never freed piecewise. Otherwise, and
 * for a null context, the heap is used. */

/* `size` bytes for the context's tree; null on failure (no heap fallback). */
KRV_XML_API void *XML_Malloc(XmlNode *context, uint64_t size);
/* Zero-filled heap memory; null on failure. */
KRV_XML_API void *XML_Calloc(size_t count, size_t size);
/* Releases ptr by the release rule: freed to the heap unless the context's
 * tree is session-owned. Null ptr: nothing. */
KRV_XML_API void XML_Free(XmlNode *context, void *ptr);
/* A copy of text (not null) for the context's tree. Returns null for an empty
 * text (nothing allocated) or on allocation failure. */
KRV_XML_API char *XML_Strdup(XmlNode *context, const char *text);

/* ===== Node records ===================================================== */

/* A zeroed record of the shape for `kind` (12 document, 1 attribute, any
 * other value element), carved from `session` or from the heap when it is
 * null. `kind` is set to 12, 1 or, for any other value, 0 (element); `mem`
 * is the session; a document has ownsSession 1.
 * Returns null on allocation failure. An attribute without owner routes to
 * the heap (see Allocation routing): strings of a session attribute are
 * given with its future tree as context, and replaced only once it is
 * linked, or a session string would be handed to free(). */
KRV_XML_API XmlNode *XML_NewNode(XmlMemSession *session, int32_t kind);

/* Fills prefix, name and value with copies routed by `context` (null: heap).
 * Null or "" inputs leave a field alone. Copies are made first, so a failure
 * (KRV_XML_ERR_NO_MEMORY) leaves the node untouched; replaced strings are
 * released by the release rule. Results: KRV_XML_OK, KRV_XML_ERR_INVALID_PARAM
 * (node null), KRV_XML_ERR_NO_MEMORY. */
KRV_XML_API uint32_t XML_SetNode(XmlNode *context, XmlNode *node, const char *prefix,
                                 const char *name, const char *value);

/* Releases node, every sibling after it, and all their attributes and
 * descendants. A record that owns a session ends it and stops there. Works
 * without recursion at any depth. Null: nothing. */
KRV_XML_API void XML_FreeNode(XmlNode *node);

/* Releases one record and the strings it owns, routed by the record itself;
 * links are neither read nor changed. Null: nothing. */
KRV_XML_API void XML_FreeSingleNode(XmlNode *node);

/* Drops an attribute record that was never completed or linked: does nothing
 * when it is null or carved from a session, else as XML_FreeSingleNode. */
KRV_XML_API void XML_FreeSingleAttrNode(XmlNode *attr);

/* ===== Attribute lists ================================================== */
/* (linking attribute records) */

/* Appends attr (a detached attribute record) to the element's attribute list
 * and sets its parent. Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (either
 * null, or the element is an attribute record); KRV_XML_ERR_ALREADY_EXISTS
 * (an attribute with the same prefix and name is there; nothing changed).
 * The memory regimes are not compared: from then on attr and its strings are
 * routed by the element's tree, so attr must come from where that tree lives
 * (its session, or the heap). A heap attribute in a session tree is never
 * freed; a session attribute in a heap tree would be handed to free(). */
KRV_XML_API uint32_t XML_AddAttrNode(XmlNode *attr, XmlNode *element);

/* ===== File forwarders ================================================== */
/* (the registered file functions, called through the library) */

/* Each calls the function registered with KRV_XML_RegFileFunc (initially the
 * C runtime's fopen, fseek, fclose, fread, ftell) with its arguments
 * unchanged and returns its result. */
KRV_XML_API FILE *XML_Fopen(const char *path, const char *mode);
KRV_XML_API int XML_Fseek(FILE *file, long offset, int origin);
KRV_XML_API int XML_Fclose(FILE *file);
KRV_XML_API size_t XML_Fread(void *buffer, size_t size, size_t count, FILE *file);
KRV_XML_API long XML_Ftell(FILE *file);

/* ===== Growable output buffer =========================================== */
/* (the serializer's NUL-terminated heap buffer) */

/* A growable, NUL-terminated byte buffer whose storage (capacity + 1 bytes)
 * comes from the heap. The record belongs to its user; only `data` is
 * allocated. Empty state: data null, length 0, capacity 0, growStep 1024.
 * While data is non-null, length <= capacity and data[length] is 0.
 *
 * Capacity rule, for a wanted length W: growing (W >= length) keeps the
 * storage while capacity >= W, else the capacity becomes
 * capacity + max(W - length, growStep); shrinking (W < length) keeps the
 * storage while capacity - W <= growStep, else the capacity becomes
 * W + growStep. Growth is additive, not doubling: the first byte appended to
 * an empty buffer gives capacity 1024, length 1025 gives 2048. When the heap
 * refuses the new size, one more attempt is made with exactly W; when that
 * fails too the result is KRV_XML_ERR_NO_MEMORY and the buffer is unchanged.
 * A source may lie inside the buffer's own storage. */
typedef struct XmlMemBuf {
    char *data;        /* storage, capacity + 1 bytes; null when none   */
    uint32_t length;   /* bytes in use, without the terminating NUL       */
    uint32_t capacity; /* usable bytes, without the byte for the NUL      */
    uint32_t growStep; /* least growth, 1024                              */
} XmlMemBuf;

/* Puts the buffer into the empty state without taking storage. Null: nothing. */
KRV_XML_API void XML_MembufInit(XmlMemBuf *buf);

/* Releases the storage and puts the buffer into the empty state; the record
 * itself is not freed. Null: nothing. */
KRV_XML_API void XML_MembufDestroy(XmlMemBuf *buf);

/* Replaces the content with `count` bytes of src, NULs included. A null src
 * releases the storage (empty state). Zero bytes into a buffer without
 * storage take one byte of storage, so that data reads as ""; when the heap
 * refuses that byte, the buffer stays in the empty state (data null) and the
 * result is still KRV_XML_OK.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (buf null);
 * KRV_XML_ERR_NO_MEMORY (buffer unchanged). */
KRV_XML_API uint32_t XML_MemBufAssign(XmlMemBuf *buf, const char *src, uint32_t count);

/* As XML_MemBufAssign with the bytes of str without its NUL; null str
 * releases the storage. Results as XML_MemBufAssign. */
KRV_XML_API uint32_t XML_MemBufAssignStr(XmlMemBuf *buf, const char *str);

/* Appends the one byte *ch, whatever its value. Null ch: nothing, KRV_XML_OK.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (buf null);
 * KRV_XML_ERR_NO_MEMORY (buffer unchanged). */
KRV_XML_API uint32_t XML_MemBufAppend(XmlMemBuf *buf, const char *ch);

/* Inserts `count` bytes of src before the byte at `pos` (pos == length
 * appends). Null src or count 0: nothing, KRV_XML_OK.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (buf null, or pos > length,
 * checked before src); KRV_XML_ERR_NO_MEMORY (allocation failed, or the
 * content would pass 2^32 - 1 bytes; buffer unchanged). */
KRV_XML_API uint32_t XML_MemBufInsert(XmlMemBuf *buf, const char *src, uint32_t count, uint32_t pos);

/* Appends str without its NUL. Null or "": nothing, KRV_XML_OK.
 * Results as XML_MemBufInsert. */
KRV_XML_API uint32_t XML_MemBufAppendStr(XmlMemBuf *buf, const char *str);

#ifdef __cplusplus
}
#endif

#endif /* KRV_XML_COMPONENT_H */
