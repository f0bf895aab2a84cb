#include "COMMON/plog_ex.h"

void init_plog(const char* name)
{
    init_log_normal(name);
    g_log_set_default_handler(my_glib_log_func, nullptr);
}
