/* Edits of an N-deep parsed chain while one new record of the document's
 * regime is held unlinked (a session then has a tree outside its document).
 *   loose_edits N session|heap add   attribute added to every element, shuffled order
 *   loose_edits N session|heap move  N times: a random element taken out, an
 *                                    attribute added and removed at another, the
 *                                    element put back under its old parent */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "krv_xml.h"

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

int main(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: %s N session|heap add|move\n", argv[0]);
        return 2;
    }
    int n = atoi(argv[1]);
    int heap = strcmp(argv[2], "heap") == 0;
    int move = strcmp(argv[3], "move") == 0;
    if (n < 2) {
        return 2;
    }
    char *text = malloc((size_t)n * 7 + 1);
    size_t at = 0;
    for (int i = 0; i < n; i++, at += 3) {
        memcpy(text + at, "<a>", 3);
    }
    for (int i = 0; i < n; i++, at += 4) {
        memcpy(text + at, "</a>", 4);
    }
    text[at] = '\0';
    XmlNode *doc = NULL;
    if ((heap ? KRV_XML_Parse(text, &doc) : KRV_XML_ParseEx(text, &doc)) != KRV_XML_OK) {
        fprintf(stderr, "parse failed\n");
        return 1;
    }
    XmlNode **chain = malloc(sizeof(XmlNode *) * (size_t)n);
    XmlNode *e = doc;
    for (int i = 0; i < n; i++, e = e->firstChild) {
        chain[i] = e;
    }
    XmlNode *held = NULL;
    if (KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, NULL, "held", NULL, &held) != KRV_XML_OK) {
        return 1;
    }
    srand(1);
    double start = now();
    uint32_t rc = KRV_XML_OK;
    if (!move) {
        for (int i = n - 1; i > 0; i--) {
            int j = rand() % (i + 1);
            XmlNode *t = chain[i];
            chain[i] = chain[j];
            chain[j] = t;
        }
        for (int i = 0; i < n && rc == KRV_XML_OK; i++) {
            rc = KRV_XML_AddAttr(chain[i], NULL, "k", "v");
        }
    } else {
        for (int i = 0; i < n && rc == KRV_XML_OK; i++) {
            int k = 1 + rand() % (n - 1);
            XmlNode *probe = chain[rand() % n];
            rc = KRV_XML_RemoveNode(chain[k]);
            if (rc == KRV_XML_OK && KRV_XML_AddAttr(probe, NULL, "k", "v") == KRV_XML_OK) {
                rc = KRV_XML_RemoveAttr(probe, NULL, "k");
            }
            if (rc == KRV_XML_OK) {
                rc = KRV_XML_AppendChildNode(chain[k - 1], chain[k]);
            }
        }
    }
    printf("%d %s %s %.4f s\n", n, argv[2], argv[3], now() - start);
    KRV_XML_FreeNode(held);
    KRV_XML_FreeNode(doc);
    free(chain);
    free(text);
    return rc == KRV_XML_OK ? 0 : 1;
}
