/*
 * KRV XML: a header-only C++17 layer over the C interface of krv_xml.h.
 *
 * It adds ownership and convenience, no behaviour of its own:
 *   - krv::xml::document owns one tree root and releases it with
 *     KRV_XML_FreeNode when it goes away. It is move-only; a moved-from,
 *     released or reset handle owns nothing, so no tree is freed twice.
 *   - krv::xml::node is a non-owning view of one element or document, with
 *     std::string_view accessors and ranges over children and attributes.
 *   - krv::xml::result carries the C result code. Nothing throws, except
 *     std::bad_alloc from the *_to_string functions, which fill a
 *     std::string.
 *
 * Lifetimes follow the C interface: a view and the string_views it hands out
 * are valid while the node exists and is unchanged; linking a node into a
 * document counts as a change of its name, which may move into the
 * document's name table. A document handle that
 * owns a tree carved from a memory session (a clone of, or an element made
 * for, a session document) must not outlive the session's document: once the
 * session ends, nothing is left to release. Link such a tree into its
 * document (append_child and friends take the handle and release it on
 * success) rather than keeping it apart. Likewise, a node taken out of a
 * document (remove) keeps its short names in that document's record, in
 * either regime: do not use it after that document is released.
 */
#ifndef KRV_XML_HPP
#define KRV_XML_HPP

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "krv_xml.h"

namespace krv {
namespace xml {

// ===== Results ==============================================================

enum class errc : std::uint32_t {
    ok = KRV_XML_OK,
    invalid_param = KRV_XML_ERR_INVALID_PARAM,
    already_exists = KRV_XML_ERR_ALREADY_EXISTS,
    not_found = KRV_XML_ERR_NOT_FOUND,
    no_memory = KRV_XML_ERR_NO_MEMORY,
    syntax = KRV_XML_ERR_SYNTAX,
    url_not_found = KRV_XML_ERR_URL_NOT_FOUND,
    file_open = KRV_XML_ERR_FILE_OPEN,
    file_write = KRV_XML_ERR_FILE_WRITE,
    file_read = KRV_XML_ERR_FILE_READ,
    buffer_too_small = KRV_XML_ERR_BUFFER_TOO_SMALL,
};

// A result code of the C interface. Converts to true on success.
class result {
public:
    constexpr result() noexcept = default;
    constexpr result(std::uint32_t code) noexcept : code_(code) {}  // NOLINT: implicit by design
    constexpr result(errc e) noexcept : code_(static_cast<std::uint32_t>(e)) {}
    // A flag is no result code; other integers convert as before.
    template <class T, std::enable_if_t<std::is_same_v<T, bool>, int> = 0>
    result(T) = delete;
    constexpr bool ok() const noexcept { return code_ == KRV_XML_OK; }
    constexpr explicit operator bool() const noexcept { return ok(); }
    constexpr std::uint32_t code() const noexcept { return code_; }
    constexpr errc error() const noexcept { return static_cast<errc>(code_); }
    friend constexpr bool operator==(result a, result b) noexcept { return a.code_ == b.code_; }
    friend constexpr bool operator!=(result a, result b) noexcept { return a.code_ != b.code_; }

private:
    std::uint32_t code_ = KRV_XML_OK;
};

// ===== Typed values =========================================================

// The C type code for each C++ type that typed values can be read as.
// bool travels as the library's 32-bit boolean.
template <class T>
struct value_type;
template <> struct value_type<bool> { static constexpr std::uint32_t code = KRV_XML_VALUE_BOOL; using wire = std::uint32_t; };
template <> struct value_type<std::int8_t> { static constexpr std::uint32_t code = KRV_XML_VALUE_INT8; using wire = std::int8_t; };
template <> struct value_type<std::uint8_t> { static constexpr std::uint32_t code = KRV_XML_VALUE_UINT8; using wire = std::uint8_t; };
template <> struct value_type<std::int16_t> { static constexpr std::uint32_t code = KRV_XML_VALUE_INT16; using wire = std::int16_t; };
template <> struct value_type<std::uint16_t> { static constexpr std::uint32_t code = KRV_XML_VALUE_UINT16; using wire = std::uint16_t; };
template <> struct value_type<std::int32_t> { static constexpr std::uint32_t code = KRV_XML_VALUE_INT32; using wire = std::int32_t; };
template <> struct value_type<std::uint32_t> { static constexpr std::uint32_t code = KRV_XML_VALUE_UINT32; using wire = std::uint32_t; };

namespace detail {

inline std::string_view view(const char *s) noexcept
{
    return s != nullptr ? std::string_view(s) : std::string_view();
}

struct free_text {
    void operator()(char *text) const noexcept { KRV_XML_FreeMem(text); }
};

// Takes text made by the library: copies it into `out` and releases it, also
// when the copy throws.
inline void take_text(char *text, std::string &out)
{
    std::unique_ptr<char, free_text> owned(text);
    out.assign(text != nullptr ? text : "");
}

// True when releasing `owned` would end the memory session that `n` lives in:
// a handle must not drop its session document for a tree carved from it.
inline bool ends_session_of(const XmlNode *owned, const XmlNode *n) noexcept
{
    return owned != nullptr && n != nullptr && owned->ownsSession != 0 && owned->mem != nullptr &&
           owned->mem == n->mem;
}

// True when a copy of `n` would live in the session that releasing `owned`
// ends: a copy of a session's element is carved from that session, while a
// copy of the session's document gets a session of its own.
inline bool copy_ends_with(const XmlNode *owned, const XmlNode *n) noexcept
{
    return ends_session_of(owned, n) && n->ownsSession == 0;
}

// The record after `n` in document order across `n`'s tree and the top-level
// records that follow its top; null at the end.
inline const XmlNode *next_in_order(const XmlNode *n) noexcept
{
    if (n->firstChild != nullptr) {
        return n->firstChild;
    }
    for (; n != nullptr; n = n->parent) {
        if (n->next != nullptr) {
            return n->next;
        }
    }
    return nullptr;
}

// True when releasing `owned` would take away what `n` keeps using once it
// is out of its tree: the session it lives in, or the tree it is in, whose
// documents keep short names in their records. Whether `n` lies in the tree
// is found by walking up from `n` and through `owned`'s tree by turns, so
// the cost is that of the shorter walk.
inline bool holds_names_of(const XmlNode *owned, const XmlNode *n) noexcept
{
    if (ends_session_of(owned, n)) {
        return true;
    }
    if (owned == nullptr || n == nullptr || owned->kind == KRV_XML_NODE_ATTRIBUTE) {
        return false;
    }
    const XmlNode *up = n;
    const XmlNode *down = owned;
    for (;;) {
        if (up == owned || down == n) {
            return true;
        }
        if (up->parent == nullptr && up->prev == nullptr) {
            return false;  // the top of n's tree, which is not owned
        }
        up = up->parent != nullptr ? up->parent : up->prev;
        down = next_in_order(down);
        if (down == nullptr) {
            return false;  // all of owned's tree, without n
        }
    }
}

}  // namespace detail

class document;

// ===== Attributes ===========================================================

// A view of one attribute record.
class attribute {
public:
    constexpr attribute() noexcept = default;
    constexpr explicit attribute(XmlNode *a) noexcept : a_(a) {}
    constexpr XmlNode *get() const noexcept { return a_; }
    constexpr explicit operator bool() const noexcept { return a_ != nullptr; }
    std::string_view name() const noexcept { return a_ ? detail::view(a_->name) : std::string_view(); }
    std::string_view prefix() const noexcept { return a_ ? detail::view(a_->nsPrefix) : std::string_view(); }
    std::string_view value() const noexcept { return a_ ? detail::view(a_->value) : std::string_view(); }
    bool has_value() const noexcept { return a_ != nullptr && a_->value != nullptr; }

private:
    XmlNode *a_ = nullptr;
};

// ===== Nodes ================================================================

class node;

// Forward range over a chain linked by `next` (children, or attributes of
// one element). Attribute records are walked through their public `next`
// link, which ends with them. An iterator reads the next link when it
// reaches a record, so the loop body may remove or release the record it is
// at (remove, remove_attr); a record linked after it meanwhile is not seen.
// The body must not remove or release any other record of the chain.
template <class View>
class sibling_range {
public:
    class iterator {
    public:
        // Dereferencing makes a view (a prvalue), which a C++17 forward
        // iterator may not do; the walk is multi-pass all the same, which
        // C++20 ranges see through iterator_concept.
        using iterator_category = std::input_iterator_tag;
#if __cplusplus >= 202002L
        using iterator_concept = std::forward_iterator_tag;
#endif
        using value_type = View;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = View;
        constexpr iterator() noexcept = default;
        constexpr explicit iterator(XmlNode *n) noexcept : n_(n), next_(n != nullptr ? n->next : nullptr) {}
        View operator*() const noexcept { return View(n_); }
        iterator &operator++() noexcept
        {
            *this = iterator(next_);
            return *this;
        }
        iterator operator++(int) noexcept
        {
            iterator old = *this;
            ++*this;
            return old;
        }
        friend constexpr bool operator==(iterator a, iterator b) noexcept { return a.n_ == b.n_; }
        friend constexpr bool operator!=(iterator a, iterator b) noexcept { return a.n_ != b.n_; }

    private:
        XmlNode *n_ = nullptr;
        XmlNode *next_ = nullptr;  // read on arrival at n_
    };
    constexpr explicit sibling_range(XmlNode *first) noexcept : first_(first) {}
    constexpr iterator begin() const noexcept { return iterator(first_); }
    constexpr iterator end() const noexcept { return iterator(); }
    constexpr bool empty() const noexcept { return first_ == nullptr; }

private:
    XmlNode *first_;
};

// A non-owning view of an element or document. A null view is allowed: its
// accessors give empty strings and null views, its operations
// KRV_XML_ERR_INVALID_PARAM (from the C interface).
class node {
public:
    constexpr node() noexcept = default;
    constexpr explicit node(XmlNode *n) noexcept : n_(n) {}
    constexpr XmlNode *get() const noexcept { return n_; }
    constexpr explicit operator bool() const noexcept { return n_ != nullptr; }
    friend constexpr bool operator==(node a, node b) noexcept { return a.n_ == b.n_; }
    friend constexpr bool operator!=(node a, node b) noexcept { return a.n_ != b.n_; }

    int kind() const noexcept { return n_ ? n_->kind : -1; }
    std::string_view name() const noexcept { return n_ ? detail::view(n_->name) : std::string_view(); }
    std::string_view prefix() const noexcept { return n_ ? detail::view(n_->nsPrefix) : std::string_view(); }
    std::string_view value() const noexcept { return n_ ? detail::view(n_->value) : std::string_view(); }
    bool has_value() const noexcept { return n_ != nullptr && n_->value != nullptr; }

    node parent() const noexcept { return node(KRV_XML_GetNodeParent(n_)); }
    node first_child() const noexcept { return node(KRV_XML_GetNodeFirstChild(n_)); }
    node last_child() const noexcept { return node(KRV_XML_GetNodeLastChild(n_)); }
    node next_sibling() const noexcept { return node(KRV_XML_GetNodeNextSibling(n_)); }
    node prev_sibling() const noexcept { return node(KRV_XML_GetNodePrevSibling(n_)); }

    sibling_range<node> children() const noexcept { return sibling_range<node>(KRV_XML_GetNodeFirstChild(n_)); }
    sibling_range<attribute> attributes() const noexcept
    {
        // An attribute record ends before firstAttr: it has no attributes.
        return sibling_range<attribute>(n_ && n_->kind != KRV_XML_NODE_ATTRIBUTE ? n_->firstAttr : nullptr);
    }

    // The node at a dotted path whose first segment names this node
    // ("config.server.2").
    result find(const char *path, node &out) const noexcept
    {
        XmlNode *found = nullptr;
        result r = KRV_XML_GetNodeByUrl(n_, path, &found);
        if (r) {
            out = node(found);
        }
        return r;
    }

    // The attribute's value; not_found when the element has no such
    // attribute. An attribute without a value gives an empty view.
    result attr(const char *name, std::string_view &out, const char *prefix = nullptr) const noexcept
    {
        const char *v = nullptr;
        result r = KRV_XML_GetAttr(n_, prefix, name, &v);
        if (r) {
            out = detail::view(v);
        }
        return r;
    }

    // Node strings: null leaves a field, "" clears it.
    result set(const char *prefix, const char *name, const char *value) const noexcept
    {
        return KRV_XML_SetNode(n_, prefix, name, value);
    }
    result set_value(const char *value) const noexcept { return KRV_XML_SetNode(n_, nullptr, nullptr, value); }

    result add_attr(const char *name, const char *value, const char *prefix = nullptr) const noexcept
    {
        return KRV_XML_AddAttr(n_, prefix, name, value);
    }
    result set_attr(const char *name, const char *value, const char *prefix = nullptr) const noexcept
    {
        return KRV_XML_SetAttr(n_, prefix, name, value);
    }
    result remove_attr(const char *name, const char *prefix = nullptr) const noexcept
    {
        return KRV_XML_RemoveAttr(n_, prefix, name);
    }

    // Typed values: T is bool or a fixed-width integer of 8, 16 or 32 bits.
    template <class T>
    result get_value(T &out) const noexcept
    {
        typename value_type<T>::wire v{};
        result r = KRV_XML_GetNodeValueEx(n_, value_type<T>::code, &v);
        if (r) {
            out = static_cast<T>(v);
        }
        return r;
    }
    template <class T>
    result set_value_as(T value) const noexcept
    {
        typename value_type<T>::wire v = static_cast<typename value_type<T>::wire>(value);
        return KRV_XML_SetNodeValueEx(n_, value_type<T>::code, &v);
    }
    template <class T>
    result get_attr_as(const char *name, T &out, const char *prefix = nullptr) const noexcept
    {
        typename value_type<T>::wire v{};
        result r = KRV_XML_GetAttrValueEx(n_, prefix, name, value_type<T>::code, &v);
        if (r) {
            out = static_cast<T>(v);
        }
        return r;
    }
    // Creates the attribute when it is missing.
    template <class T>
    result set_attr_as(const char *name, T value, const char *prefix = nullptr) const noexcept
    {
        typename value_type<T>::wire v = static_cast<typename value_type<T>::wire>(value);
        return KRV_XML_SetAttrValueEx(n_, prefix, name, value_type<T>::code, &v);
    }

    // Linking a detached tree: on success the handle lets go of it, as the
    // tree now belongs to this node's tree; on failure the handle keeps it.
    // insert_after and insert_before need a node with a parent
    // (invalid_param otherwise): a sibling of a top-level record would be
    // owned by no handle, as releasing a root leaves its siblings.
    inline result append_child(document &child) const noexcept;
    inline result prepend_child(document &child) const noexcept;
    inline result insert_after(document &sibling) const noexcept;
    inline result insert_before(document &sibling) const noexcept;

    // Takes this node out of its tree; `out` owns it afterwards. Refused
    // (invalid_param) for the head of a tree (a root with records after it,
    // which its handle owns), and when `out` holds the tree the node is in,
    // or its session's document, whose release would take the node's
    // session or short names along. A node taken out
    // keeps names in its former document's table: keep that document alive
    // while the node is used (see KRV_XML_RemoveNode).
    inline result remove(document &out) const noexcept;

    // Copies: with the sub-tree (clone) or the node and attributes alone.
    // A copy of a session document's node lives in that session, so `out`
    // must not be the handle of that document (invalid_param, nothing done).
    inline result clone(document &out) const noexcept;
    inline result clone_self(document &out) const noexcept;

    // The node and its sub-tree as XML text (whole, head or tail).
    result to_string(std::string &out) const
    {
        char *text = nullptr;
        result r = KRV_XML_Transform(n_, &text);
        if (r) {
            detail::take_text(text, out);
        }
        return r;
    }
    result head_to_string(std::string &out) const
    {
        char *text = nullptr;
        result r = KRV_XML_TransformHead(n_, &text);
        if (r) {
            detail::take_text(text, out);
        }
        return r;
    }
    result tail_to_string(std::string &out) const
    {
        char *text = nullptr;
        result r = KRV_XML_TransformTail(n_, &text);
        if (r) {
            detail::take_text(text, out);
        }
        return r;
    }
    result save(const char *path) const noexcept { return KRV_XML_TransformFile(n_, path); }

private:
    XmlNode *n_ = nullptr;
};

// ===== Owning handle ========================================================

// Memory regime of a parse.
enum class regime { session, heap };

// Owns one tree root (a document, or a detached element with its sub-tree)
// and releases it with KRV_XML_FreeNode. Move-only. Assigning or resetting
// releases the tree held before: the tree taken over must not live in that
// tree's session or have been part of that tree (remove and clone refuse
// such a handle; a move or reset cannot: debug builds assert the session
// case).
class document {
public:
    constexpr document() noexcept = default;
    // Adopts a root the caller owns.
    constexpr explicit document(XmlNode *root) noexcept : root_(root) {}
    ~document() { KRV_XML_FreeNode(root_); }
    document(const document &) = delete;
    document &operator=(const document &) = delete;
    document(document &&other) noexcept : root_(other.release()) {}
    document &operator=(document &&other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }

    constexpr XmlNode *get() const noexcept { return root_; }
    constexpr explicit operator bool() const noexcept { return root_ != nullptr; }
    node root() const noexcept { return node(root_); }

    // Gives up ownership without releasing anything.
    XmlNode *release() noexcept
    {
        XmlNode *p = root_;
        root_ = nullptr;
        return p;
    }
    // Releases the owned tree and adopts `root`. Resetting to the tree
    // already owned keeps it.
    void reset(XmlNode *root = nullptr) noexcept
    {
        assert((root == root_ || !detail::ends_session_of(root_, root)) &&
               "the new tree would die with the old one's session");
        XmlNode *old = root_;
        root_ = root;
        if (old != root) {
            KRV_XML_FreeNode(old);
        }
    }
    void swap(document &other) noexcept { std::swap(root_, other.root_); }

    // Parsing into `out`, which releases what it owned only on success.
    static result parse(const char *text, document &out, regime r = regime::session) noexcept
    {
        XmlNode *root = nullptr;
        result res = r == regime::session ? KRV_XML_ParseEx(text, &root) : KRV_XML_Parse(text, &root);
        if (res) {
            out.reset(root);
        }
        return res;
    }
    static result parse_file(const char *path, document &out, regime r = regime::session) noexcept
    {
        XmlNode *root = nullptr;
        result res = r == regime::session ? KRV_XML_ParseFileEx(path, &root) : KRV_XML_ParseFile(path, &root);
        if (res) {
            out.reset(root);
        }
        return res;
    }

    // As parse and parse_file, and on failure `info` tells where and why.
    static result parse(const char *text, document &out, regime r, KrvXmlParseInfo &info) noexcept
    {
        XmlNode *root = nullptr;
        result res = KRV_XML_ParseWithInfo(text, r == regime::session ? KRV_XML_PARSE_SESSION : 0u, &root, &info);
        if (res) {
            out.reset(root);
        }
        return res;
    }
    static result parse_file(const char *path, document &out, regime r, KrvXmlParseInfo &info) noexcept
    {
        XmlNode *root = nullptr;
        result res =
            KRV_XML_ParseFileWithInfo(path, r == regime::session ? KRV_XML_PARSE_SESSION : 0u, &root, &info);
        if (res) {
            out.reset(root);
        }
        return res;
    }

    // A new element: on the heap, or carved from `in`'s memory session when
    // `in` is a session document (the element can then join only that
    // document, and the handle must not outlive it).
    static result create_element(const char *name, const char *value, document &out,
                                 const char *prefix = nullptr) noexcept
    {
        XmlNode *n = nullptr;
        result res = KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, prefix, name, value, &n);
        if (res) {
            out.reset(n);
        }
        return res;
    }
    static result create_element_in(node in, const char *name, const char *value, document &out,
                                    const char *prefix = nullptr) noexcept
    {
        if (detail::ends_session_of(out.get(), in.get())) {
            return errc::invalid_param;
        }
        XmlNode *n = nullptr;
        XmlMemSession *mem = in.get() != nullptr ? in.get()->mem : nullptr;
        result res = KRV_XML_CreateNodeEx(mem, KRV_XML_NODE_ELEMENT, prefix, name, value, &n);
        if (res) {
            out.reset(n);
        }
        return res;
    }
    // A new, empty document: with its own memory session, or on the heap.
    static result create(const char *name, document &out, regime r = regime::session) noexcept
    {
        XmlNode *n = nullptr;
        result res = r == regime::session
                         ? KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, name, nullptr, &n)
                         : KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, name, nullptr, &n);
        if (res) {
            out.reset(n);
        }
        return res;
    }

private:
    XmlNode *root_ = nullptr;
};

inline void swap(document &a, document &b) noexcept
{
    a.swap(b);
}

inline result node::append_child(document &child) const noexcept
{
    result r = KRV_XML_AppendChildNode(n_, child.get());
    if (r) {
        child.release();
    }
    return r;
}

inline result node::prepend_child(document &child) const noexcept
{
    result r = KRV_XML_AddFirstChildNode(n_, child.get());
    if (r) {
        child.release();
    }
    return r;
}

inline result node::insert_after(document &sibling) const noexcept
{
    if (n_ != nullptr && n_->parent == nullptr) {
        return errc::invalid_param;
    }
    result r = KRV_XML_AddNextSiblingNode(n_, sibling.get());
    if (r) {
        sibling.release();
    }
    return r;
}

inline result node::insert_before(document &sibling) const noexcept
{
    if (n_ != nullptr && n_->parent == nullptr) {
        return errc::invalid_param;
    }
    result r = KRV_XML_AddPrevSiblingNode(n_, sibling.get());
    if (r) {
        sibling.release();
    }
    return r;
}

inline result node::remove(document &out) const noexcept
{
    if (n_ == nullptr || n_->kind == KRV_XML_NODE_ATTRIBUTE) {
        return KRV_XML_RemoveNode(n_);  // refused by the C call
    }
    // A record without parent or predecessor heads its tree, which a handle
    // owns already (with the records that follow it, which it would leave
    // behind); so does out, whose release would take n's names along.
    if ((n_->parent == nullptr && n_->prev == nullptr) || detail::holds_names_of(out.get(), n_)) {
        return errc::invalid_param;
    }
    result r = KRV_XML_RemoveNode(n_);
    if (r) {
        out.reset(n_);
    }
    return r;
}

inline result node::clone(document &out) const noexcept
{
    if (detail::copy_ends_with(out.get(), n_)) {
        return errc::invalid_param;
    }
    XmlNode *copy = nullptr;
    result r = KRV_XML_CloneNode(n_, &copy);
    if (r) {
        out.reset(copy);
    }
    return r;
}

inline result node::clone_self(document &out) const noexcept
{
    if (detail::copy_ends_with(out.get(), n_)) {
        return errc::invalid_param;
    }
    XmlNode *copy = nullptr;
    result r = KRV_XML_CloneNodeSelf(n_, &copy);
    if (r) {
        out.reset(copy);
    }
    return r;
}

}  // namespace xml
}  // namespace krv

#endif  // KRV_XML_HPP
