/* Compiled as strict C99: the public headers must be valid C, and a C program
 * must be able to use the library through them. */
#include <stdlib.h>
#include <string.h>

#include "krv_xml.h"
#include "krv_xml_component.h"

int main(int argc, char **argv)
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
        /* Text in a heap block of its exact size, as an application holds it. */
        static const char kText[] = "<r a='1'><b>some text</b></r>";
        char *text = (char *)malloc(sizeof kText);
        if (text == NULL) {
            return 7;
        }
        memcpy(text, kText, sizeof kText);
        if (KRV_XML_Parse(text, &doc) != KRV_XML_OK || strcmp(doc->firstChild->value, "some text") != 0) {
            free(text);
            return 5;
        }
        free(text);
        KRV_XML_FreeNode(doc);
        /* CDATA sections, closed after stray ']' and left open, ending at
         * every place of a 16-byte block with the rest of the block never
         * written: the scans for their ends read past the NUL as well. */
        {
            static const char *const kCdata[] = {"<r><![CDATA[x]] y]]></r>", "<r><![CDATA[x]"};
            int i, shift;
            for (i = 0; i < 2; ++i) {
                for (shift = 0; shift < 16; ++shift) {
                    size_t size = strlen(kCdata[i]) + 1;
                    uint32_t rc;
                    char *block = (char *)malloc(size + (size_t)shift);
                    if (block == NULL) {
                        return 7;
                    }
                    memcpy(block + shift, kCdata[i], size);
                    doc = NULL;
                    rc = KRV_XML_ParseEx(block + shift, &doc);
                    free(block);
                    if (i == 0 ? rc != KRV_XML_OK || strcmp(doc->value, "x]] y") != 0
                               : rc != KRV_XML_ERR_SYNTAX || doc != NULL) {
                        return 8;
                    }
                    KRV_XML_FreeNode(doc);
                }
            }
        }
        /* A file, when one is named (a run under valgrind names one). */
        if (argc > 1 && (KRV_XML_ParseFileEx(argv[1], &doc) != KRV_XML_OK || doc == NULL)) {
            return 6;
        }
        if (argc > 1) {
            KRV_XML_FreeNode(doc);
        }
    }
    return 0;
}
