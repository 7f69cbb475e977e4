// One fuzz case for paths and value texts against a fixed tree. The bytes
// before the first NUL are a path, the bytes after it a value text. The path
// is looked up; the text is stored as a node value and as an attribute value,
// read back through every typed getter (checked against a small independent
// reader), printed and parsed again.
#ifndef KRVXML_FUZZ_PATH_VALUES_CASE_H
#define KRVXML_FUZZ_PATH_VALUES_CASE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_checks.h"
#include "krv_xml.h"
#include "platform/krv_platform.h"

namespace krvfuzz {

constexpr const char *kFixedDocument =
    "<config version=\"2\"><server host=\"a\"/><server host=\"b\"><port>8080</port></server>"
    "<p:list><item>1</item><item>-2</item><item/><a.b>dot</a.b></p:list><empty></empty></config>";

// Reads text as the typed getters are documented to: an optional sign (a '-'
// or '+' for the signed types only), then decimal digits only; leading zeros
// skipped, at most 24 digits after them, in the type's range. Booleans are
// exactly "true"/"1" and "false"/"0".
inline bool ModelRead(const char *text, uint32_t type, int64_t *out)
{
    if (type == KRV_XML_VALUE_BOOL) {
        if (std::strcmp(text, "true") == 0 || std::strcmp(text, "1") == 0) {
            *out = 1;
            return true;
        }
        if (std::strcmp(text, "false") == 0 || std::strcmp(text, "0") == 0) {
            *out = 0;
            return true;
        }
        return false;
    }
    static const int64_t kMin[] = {0, INT32_MIN, 0, INT16_MIN, 0, INT8_MIN, 0};
    static const int64_t kMax[] = {0, INT32_MAX, UINT32_MAX, INT16_MAX, UINT16_MAX, INT8_MAX, UINT8_MAX};
    bool isSigned = kMin[type] < 0;
    bool negative = false;
    const char *p = text;
    if (isSigned && (*p == '-' || *p == '+')) {
        negative = *p == '-';
        ++p;
    }
    if (*p == '\0') {
        return false;
    }
    while (*p == '0' && p[1] != '\0') {
        ++p;
    }
    int64_t value = 0;
    int digits = 0;
    for (; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9' || ++digits > 24) {
            return false;
        }
        if (value <= INT64_MAX / 100) {
            value = value * 10 + (*p - '0');
        }
    }
    value = negative ? -value : value;
    if (value < kMin[type] || value > kMax[type]) {
        return false;
    }
    *out = value;
    return true;
}

inline int64_t Widen(const void *raw, uint32_t type)
{
    switch (type) {
    case KRV_XML_VALUE_INT32: return *static_cast<const int32_t *>(raw);
    case KRV_XML_VALUE_INT16: return *static_cast<const int16_t *>(raw);
    case KRV_XML_VALUE_UINT16: return *static_cast<const uint16_t *>(raw);
    case KRV_XML_VALUE_INT8: return *static_cast<const int8_t *>(raw);
    case KRV_XML_VALUE_UINT8: return *static_cast<const uint8_t *>(raw);
    default: return *static_cast<const uint32_t *>(raw);
    }
}

// Reads the value of node (or of its attribute `attr`) as every type and
// checks each answer against the model reader. (Typed writes are read back
// by the edit case.)
inline std::string CheckTypedReads(XmlNode *node, const char *attr, const char *text)
{
    for (uint32_t type = KRV_XML_VALUE_BOOL; type <= KRV_XML_VALUE_UINT8; ++type) {
        uint8_t raw[8];
        std::memset(raw, 0xA5, sizeof raw);
        uint32_t rc = attr != nullptr ? KRV_XML_GetAttrValueEx(node, nullptr, attr, type, raw)
                                      : KRV_XML_GetNodeValueEx(node, type, raw);
        int64_t expect = 0;
        bool ok = text != nullptr && ModelRead(text, type, &expect);
        if (ok != (rc == KRV_XML_OK) || (!ok && rc != KRV_XML_ERR_INVALID_PARAM)) {
            return "type " + std::to_string(type) + " read gave " + std::to_string(rc);
        }
        static const size_t kWidth[] = {4, 4, 4, 2, 2, 1, 1};
        if (raw[kWidth[type]] != 0xA5 || (!ok && raw[0] != 0xA5)) {
            return "typed read wrote outside its variable or on failure";
        }
        if (ok && Widen(raw, type) != expect) {
            return "type " + std::to_string(type) + " read another value";
        }
    }
    return "";
}

inline const char *AttrValue(XmlNode *element, const char *name)
{
    const char *v = nullptr;
    return KRV_XML_GetAttr(element, nullptr, name, &v) == KRV_XML_OK ? v : nullptr;
}

// Prints target, parses the text again and returns the copy, or null when
// the text is refused (*printed then holds it).
inline XmlNode *PrintAndParse(XmlNode *target, std::string *printed)
{
    char *out = nullptr;
    XmlNode *again = nullptr;
    if (target->name == nullptr || KRV_XML_Transform(target, &out) != KRV_XML_OK) {
        return nullptr;
    }
    *printed = out;
    KRV_XML_FreeMem(out);
    return KRV_XML_Parse(printed->c_str(), &again) == KRV_XML_OK ? again : nullptr;
}

inline std::string RunPathValuesCase(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return "";
    }
    const long live = krv_test::LiveBlocks();
    const bool session = (data[0] & 1) != 0;
    const std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
    const size_t cut = rest.find('\0');
    const std::string path = rest.substr(0, cut);
    const std::string text = cut == std::string::npos ? std::string() : std::string(rest.c_str() + cut + 1);
    XmlNode *doc = nullptr;
    if ((session ? KRV_XML_ParseEx(kFixedDocument, &doc) : KRV_XML_Parse(kFixedDocument, &doc)) != KRV_XML_OK) {
        return "the fixed document does not parse";
    }
    std::string failure, printed;
    const std::string pristine = Dump(doc);
    XmlNode *found = reinterpret_cast<XmlNode *>(&failure);
    uint32_t rc = KRV_XML_GetNodeByUrl(doc, path.c_str(), &found);
    XmlNode *up = rc == KRV_XML_OK ? found : nullptr;
    while (up != nullptr && up != doc) {
        up = up->parent;
    }
    if (Dump(doc) != pristine) {
        failure = "path lookup changed the tree";
    } else if (rc == KRV_XML_OK && up != doc) {
        failure = "path lookup answered a node outside the tree";
    } else if (rc != KRV_XML_OK && found != reinterpret_cast<XmlNode *>(&failure)) {
        failure = "failed path lookup wrote its out-argument";
    } else if (rc != KRV_XML_OK && rc != KRV_XML_ERR_INVALID_PARAM && rc != KRV_XML_ERR_NOT_FOUND &&
               rc != KRV_XML_ERR_URL_NOT_FOUND) {
        failure = "path lookup gave " + std::to_string(rc);
    } else if (path.size() > 511 && rc != KRV_XML_ERR_INVALID_PARAM) {
        failure = "an overlong path was not refused";
    }
    XmlNode *target = rc == KRV_XML_OK ? found : doc;

    // The text as the value of a leaf, read typed, printed and parsed again.
    const char *value = text.empty() ? nullptr : text.c_str();
    const bool printable = value != nullptr && !MayHoldReference(value);
    if (failure.empty() && target->firstChild == nullptr) {
        if (KRV_XML_SetNode(target, nullptr, nullptr, text.c_str()) != KRV_XML_OK) {
            failure = "storing a value text failed";
        } else if (!SameText(target->value, value)) {
            failure = "a stored value text reads differently";
        } else {
            failure = CheckTypedReads(target, nullptr, value);
        }
        XmlNode *again = failure.empty() && printable ? PrintAndParse(target, &printed) : nullptr;
        if (again == nullptr && !printed.empty()) {
            failure = "a printed value text is refused: " + printed;
        } else if (again != nullptr && !SameTextUpToLeadingSpace(text, again->value)) {
            failure = "a printed value text reads back differently: " + printed;
        }
        KRV_XML_FreeNode(again);
    }

    // The text as an attribute value, and the path bytes as an attribute name.
    if (failure.empty()) {
        rc = KRV_XML_SetAttr(target, nullptr, "k", value);
        rc = rc == KRV_XML_ERR_NOT_FOUND ? KRV_XML_AddAttr(target, nullptr, "k", value) : rc;
        const char *v = nullptr;
        failure = rc != KRV_XML_OK ? "setting an attribute value gave " + std::to_string(rc)
                                   : CheckTypedReads(target, "k", AttrValue(target, "k"));
        printed.clear();
        XmlNode *again = failure.empty() && printable ? PrintAndParse(target, &printed) : nullptr;
        if ((again == nullptr && !printed.empty()) ||
            (again != nullptr && (KRV_XML_GetAttr(again, nullptr, "k", &v) != KRV_XML_OK || !SameText(v, value)))) {
            failure = "a printed attribute value reads back differently: " + printed;
        }
        KRV_XML_FreeNode(again);
    }
    if (failure.empty() && !path.empty()) {
        const std::string before = Dump(doc);
        const char *v = nullptr;
        if (KRV_XML_AddAttr(target, nullptr, path.c_str(), "v") == KRV_XML_OK &&
            (KRV_XML_GetAttr(target, nullptr, path.c_str(), &v) != KRV_XML_OK || !SameText(v, "v") ||
             KRV_XML_RemoveAttr(target, nullptr, path.c_str()) != KRV_XML_OK || Dump(doc) != before)) {
            failure = "an attribute added under an arbitrary name is not found and removed again";
        }
    }
    if (failure.empty()) {
        failure = CheckLinks(doc);
    }
    KRV_XML_FreeNode(doc);
    if (failure.empty() && krv_test::LiveBlocks() != live) {
        failure = "heap blocks leaked: " + std::to_string(krv_test::LiveBlocks() - live);
    }
    return failure;
}

}  // namespace krvfuzz

#endif  // KRVXML_FUZZ_PATH_VALUES_CASE_H
