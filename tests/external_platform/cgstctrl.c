/* A congestion control that never sees a queue. */
#include "libcgstctrl.h"

int32_t libcgstctrl_gen_init(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_state *state)
{
    (void)handle, (void)db, (void)module, (void)state;
    return 0;
}

int32_t libcgstctrl_gen_topic_reg(qz_mom_handle *handle, uint32_t db, const char *module,
                                  const libcgstctrl_topic *topic, uint32_t flags)
{
    (void)handle, (void)db, (void)module, (void)topic, (void)flags;
    return 0;
}
