// The words the tools and the inventory show for a link's state and duplex:
// those of `ip link` and ethtool, and "unknown" for what the kernel does
// not define.
#include <gtest/gtest.h>

#include "netif/netif_types.h"

TEST(NetifNames, OperationalStatesAndDuplexReadAsTheKernelsTools)
{
    const std::pair<uint8_t, const char*> states[] = {
        {0, "unknown"}, {1, "notpresent"}, {2, "down"}, {3, "lowerlayerdown"},
        {4, "testing"}, {5, "dormant"},    {6, "up"},   {7, "unknown"}, {255, "unknown"}};
    for (const auto& [state, name] : states)
        EXPECT_STREQ(libnetif::operstate_name(state), name) << int(state);
    EXPECT_STREQ(libnetif::duplex_name(libnetif::link_duplex::full), "full");
    EXPECT_STREQ(libnetif::duplex_name(libnetif::link_duplex::half), "half");
}
