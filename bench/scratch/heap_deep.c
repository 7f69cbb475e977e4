#define _POSIX_C_SOURCE 199309L
/* Edits of an N-deep heap chain, seconds per pattern: building it at its tip,
 * a copy of each element without children, an attribute added to each from
 * the deepest up, and moving the tip out and back N/2 times.
 *
 * Usage: heap_deep N */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include "krv_xml.h"
static double now(void) { struct timespec t; clock_gettime(CLOCK_MONOTONIC, &t); return t.tv_sec + t.tv_nsec * 1e-9; }
int main(int argc, char **argv) {
    int n = argc > 1 ? atoi(argv[1]) : 20000;
    XmlNode *doc, **chain = malloc(sizeof(XmlNode *) * (size_t)n);
    KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, NULL, "d", NULL, &doc);
    XmlNode *tip = doc;
    double t0 = now();
    for (int i = 0; i < n; i++) {
        KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, NULL, "e", NULL, &chain[i]);
        if (KRV_XML_AppendChildNode(tip, chain[i]) != KRV_XML_OK) return 1;
        tip = chain[i];
    }
    double t1 = now();
    for (int i = 0; i < n; i++) {
        XmlNode *c;
        if (KRV_XML_CloneNodeSelf(chain[i], &c) != KRV_XML_OK) return 2;
        KRV_XML_FreeNode(c);
    }
    double t2 = now();
    for (int i = n - 1; i >= 0; i--)
        if (KRV_XML_AddAttr(chain[i], NULL, "a", "1") != KRV_XML_OK) return 3;
    double t3 = now();
    for (int i = 0; i < n; i += 2) { /* move the tip: remove it, append it again */
        XmlNode *last = chain[n - 1];
        XmlNode *up = last->parent;
        if (KRV_XML_RemoveNode(last) != KRV_XML_OK || KRV_XML_AppendChildNode(up, last) != KRV_XML_OK) return 4;
    }
    double t4 = now();
    printf("n=%d build %.4f cloneSelf %.4f addAttr-upward %.4f moveTip %.4f\n", n, t1 - t0, t2 - t1, t3 - t2, t4 - t3);
    KRV_XML_FreeNode(doc);
    free(chain);
    return 0;
}
