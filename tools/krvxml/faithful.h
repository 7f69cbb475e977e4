// What the tool adds so that a tree it prints reads back as it holds it, and
// so that what set writes is XML other parsers read too.
#ifndef KRVXML_TOOL_FAITHFUL_H
#define KRVXML_TOOL_FAITHFUL_H

#include <cstdint>
#include <string>

#include "krv_xml.h"

namespace krvtool {

// Rewrites the values of top's sub-tree (and of top's siblings when
// `withSiblings`) so that the printer's text reads back as the tree held
// them: every '&' becomes "&amp;" (the printer keeps an '&' that begins a
// reference as it stands); TAB, LF and CR become character references in
// attribute values and where they begin an element's text (the parser drops
// them there), and CR anywhere in a text (other parsers turn it into LF); an
// empty value becomes none, which prints as the same empty element. A name
// that holds a byte only a reference could have put there (a blank, '&',
// '<', '>', a quote, '=' or '/'), a colon that would divide it otherwise, a
// prefix without a name, or an element name that begins with '?' or '!' or
// ends in "--" or "]]" where the element prints more than an empty tag (its
// tags would read as something else; `framed`: any element may be printed
// open or closed alone, as --head and --tail do) cannot be printed as it
// reads: *badName then names its record and the result is
// KRV_XML_ERR_INVALID_PARAM.
// Otherwise returns KRV_XML_OK or the code of a failed KRV_XML_SetNode.
uint32_t EscapeValues(XmlNode *top, bool withSiblings, bool framed, const XmlNode **badName);

// The first record of `edited` (rewritten by EscapeValues) whose name,
// prefix, value or attributes differ from those of the record at the same
// place in `reread`, or whose place does not exist there; null when the
// trees are alike. A null value and "" count as alike; the kinds of the two
// top records are not compared, as a sub-tree printed alone reads back
// headed by a document record.
const XmlNode *FirstDifference(const XmlNode *edited, const XmlNode *reread, bool withSiblings);

// Whether text is UTF-8 made only of characters that XML allows.
bool IsXmlText(const std::string &text);

// Whether text is an XML name (XML 1.0 fifth edition: NameStartChar, then
// NameChar).
bool IsXmlName(const std::string &text);

}  // namespace krvtool

#endif  // KRVXML_TOOL_FAITHFUL_H
