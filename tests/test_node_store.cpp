// NodeStore and Session suites: records, sessions, routing, create/set/free.
#include <gtest/gtest.h>

#include <cstring>

#include "test_support.h"
#include "xml/xml_internal.h"

TEST(Session, BeginRefusesNonPositiveSizes)
{
    EXPECT_EQ(XML_MemSessionBegin(0), nullptr);
    EXPECT_EQ(XML_MemSessionBegin(-8), nullptr);
    EXPECT_EQ(XML_MemSessionEnd(nullptr), 0);
}
