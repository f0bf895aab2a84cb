#include "netcheck.h"

#include "i18n.h"
#include "ipv4.h"

#include <stdarg.h>

namespace {

std::string format(const char* fmt, ...) G_GNUC_PRINTF(1, 2);
std::string format(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    gchar* text = g_strdup_vprintf(fmt, args);
    va_end(args);
    std::string out(text);
    g_free(text);
    return out;
}

// One entry's text: the address in host order when it is one.
struct Entry {
    explicit Entry(const char* t) : text(t != NULL ? t : "")
    {
        guint8 octets[4];
        ok = ipv4_from_text(text.c_str(), octets);
        value = static_cast<guint32>(octets[0]) << 24 | static_cast<guint32>(octets[1]) << 16 |
                static_cast<guint32>(octets[2]) << 8 | octets[3];
    }
    std::string text;
    bool ok = false;
    guint32 value = 0;
};

std::string dotted(guint32 value)
{
    const guint8 octets[4] = {static_cast<guint8>(value >> 24), static_cast<guint8>(value >> 16),
                              static_cast<guint8>(value >> 8), static_cast<guint8>(value)};
    return ipv4_to_text(octets);
}

// Typed text in a sentence, cut short so that a pasted page of text cannot
// flood the status line.
std::string quoted(const std::string& text)
{
    const glong limit = 32;
    if (!g_utf8_validate(text.c_str(), -1, NULL))
        return "…";
    if (g_utf8_strlen(text.c_str(), -1) <= limit)
        return text;
    gchar* cut = g_utf8_substring(text.c_str(), 0, limit - 1);
    std::string out = std::string(cut) + "…";
    g_free(cut);
    return out;
}

// The prefix length of a mask whose ones come first, or -1.
int prefix_of(guint32 mask)
{
    const guint32 host = ~mask;
    if ((host & (host + 1)) != 0)
        return -1;
    int n = 0;
    for (guint32 m = mask; m != 0; m <<= 1)
        ++n;
    return n;
}

Finding error(std::string sentence)
{
    return Finding{Level::Error, std::move(sentence)};
}

Finding warning(std::string sentence)
{
    return Finding{Level::Warning, std::move(sentence)};
}

// The printer's subnet: known once the address and the mask are usable.
struct Subnet {
    guint32 network, broadcast;
    int prefix;
    std::string name() const { return dotted(network) + "/" + std::to_string(prefix); }
    bool holds(guint32 a) const { return (a & ~(broadcast ^ network)) == network; }
    // Only from /30 on are the first and last address not hosts.
    bool has_ends() const { return prefix <= 30; }
};

std::optional<Finding> check_address(const Entry& a, const std::optional<Subnet>& subnet)
{
    if (a.text.empty())
        return error(_("The IP address is empty: the printer needs one when DHCP is off."));
    if (!a.ok)
        return error(format(_("The IP address “%s” is not an IPv4 address such as 192.168.1.100."),
                            quoted(a.text).c_str()));
    const std::string v = dotted(a.value);
    const guint32 top = a.value >> 24;
    if (top == 0)
        return error(format(_("The IP address %s cannot be used: addresses starting with 0 stand for “this network”."),
                            v.c_str()));
    if (top == 127)
        return error(format(_("The IP address %s is a loopback address: no other device can reach it."), v.c_str()));
    if (a.value == 0xFFFFFFFF)
        return error(_("The IP address 255.255.255.255 is the broadcast address of every network: a printer cannot "
                       "have it."));
    if (top >= 224 && top <= 239)
        return error(format(_("The IP address %s is a multicast address (224 to 239): a printer cannot have it."),
                            v.c_str()));
    if (top >= 240)
        return error(format(_("The IP address %s is reserved (240 and above): a printer cannot have it."), v.c_str()));
    if (subnet && subnet->has_ends() && (a.value == subnet->network || a.value == subnet->broadcast)) {
        const char* text = a.value == subnet->network
                               ? _("The IP address %s is the network address of the subnet %s: use one from %s to %s.")
                               : _("The IP address %s is the broadcast address of the subnet %s: use one from %s to %s.");
        return error(format(text, v.c_str(), subnet->name().c_str(), dotted(subnet->network + 1).c_str(),
                            dotted(subnet->broadcast - 1).c_str()));
    }
    return std::nullopt;
}

std::optional<Finding> check_mask(const Entry& m, const Entry& g)
{
    if (m.text.empty())
        return error(_("The subnet mask is empty: the printer needs one when DHCP is off."));
    if (!m.ok)
        return error(format(_("The subnet mask “%s” is not an IPv4 address such as 255.255.255.0."),
                            quoted(m.text).c_str()));
    const std::string v = dotted(m.value);
    if (m.value == 0)
        return error(_("The subnet mask 0.0.0.0 makes every address local: the printer would never use its gateway."));
    const int prefix = prefix_of(m.value);
    if (prefix < 0) {
        // The two entries sit one above the other: a mask typed into the
        // gateway and the gateway into the mask is a common slip.
        if (g.ok && g.value != 0 && prefix_of(g.value) > 0)
            return error(format(_("%s is not a subnet mask, but the gateway %s is: are the two swapped?"), v.c_str(),
                                dotted(g.value).c_str()));
        return error(format(_("%s is not a subnet mask: its ones must come first."), v.c_str()));
    }
    if (prefix == 31)
        return warning(format(_("The subnet mask %s (/31) leaves room for only two devices in the subnet."), v.c_str()));
    if (prefix == 32)
        return warning(format(_("The subnet mask %s (/32) puts no other device in the printer's subnet."), v.c_str()));
    return std::nullopt;
}

std::optional<Finding> check_gateway(const Entry& g, const Entry& a, const std::optional<Subnet>& subnet)
{
    if (g.text.empty() || (g.ok && g.value == 0))
        return std::nullopt;  // no gateway: the printer reaches its own subnet only
    if (!g.ok)
        return error(format(_("The gateway “%s” is not an IPv4 address; leave it empty for none."),
                            quoted(g.text).c_str()));
    const std::string v = dotted(g.value);
    if (a.ok && g.value == a.value)
        return error(format(_("The gateway %s is the printer's own IP address: it would send to itself what is meant "
                              "for other networks."),
                            v.c_str()));
    if (!subnet)
        return std::nullopt;
    if (!subnet->holds(g.value))
        return warning(format(_("The gateway %s is outside the printer's subnet %s."), v.c_str(), subnet->name().c_str()));
    if (subnet->has_ends() && g.value == subnet->network)
        return warning(format(_("The gateway %s is the network address of the subnet %s."), v.c_str(),
                              subnet->name().c_str()));
    if (subnet->has_ends() && g.value == subnet->broadcast)
        return warning(format(_("The gateway %s is the broadcast address of the subnet %s."), v.c_str(),
                              subnet->name().c_str()));
    return std::nullopt;
}

} // namespace

NetFindings netcheck(bool dhcp, const char* address, const char* mask, const char* gateway)
{
    const Entry a(address), m(mask), g(gateway);
    NetFindings out;
    if (dhcp) {
        // The printer takes its address from the network; what it is sent
        // matters only if DHCP fails, and an empty entry is no surprise.
        const Entry* entries[] = {&a, &m, &g};
        for (size_t i = 0; i < out.entries.size(); ++i)
            if (!entries[i]->text.empty() && !entries[i]->ok)
                out.entries[i] = warning(_("Not an IPv4 address: Save sends 0.0.0.0"));
        return out;
    }
    std::optional<Subnet> subnet;
    const int prefix = m.ok && m.value != 0 ? prefix_of(m.value) : -1;
    if (a.ok && prefix > 0)
        subnet = Subnet{a.value & m.value, a.value | ~m.value, prefix};
    out[NetField::Address] = check_address(a, subnet);
    out[NetField::SubnetMask] = check_mask(m, g);
    out[NetField::Gateway] = check_gateway(g, a, subnet);
    return out;
}

bool NetFindings::has_error() const
{
    for (const auto& f : entries)
        if (f && f->level == Level::Error)
            return true;
    return false;
}
