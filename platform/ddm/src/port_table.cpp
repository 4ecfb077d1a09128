// The port table. See port_table.hpp.
#include "port_table.hpp"

#include <new>

namespace ddm
{

namespace
{

uint32_t kind_of(uint32_t phyid) { return phyid >> 24; }

uint64_t unit_port_key(int32_t unit, int32_t port)
{
    return static_cast<uint64_t>(static_cast<uint32_t>(unit)) << 32 | static_cast<uint32_t>(port);
}

bool well_formed(const libddm_port &row)
{
    if (is_aggregate(row))
        return row.lphyid == row.gphyid && row.unit == -1 && row.port == -1;
    return kind_of(row.gphyid) == LIBDDM_KIND_GLOBAL && kind_of(row.lphyid) == LIBDDM_KIND_LOCAL && row.unit >= 0 &&
           row.port >= 0;
}

}  // namespace

bool is_aggregate(const libddm_port &row) { return kind_of(row.gphyid) == LIBDDM_KIND_AGGREGATE; }

const port_row *port_table::of_gphyid(uint32_t gphyid) const
{
    const port_row *row = of_phyid(gphyid);
    return row && row->gphyid == gphyid ? row : nullptr;
}

const port_row *port_table::of_lphyid(uint32_t lphyid) const
{
    const port_row *row = of_phyid(lphyid);
    return row && row->lphyid == lphyid ? row : nullptr;
}

const port_row *port_table::of_unit_port(int32_t unit, int32_t port) const
{
    return find(by_unit_port_, unit_port_key(unit, port));
}

bool port_table::holds_id_of(const port_row &row) const
{
    return of_ifx(row.ifx) || of_phyid(row.gphyid) || of_phyid(row.lphyid) || of_unit_port(row.unit, row.port) ||
           of_name(row.name);
}

void port_table::link(const port_row &row)
{
    by_ifx_.emplace(row.ifx, &row);
    by_phyid_.emplace(row.gphyid, &row);
    by_phyid_.emplace(row.lphyid, &row);  // an aggregate's is there already
    if (!is_aggregate(row))
        by_unit_port_.emplace(unit_port_key(row.unit, row.port), &row);
    if (!row.name.empty())
        by_name_.emplace(row.name, &row);
}

void port_table::unlink(const port_row &row)
{
    by_ifx_.erase(row.ifx);
    by_phyid_.erase(row.gphyid);
    by_phyid_.erase(row.lphyid);
    by_unit_port_.erase(unit_port_key(row.unit, row.port));
    by_name_.erase(row.name);
}

int32_t port_table::add(const libddm_port &ids, std::string_view name)
{
    if (!well_formed(ids))
        return LIBDDM_EINVAL;
    const port_row row{ids, std::string(name)};
    if (holds_id_of(row))
        return LIBDDM_EEXIST;
    rows_.push_back(row);
    try {
        link(rows_.back());
    } catch (const std::bad_alloc &) {
        unlink(rows_.back());
        rows_.pop_back();
        throw;
    }
    return 0;
}

}  // namespace ddm
