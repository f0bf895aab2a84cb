#include "ipv4.h"

#include <gio/gio.h>

#include <string.h>

bool ipv4_from_text(const gchar* text, guint8 octets[4])
{
    memset(octets, 0, 4);
    GInetAddress* addr = text != NULL ? g_inet_address_new_from_string(text) : NULL;
    const bool ok = addr != NULL && g_inet_address_get_native_size(addr) == 4;
    if (ok)
        memcpy(octets, g_inet_address_to_bytes(addr), 4);
    g_clear_object(&addr);
    return ok;
}

std::string ipv4_to_text(const guint8* octets)
{
    GInetAddress* addr = g_inet_address_new_from_bytes(octets, G_SOCKET_FAMILY_IPV4);
    gchar* text = g_inet_address_to_string(addr);
    std::string out(text);
    g_free(text);
    g_object_unref(addr);
    return out;
}
