/* A debug shell that forgets what is registered. */
#include "ssat.h"

int32_t ssat_lib_init(const char *name, ssat_module **module)
{
    (void)name, (void)module;
    return 0;
}

int32_t ssat_reg_mod_cmd(ssat_module *module, const char *command, uint32_t flags, const char *help,
                         ssat_handler handler)
{
    (void)module, (void)command, (void)flags, (void)help, (void)handler;
    return 0;
}

int32_t ssat_vprint(const char *format, va_list args)
{
    (void)format, (void)args;
    return 0;
}
