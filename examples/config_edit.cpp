// Reads and changes a configuration file with the C++ layer of KRV XML.
//
//   config_edit_cpp CONFIG [OUT]
//
// Lists the servers of CONFIG (config.xml of this directory), turns every
// server's secure flag on, adds a <backup> element with typed attributes and
// writes the document to OUT, or back to CONFIG.
//
// Build against an installed library:
//   c++ -std=c++17 config_edit.cpp $(pkg-config --cflags --libs krvxml) -o config_edit_cpp
#include <cstdio>

#include "krv_xml.hpp"

namespace kx = krv::xml;

static int failed(const char *what, kx::result r)
{
    std::fprintf(stderr, "config_edit_cpp: %s failed: 0x%08X\n", what, static_cast<unsigned>(r.code()));
    return 1;
}

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: config_edit_cpp CONFIG [OUT]\n");
        return 2;
    }
    kx::document doc;  // releases the document on every return
    if (kx::result r = kx::document::parse_file(argv[1], doc); !r) {
        return failed("parse", r);
    }

    for (kx::node child : doc.root().children()) {
        if (child.name() != "server") {
            continue;
        }
        std::string_view host;
        std::uint16_t port = 0;
        if (kx::result r = child.attr("host", host); !r) {
            return failed("read host", r);
        }
        if (kx::result r = child.get_attr_as("port", port); !r) {
            return failed("read port", r);
        }
        std::printf("server %.*s:%u\n", static_cast<int>(host.size()), host.data(), port);
        if (kx::result r = child.set_attr_as("secure", true); !r) {
            return failed("set secure", r);
        }
    }

    // The new element is carved from the document's session; appending it
    // hands it over to the document.
    kx::document backup;
    kx::result r = kx::document::create_element_in(doc.root(), "backup", nullptr, backup);
    if (r) {
        r = backup.root().set_attr_as<std::uint8_t>("keep", 7);
    }
    if (r) {
        r = backup.root().set_attr_as("enabled", true);
    }
    if (r) {
        r = doc.root().append_child(backup);
    }
    if (!r) {
        return failed("add backup", r);
    }

    if (kx::result w = doc.root().save(argc == 3 ? argv[2] : argv[1]); !w) {
        return failed("write", w);
    }
    std::printf("all servers secure, backup added\n");
    return 0;
}
