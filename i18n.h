// The gettext macros of the window and its parts. Texts are looked up in the
// domain "Pellavoy"; the program does not bind it to a folder itself.
#pragma once

#include <glib.h>

#define _(text) g_dgettext("Pellavoy", text)
#define N_(text) text
#define NP_(singular, plural) singular, plural  // a plural pair, translated where used
