// IPv4 addresses between the page's text and the wire's four octets.
#pragma once

#include <glib.h>

#include <string>

// The four octets of a dotted-decimal IPv4 text, in network order. Anything
// else (an IPv6 text, a host name, nothing) gives false and four zero bytes.
bool ipv4_from_text(const gchar* text, guint8 octets[4]);
// The dotted-decimal text of four octets, e.g. "192.168.1.100".
std::string ipv4_to_text(const guint8* octets);
