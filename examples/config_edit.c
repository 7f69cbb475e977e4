/* Reads and changes a configuration file with the C interface of KRV XML.
 *
 *   config_edit CONFIG [OUT]
 *
 * Parses CONFIG (config.xml of this directory, or any file of that shape)
 * into a memory session, reads the first server's port and the connection
 * limit as integers, raises both, adds an <owner> element and writes the
 * document to OUT, or back to CONFIG.
 *
 * Build against an installed library:
 *   cc config_edit.c $(pkg-config --cflags --libs krvxml) -o config_edit
 */
#include <stdio.h>

#include "krv_xml.h"

static int failed(const char *what, uint32_t rc)
{
    fprintf(stderr, "config_edit: %s failed: 0x%08X\n", what, (unsigned)rc);
    return 1;
}

int main(int argc, char **argv)
{
    XmlNode *doc = NULL;
    XmlNode *server = NULL;
    XmlNode *connections = NULL;
    XmlNode *owner = NULL;
    uint16_t port = 0;
    int32_t limit = 0;
    uint32_t rc;
    int status = 0;

    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: config_edit CONFIG [OUT]\n");
        return 2;
    }
    /* The whole document lives in one memory session: one KRV_XML_FreeNode
     * at the end releases it. */
    rc = KRV_XML_ParseFileEx(argv[1], &doc);
    if (rc != KRV_XML_OK) {
        return failed("parse", rc);
    }

    /* Paths name the root first; "config.server" is its first server. */
    rc = KRV_XML_GetNodeByUrl(doc, "config.server", &server);
    if (rc == KRV_XML_OK) {
        rc = KRV_XML_GetAttrValueEx(server, NULL, "port", KRV_XML_VALUE_UINT16, &port);
    }
    if (rc == KRV_XML_OK) {
        rc = KRV_XML_GetNodeByUrl(doc, "config.limits.connections", &connections);
    }
    if (rc == KRV_XML_OK) {
        rc = KRV_XML_GetNodeValueEx(connections, KRV_XML_VALUE_INT32, &limit);
    }
    if (rc != KRV_XML_OK) {
        status = failed("read", rc);
        goto done;
    }
    printf("server port %u, connection limit %d\n", (unsigned)port, (int)limit);

    port = (uint16_t)(port + 1);
    limit *= 2;
    rc = KRV_XML_SetAttrValueEx(server, NULL, "port", KRV_XML_VALUE_UINT16, &port);
    if (rc == KRV_XML_OK) {
        rc = KRV_XML_SetNodeValueEx(connections, KRV_XML_VALUE_INT32, &limit);
    }
    if (rc != KRV_XML_OK) {
        status = failed("change", rc);
        goto done;
    }

    /* A new element for a session document is made in its session. */
    rc = KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, NULL, "owner", "operations", &owner);
    if (rc == KRV_XML_OK) {
        rc = KRV_XML_AppendChildNode(doc, owner);
        if (rc != KRV_XML_OK) {
            KRV_XML_FreeNode(owner);
        }
    }
    if (rc != KRV_XML_OK) {
        status = failed("add element", rc);
        goto done;
    }

    rc = KRV_XML_TransformFile(doc, argc == 3 ? argv[2] : argv[1]);
    if (rc != KRV_XML_OK) {
        status = failed("write", rc);
        goto done;
    }
    printf("now port %u, connection limit %d, owner added\n", (unsigned)port, (int)limit);

done:
    KRV_XML_FreeNode(doc);
    return status;
}
