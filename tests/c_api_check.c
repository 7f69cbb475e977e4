/* Compiled as strict C99: the public headers must be valid C, and a C program
 * must be able to use the library through them. */
#include <string.h>

#include "krv_xml.h"
#include "krv_xml_component.h"

int main(void)
{
    char version[32];
    XmlNode *node = NULL;
    if (KRV_XML_GetVersion(version, sizeof version) != KRV_XML_OK ||
        strcmp(version, "KRV XML 2.1.9") != 0) {
        return 1;
    }
    if (KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, "p", "name", "value", &node) != KRV_XML_OK) {
        return 2;
    }
    if (strcmp(node->name, "name") != 0 || strcmp(node->nsPrefix, "p") != 0) {
        return 3;
    }
    KRV_XML_FreeNode(node);
    {
        KrvXmlParseInfo info;
        XmlNode *doc = NULL;
        if (KRV_XML_ParseWithInfo("<r>\n<a>x</b></r>", KRV_XML_PARSE_SESSION, &doc, &info) !=
                KRV_XML_ERR_SYNTAX ||
            doc != NULL || info.line != 2 || info.column != 7 || info.reason == NULL) {
            return 4;
        }
        if (KRV_XML_Parse("<r a='1'>t</r>", &doc) != KRV_XML_OK || strcmp(doc->value, "t") != 0) {
            return 5;
        }
        KRV_XML_FreeNode(doc);
    }
    return 0;
}
