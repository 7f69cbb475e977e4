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
 * Threads: a tree (with its session) is used by one thread at a time. Parses of
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
 * after the document is released.
 * Results: KRV_XML_OK; KRV_XML_ERR_INVALID_PARAM (null, not linked, or an
 * attribute record: use KRV_XML_RemoveAttr). */
KRV_XML_API uint32_t KRV_XML_RemoveNode(XmlNode *node);

/* Releases a node with its attributes and descendants, after taking it out of
 * its tree (never its former siblings). A session document ends its session;
 * a node carved from a session frees nothing by itself. An attribute record is
 * taken out of its owner's list and released. A parsed heap document with
 * further top-level elements releases those too. Null: nothing happens. */
KRV_XML_API void KRV_XML_FreeNode(XmlNode *node);

/* Releases text handed out by the library (the transforms). Null is fine. */
KRV_XML_API void KRV_XML_FreeMem(void *ptr);

/* ===== Navigation and attribute reading ================================ */
/* (tree walking: parent, children, siblings, attributes, document order) */

/* The next element or document after node in document order (pre-order:
 * first child, else the next sibling of the nearest ancestor-or-self that has
 * one), or null at the end of the tree. The walk is not bounded by node's
 * sub-tree. Null or an attribute record gives null. Constant stack. */
KRV_XML_API XmlNode *KRV_XML_Iterator(XmlNode *node);

/* ===== Inserting nodes ================================================== */
/* (linking detached nodes as children or siblings) */

/* ===== Attribute editing ================================================ */
/* (adding, changing and removing attributes) */

/* ===== Cloning ========================================================== */
/* (copying a node, or a node with its sub-tree) */

/* ===== Typed values ===================================================== */
/* (values as booleans and 8-, 16- and 32-bit integers) */

/* ===== Path lookup ====================================================== */
/* (finding a node by a dotted path) */

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
 * allowed in XML, written out in UTF-8. Leading SPACE bytes of a text are
 * kept, leading TAB, LF and CR are not; trailing white space is kept. A
 * name "p:x" gets nsPrefix "p" and name "x". The text ends at its first NUL.
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
