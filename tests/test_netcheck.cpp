// The network settings' check: what the page holds, what is said of each entry.
#include "netcheck.h"

#include <gtest/gtest.h>

namespace {

// "E: sentence", "W: sentence" or "" for no finding.
std::string said(const std::optional<Finding>& f)
{
    if (!f)
        return "";
    return (f->level == Level::Error ? "E: " : "W: ") + f->sentence;
}

const bool on = true, off = false;
const char* const fine = "";

struct Case {
    bool dhcp;
    const char *address, *mask, *gateway;
    std::string on_address, on_mask, on_gateway;
};

const char* const not_ipv4 = "W: Not an IPv4 address: Save sends 0.0.0.0";

const Case cases[] = {
    // A usual office network, with and without a gateway.
    {off, "192.168.1.100", "255.255.255.0", "192.168.1.1", fine, fine, fine},
    {off, "192.168.1.100", "255.255.255.0", "", fine, fine, fine},
    {off, "192.168.1.100", "255.255.255.0", "0.0.0.0", fine, fine, fine},  // what Load shows for none

    // Entries that hold no address.
    {off, "", "", "", "E: The IP address is empty: the printer needs one when DHCP is off.",
     "E: The subnet mask is empty: the printer needs one when DHCP is off.", fine},
    {off, "300.1.1.1", "255.255.255", "printer.local",
     "E: The IP address “300.1.1.1” is not an IPv4 address such as 192.168.1.100.",
     "E: The subnet mask “255.255.255” is not an IPv4 address such as 255.255.255.0.",
     "E: The gateway “printer.local” is not an IPv4 address; leave it empty for none."},
    {off, "::1", "0123456789abcdefghijklmnopqrstuvwxyz", " 10.0.0.1",
     "E: The IP address “::1” is not an IPv4 address such as 192.168.1.100.",
     "E: The subnet mask “0123456789abcdefghijklmnopqrstu…” is not an IPv4 address such as 255.255.255.0.",
     "E: The gateway “ 10.0.0.1” is not an IPv4 address; leave it empty for none."},

    // Masks: ones first, not none, and the two narrowest.
    {off, "192.168.1.100", "255.0.255.0", "192.168.1.1", fine,
     "E: 255.0.255.0 is not a subnet mask: its ones must come first.", fine},
    {off, "192.168.1.100", "192.168.1.1", "255.255.255.0", fine,
     "E: 192.168.1.1 is not a subnet mask, but the gateway 255.255.255.0 is: are the two swapped?", fine},
    {off, "192.168.1.100", "0.0.0.0", "192.168.1.1", fine,
     "E: The subnet mask 0.0.0.0 makes every address local: the printer would never use its gateway.", fine},
    {off, "10.1.2.3", "128.0.0.0", "100.0.0.1", fine, fine, fine},
    {off, "10.1.2.3", "128.0.0.0", "200.0.0.1", fine, fine,
     "W: The gateway 200.0.0.1 is outside the printer's subnet 0.0.0.0/1."},
    {off, "10.0.0.4", "255.255.255.255", "10.0.0.1", fine,
     "W: The subnet mask 255.255.255.255 (/32) puts no other device in the printer's subnet.",
     "W: The gateway 10.0.0.1 is outside the printer's subnet 10.0.0.4/32."},
    {off, "10.0.0.4", "255.255.255.254", "10.0.0.5", fine,
     "W: The subnet mask 255.255.255.254 (/31) leaves room for only two devices in the subnet.", fine},
    {off, "10.0.0.5", "255.255.255.254", "10.0.0.4", fine,
     "W: The subnet mask 255.255.255.254 (/31) leaves room for only two devices in the subnet.", fine},

    // The subnet's first and last addresses: not hosts up to /30, hosts in /31.
    {off, "10.0.0.4", "255.255.255.252", "10.0.0.5",
     "E: The IP address 10.0.0.4 is the network address of the subnet 10.0.0.4/30: use one from 10.0.0.5 to 10.0.0.6.",
     fine, fine},
    {off, "10.0.0.7", "255.255.255.252", "10.0.0.6",
     "E: The IP address 10.0.0.7 is the broadcast address of the subnet 10.0.0.4/30: use one from 10.0.0.5 to "
     "10.0.0.6.",
     fine, fine},
    {off, "10.0.0.5", "255.255.255.252", "10.0.0.6", fine, fine, fine},
    {off, "192.168.1.0", "255.255.255.0", "", "E: The IP address 192.168.1.0 is the network address of the subnet "
     "192.168.1.0/24: use one from 192.168.1.1 to 192.168.1.254.", fine, fine},
    {off, "192.168.1.1", "255.255.255.0", "192.168.1.254", fine, fine, fine},
    {off, "192.168.1.100", "255.255.255.0", "192.168.1.255", fine, fine,
     "W: The gateway 192.168.1.255 is the broadcast address of the subnet 192.168.1.0/24."},
    {off, "192.168.1.100", "255.255.255.0", "192.168.1.0", fine, fine,
     "W: The gateway 192.168.1.0 is the network address of the subnet 192.168.1.0/24."},
    {off, "10.0.0.6", "255.255.255.252", "10.0.0.7", fine, fine,
     "W: The gateway 10.0.0.7 is the broadcast address of the subnet 10.0.0.4/30."},

    // Addresses no printer can have.
    {off, "0.0.0.0", "255.255.255.0", "",
     "E: The IP address 0.0.0.0 cannot be used: addresses starting with 0 stand for “this network”.", fine, fine},
    {off, "0.255.255.255", "255.0.0.0", "",
     "E: The IP address 0.255.255.255 cannot be used: addresses starting with 0 stand for “this network”.", fine, fine},
    {off, "1.0.0.1", "255.0.0.0", "", fine, fine, fine},
    {off, "127.0.0.1", "255.0.0.0", "",
     "E: The IP address 127.0.0.1 is a loopback address: no other device can reach it.", fine, fine},
    {off, "126.255.255.254", "255.0.0.0", "", fine, fine, fine},
    {off, "223.255.255.254", "255.255.255.0", "223.255.255.1", fine, fine, fine},
    {off, "223.255.255.255", "255.255.255.0", "",
     "E: The IP address 223.255.255.255 is the broadcast address of the subnet 223.255.255.0/24: use one from "
     "223.255.255.1 to 223.255.255.254.",
     fine, fine},
    {off, "223.255.255.255", "255.255.255.254", "", fine,
     "W: The subnet mask 255.255.255.254 (/31) leaves room for only two devices in the subnet.", fine},
    {off, "224.0.0.0", "255.255.255.254", "",
     "E: The IP address 224.0.0.0 is a multicast address (224 to 239): a printer cannot have it.",
     "W: The subnet mask 255.255.255.254 (/31) leaves room for only two devices in the subnet.", fine},
    {off, "239.255.255.255", "255.0.0.0", "",
     "E: The IP address 239.255.255.255 is a multicast address (224 to 239): a printer cannot have it.", fine, fine},
    {off, "240.0.0.1", "255.0.0.0", "",
     "E: The IP address 240.0.0.1 is reserved (240 and above): a printer cannot have it.", fine, fine},
    {off, "255.255.255.255", "255.255.255.0", "",
     "E: The IP address 255.255.255.255 is the broadcast address of every network: a printer cannot have it.", fine,
     fine},

    // The gateway.
    {off, "192.168.1.100", "255.255.255.0", "192.168.1.100", fine, fine,
     "E: The gateway 192.168.1.100 is the printer's own IP address: it would send to itself what is meant for other "
     "networks."},
    {off, "192.168.1.100", "255.255.255.0", "10.0.1.1", fine, fine,
     "W: The gateway 10.0.1.1 is outside the printer's subnet 192.168.1.0/24."},
    {off, "172.16.5.20", "255.255.240.0", "172.16.0.1", fine, fine, fine},
    {off, "172.16.5.20", "255.255.240.0", "172.16.16.1", fine, fine,
     "W: The gateway 172.16.16.1 is outside the printer's subnet 172.16.0.0/20."},
    // Without a usable mask or address there is no subnet to hold the gateway to.
    {off, "192.168.1.100", "255.0.255.0", "10.0.1.1", fine,
     "E: 255.0.255.0 is not a subnet mask: its ones must come first.", fine},
    {off, "", "255.255.255.0", "10.0.1.1", "E: The IP address is empty: the printer needs one when DHCP is off.",
     fine, fine},
    // The gateway is checked against the subnet even when the address is refused.
    {off, "127.0.0.1", "255.0.0.0", "10.0.1.1",
     "E: The IP address 127.0.0.1 is a loopback address: no other device can reach it.", fine,
     "W: The gateway 10.0.1.1 is outside the printer's subnet 127.0.0.0/8."},
    // A null text is an empty one.
    {off, nullptr, nullptr, nullptr, "E: The IP address is empty: the printer needs one when DHCP is off.",
     "E: The subnet mask is empty: the printer needs one when DHCP is off.", fine},

    // DHCP on: only what Save would send as 0.0.0.0, and an empty entry is fine.
    {on, "", "", "", fine, fine, fine},
    {on, "300.1.1.1", "::1", "printer.local", not_ipv4, not_ipv4, not_ipv4},
    {on, "0.0.0.0", "255.0.255.0", "10.0.1.1", fine, fine, fine},
    {on, "127.0.0.1", "255.255.255.255", "127.0.0.1", fine, fine, fine},
    {on, nullptr, nullptr, nullptr, fine, fine, fine},
};

} // namespace

TEST(NetCheck, EachEntryGetsAtMostOneFinding)
{
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.dhcp ? "DHCP on, " : "DHCP off, ") << (c.address ? c.address : "(null)")
                                        << " / " << (c.mask ? c.mask : "(null)") << " via "
                                        << (c.gateway ? c.gateway : "(null)"));
        const NetFindings f = netcheck(c.dhcp, c.address, c.mask, c.gateway);
        EXPECT_EQ(said(f[NetField::Address]), c.on_address);
        EXPECT_EQ(said(f[NetField::SubnetMask]), c.on_mask);
        EXPECT_EQ(said(f[NetField::Gateway]), c.on_gateway);
        const bool error = c.on_address.rfind("E:", 0) == 0 || c.on_mask.rfind("E:", 0) == 0 ||
                           c.on_gateway.rfind("E:", 0) == 0;
        EXPECT_EQ(f.has_error(), error);
    }
}
