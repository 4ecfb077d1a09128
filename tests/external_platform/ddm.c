/* A port table without ports: the look-ups that the library makes. */
#include "libddm.h"

int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    (void)ifx, (void)phyid;
    return LIBDDM_ENOENT;
}

int32_t libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    (void)phyid, (void)ifx;
    return LIBDDM_ENOENT;
}

int32_t libddm_get_lphyid_by_gphyid(uint32_t gphyid, uint32_t *lphyid)
{
    (void)gphyid, (void)lphyid;
    return LIBDDM_ENOENT;
}

int32_t libddm_get_gphyid_by_lphyid(uint32_t lphyid, uint32_t *gphyid)
{
    (void)lphyid, (void)gphyid;
    return LIBDDM_ENOENT;
}

int32_t libddm_get_unit_port_by_lphyid(uint32_t lphyid, int32_t *unit, int32_t *port)
{
    (void)lphyid, (void)unit, (void)port;
    return LIBDDM_ENOENT;
}

int32_t libddm_get_lphyid_by_unit_port(int32_t unit, int32_t port, uint32_t *lphyid)
{
    (void)unit, (void)port, (void)lphyid;
    return LIBDDM_ENOENT;
}
