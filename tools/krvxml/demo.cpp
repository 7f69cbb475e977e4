// krvxml demo: the library at work on a bundled document, one family of the
// interface after another, with nothing read from the user's files.
#include <cstdio>
#include <string>

#include "commands.h"
#include "demo_document.h"
#include "tool_support.h"

namespace krvtool {

namespace {

// Stops the demo at the first failing call, naming it.
struct Steps {
    bool Ok(uint32_t rc, const char *call)
    {
        if (rc != KRV_XML_OK) {
            ReportFailure("demo", call, rc);
            return false;
        }
        return true;
    }
};

const char *Str(const char *s)
{
    return s != nullptr ? s : "";
}

}  // namespace

int RunDemo(const Args &args)
{
    if (!args.positional.empty()) {
        std::fprintf(stderr, "krvxml demo: takes no arguments (see krvxml demo --help)\n");
        return kExitUsage;
    }
    Steps s;
    char version[32];
    if (!s.Ok(KRV_XML_GetVersion(version, sizeof version), "KRV_XML_GetVersion")) {
        return kExitFailed;
    }
    std::printf("%s\n\n", version);

    // Parsing: the whole document lives in one memory session, released by
    // the single KRV_XML_FreeNode of the Tree handle.
    Tree doc;
    if (!s.Ok(KRV_XML_ParseEx(kDemoDocument, doc.out()), "KRV_XML_ParseEx")) {
        return kExitFailed;
    }
    XmlNode *root = doc.get();
    unsigned elements = 0;
    for (XmlNode *n = root; n != nullptr; n = KRV_XML_Iterator(n)) {
        ++elements;
    }
    std::printf("parse     the bundled config.xml, in a memory session: %u elements\n", elements);

    // Navigation: the root's children and their attributes.
    uint32_t count = 0;
    if (!s.Ok(KRV_XML_GetNodeChildNum(root, &count), "KRV_XML_GetNodeChildNum")) {
        return kExitFailed;
    }
    std::printf("walk      %s has %u children:", Str(root->name), count);
    for (XmlNode *c = KRV_XML_GetNodeFirstChild(root); c != nullptr; c = KRV_XML_GetNodeNextSibling(c)) {
        const char *name = nullptr;
        if (!s.Ok(KRV_XML_GetNodeValue(c, nullptr, nullptr, &name, nullptr), "KRV_XML_GetNodeValue")) {
            return kExitFailed;
        }
        std::printf(" %s", Str(name));
    }
    std::printf("\n");

    // Path lookup and attribute reading.
    XmlNode *server = nullptr;
    if (!s.Ok(KRV_XML_GetNodeByUrl(root, "config.server.2", &server), "KRV_XML_GetNodeByUrl")) {
        return kExitFailed;
    }
    std::printf("lookup    config.server.2 ->");
    const char *prefix = nullptr;
    const char *name = nullptr;
    const char *value = nullptr;
    XmlNode *cursor = nullptr;
    while (KRV_XML_GetNextSiblingAttrEx(server, &prefix, &name, &value, &cursor) == KRV_XML_OK) {
        std::printf(" %s%s%s=\"%s\"", Str(prefix), prefix ? ":" : "", Str(name), Str(value));
    }
    std::printf("\n");

    // Typed values: read an attribute and an element value as integers and
    // write them back changed.
    uint16_t port = 0;
    int32_t timeout = 0;
    uint32_t secure = 0;
    XmlNode *timeoutNode = nullptr;
    if (!s.Ok(KRV_XML_GetAttrValueEx(server, nullptr, "port", KRV_XML_VALUE_UINT16, &port),
              "KRV_XML_GetAttrValueEx") ||
        !s.Ok(KRV_XML_GetAttrValueEx(server, nullptr, "secure", KRV_XML_VALUE_BOOL, &secure),
              "KRV_XML_GetAttrValueEx") ||
        !s.Ok(KRV_XML_GetNodeByUrl(root, "config.limits.timeout", &timeoutNode), "KRV_XML_GetNodeByUrl") ||
        !s.Ok(KRV_XML_GetNodeValueEx(timeoutNode, KRV_XML_VALUE_INT32, &timeout), "KRV_XML_GetNodeValueEx")) {
        return kExitFailed;
    }
    std::printf("typed     port %u (uint16), secure %s (bool), timeout %d (int32)\n", port,
                secure ? "true" : "false", timeout);

    uint16_t newPort = static_cast<uint16_t>(port + 1000);
    int32_t newTimeout = timeout * 2;
    uint8_t retries = 3;
    if (!s.Ok(KRV_XML_SetAttrValueEx(server, nullptr, "port", KRV_XML_VALUE_UINT16, &newPort),
              "KRV_XML_SetAttrValueEx") ||
        !s.Ok(KRV_XML_SetAttrValueEx(server, nullptr, "retries", KRV_XML_VALUE_UINT8, &retries),
              "KRV_XML_SetAttrValueEx") ||
        !s.Ok(KRV_XML_SetNodeValueEx(timeoutNode, KRV_XML_VALUE_INT32, &newTimeout),
              "KRV_XML_SetNodeValueEx")) {
        return kExitFailed;
    }
    std::printf("edit      port -> %u, new attribute retries=%u, timeout -> %d\n", newPort, retries,
                newTimeout);

    // Attribute editing and node strings.
    XmlNode *log = nullptr;
    if (!s.Ok(KRV_XML_GetNodeByUrl(root, "config.log", &log), "KRV_XML_GetNodeByUrl") ||
        !s.Ok(KRV_XML_SetAttr(log, nullptr, "level", "debug"), "KRV_XML_SetAttr") ||
        !s.Ok(KRV_XML_AddAttr(log, nullptr, "rotate", "daily"), "KRV_XML_AddAttr") ||
        !s.Ok(KRV_XML_RemoveAttr(root, nullptr, "version"), "KRV_XML_RemoveAttr") ||
        !s.Ok(KRV_XML_AddAttr(root, nullptr, "version", "4"), "KRV_XML_AddAttr") ||
        !s.Ok(KRV_XML_SetNode(log, nullptr, nullptr, "/var/log/inventory-debug.log"), "KRV_XML_SetNode")) {
        return kExitFailed;
    }
    std::printf("edit      log level=\"debug\" rotate=\"daily\", new log file, version -> 4\n");

    // Moving a node: take log out and put it back right after name.
    XmlNode *nameNode = KRV_XML_GetNodeFirstChild(root);
    if (!s.Ok(KRV_XML_RemoveNode(log), "KRV_XML_RemoveNode") ||
        !s.Ok(KRV_XML_AddNextSiblingNode(nameNode, log), "KRV_XML_AddNextSiblingNode")) {
        return kExitFailed;
    }
    std::printf("move      log now follows %s\n", Str(nameNode->name));

    // Copying a sub-tree: the copy is carved from the same session, changed,
    // and appended as a third server.
    XmlNode *copy = nullptr;
    if (!s.Ok(KRV_XML_CloneNode(server, &copy), "KRV_XML_CloneNode")) {
        return kExitFailed;
    }
    if (!s.Ok(KRV_XML_SetAttr(copy, nullptr, "host", "gamma.example.net"), "KRV_XML_SetAttr") ||
        !s.Ok(KRV_XML_AppendChildNode(root, copy), "KRV_XML_AppendChildNode")) {
        KRV_XML_FreeNode(copy);
        return kExitFailed;
    }
    XmlNode *third = nullptr;
    const char *host = nullptr;
    if (!s.Ok(KRV_XML_GetNodeByUrl(root, "config.server.3", &third), "KRV_XML_GetNodeByUrl") ||
        !s.Ok(KRV_XML_GetAttr(third, nullptr, "host", &host), "KRV_XML_GetAttr")) {
        return kExitFailed;
    }
    std::printf("copy      config.server.2 cloned and appended: config.server.3 host=\"%s\"\n", Str(host));

    // A new element made in the document's session, inserted first.
    XmlNode *note = nullptr;
    if (!s.Ok(KRV_XML_CreateNodeEx(root->mem, KRV_XML_NODE_ELEMENT, nullptr, "note", "edited by krvxml demo",
                                   &note),
              "KRV_XML_CreateNodeEx")) {
        return kExitFailed;
    }
    if (!s.Ok(KRV_XML_AddFirstChildNode(root, note), "KRV_XML_AddFirstChildNode")) {
        KRV_XML_FreeNode(note);
        return kExitFailed;
    }
    std::printf("create    <note> made in the document's session, added as first child\n");

    // Printing: the edited document back to text, released by the caller.
    char *text = nullptr;
    if (!s.Ok(KRV_XML_Transform(root, &text), "KRV_XML_Transform")) {
        return kExitFailed;
    }
    std::printf("\nthe edited document:\n%s", Str(text));
    KRV_XML_FreeMem(text);
    return kExitOk;  // main reports a failed write of standard output
}

}  // namespace krvtool
