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
        /* Every beginning of a few texts, ending at every place of a 16-byte
         * block with the rest of the block never written, parsed in both
         * regimes and printed: the scans read past the NUL, and valgrind
         * must find no branch on those bytes. */
        {
            static const char *const kTexts[] = {
                "<?xml version=\"1.0\"?><!-- c --><p:r xmlns:p=\"u\" a=\"1\" b='two' "
                "p:c=\"&amp;&#65;&#x42;\">\n <p:x>t &lt; u</p:x><y/><z k=\"v\"></z>"
                "<w><![CDATA[a]] b]]>tail</w><?pi d?><v>&quot;q&quot;</v></p:r>",
                "<r><![CDATA[x]] y]]></r>"};
            size_t i, cut;
            int shift;
            for (i = 0; i < sizeof kTexts / sizeof kTexts[0]; ++i) {
                for (cut = 1; cut <= strlen(kTexts[i]); ++cut) {
                    for (shift = 0; shift < 16; ++shift) {
                        int regime;
                        char *block = (char *)malloc(cut + 1 + (size_t)shift);
                        if (block == NULL) {
                            return 7;
                        }
                        memcpy(block + shift, kTexts[i], cut);
                        block[shift + cut] = '\0';
                        for (regime = 0; regime < 2; ++regime) {
                            char *out = NULL;
                            uint32_t rc = regime ? KRV_XML_ParseEx(block + shift, &doc)
                                                 : KRV_XML_Parse(block + shift, &doc);
                            if (rc == KRV_XML_OK && KRV_XML_Transform(doc, &out) == KRV_XML_OK) {
                                KRV_XML_FreeMem(out);
                            }
                            if (rc == KRV_XML_OK) {
                                KRV_XML_FreeNode(doc);
                            }
                            if ((rc == KRV_XML_OK) != (cut == strlen(kTexts[i]))) {
                                free(block);
                                return 8;  /* only the whole text is a document */
                            }
                        }
                        free(block);
                    }
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
