// The port table: its rows, and one hash map for each way to name a port.
#include "libddm.h"

#include <deque>
#include <new>
#include <unordered_map>

namespace
{

uint32_t kind_of(uint32_t phyid) { return phyid >> 24; }

uint64_t unit_port_key(int32_t unit, int32_t port)
{
    return static_cast<uint64_t>(static_cast<uint32_t>(unit)) << 32 | static_cast<uint32_t>(port);
}

bool is_aggregate(const libddm_port &row) { return kind_of(row.gphyid) == LIBDDM_KIND_AGGREGATE; }

bool well_formed(const libddm_port &row)
{
    if (is_aggregate(row))
        return row.lphyid == row.gphyid && row.unit == -1 && row.port == -1;
    return kind_of(row.gphyid) == LIBDDM_KIND_GLOBAL && kind_of(row.lphyid) == LIBDDM_KIND_LOCAL && row.unit >= 0 &&
           row.port >= 0;
}

class port_table
{
  public:
    int32_t add(const libddm_port &row);
    uint32_t size() const { return static_cast<uint32_t>(rows_.size()); }

    // The row of a port, or null.
    const libddm_port *of_ifx(uint32_t ifx) const { return find(by_ifx_, ifx); }
    const libddm_port *of_phyid(uint32_t phyid) const { return find(by_phyid_, phyid); }
    const libddm_port *of_gphyid(uint32_t gphyid) const;
    const libddm_port *of_lphyid(uint32_t lphyid) const;
    const libddm_port *of_unit_port(int32_t unit, int32_t port) const;

  private:
    template <typename Key>
    using id_index = std::unordered_map<Key, const libddm_port *>;

    template <typename Key>
    static const libddm_port *find(const id_index<Key> &rows, Key key)
    {
        const auto found = rows.find(key);
        return found == rows.end() ? nullptr : found->second;
    }

    bool holds_id_of(const libddm_port &row) const;
    void link(const libddm_port &row);
    void unlink(const libddm_port &row);

    std::deque<libddm_port> rows_;  // rows keep their addresses
    id_index<uint32_t> by_ifx_;
    id_index<uint32_t> by_phyid_;  // global and local ids: their kinds keep them apart
    id_index<uint64_t> by_unit_port_;
};

const libddm_port *port_table::of_gphyid(uint32_t gphyid) const
{
    const libddm_port *row = of_phyid(gphyid);
    return row && row->gphyid == gphyid ? row : nullptr;
}

const libddm_port *port_table::of_lphyid(uint32_t lphyid) const
{
    const libddm_port *row = of_phyid(lphyid);
    return row && row->lphyid == lphyid ? row : nullptr;
}

const libddm_port *port_table::of_unit_port(int32_t unit, int32_t port) const
{
    return find(by_unit_port_, unit_port_key(unit, port));
}

bool port_table::holds_id_of(const libddm_port &row) const
{
    return of_ifx(row.ifx) || of_phyid(row.gphyid) || of_phyid(row.lphyid) || of_unit_port(row.unit, row.port);
}

void port_table::link(const libddm_port &row)
{
    by_ifx_.emplace(row.ifx, &row);
    by_phyid_.emplace(row.gphyid, &row);
    by_phyid_.emplace(row.lphyid, &row);  // an aggregate's is there already
    if (!is_aggregate(row))
        by_unit_port_.emplace(unit_port_key(row.unit, row.port), &row);
}

void port_table::unlink(const libddm_port &row)
{
    by_ifx_.erase(row.ifx);
    by_phyid_.erase(row.gphyid);
    by_phyid_.erase(row.lphyid);
    by_unit_port_.erase(unit_port_key(row.unit, row.port));
}

int32_t port_table::add(const libddm_port &row)
{
    if (!well_formed(row))
        return LIBDDM_EINVAL;
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

// Made when it is first asked for, so that loading the library runs nothing; never destroyed, because threads may look
// ports up until the very end.
port_table *table = nullptr;

// The table's answer, or null while there is no table.
template <typename... Keys>
const libddm_port *find(const libddm_port *(port_table::*of)(Keys...) const, Keys... keys)
{
    return table ? (table->*of)(keys...) : nullptr;
}

}  // namespace

int32_t libddm_table_add(const libddm_port *row)
{
    if (!row)
        return LIBDDM_EINVAL;
    try {
        if (!table)
            table = new port_table;
        return table->add(*row);
    } catch (const std::bad_alloc &) {
        return LIBDDM_ENOMEM;
    }
}

void libddm_table_clear(void)
{
    delete table;
    table = nullptr;
}

uint32_t libddm_table_size(void) { return table ? table->size() : 0; }

int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    if (!phyid)
        return LIBDDM_EINVAL;
    const libddm_port *row = find(&port_table::of_ifx, ifx);
    if (!row)
        return LIBDDM_ENOENT;
    *phyid = row->gphyid;
    return 0;
}

int32_t libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    if (!ifx)
        return LIBDDM_EINVAL;
    const libddm_port *row = find(&port_table::of_phyid, phyid);
    if (!row)
        return LIBDDM_ENOENT;
    *ifx = row->ifx;
    return 0;
}

int32_t libddm_get_lphyid_by_gphyid(uint32_t gphyid, uint32_t *lphyid)
{
    if (!lphyid)
        return LIBDDM_EINVAL;
    const libddm_port *row = find(&port_table::of_gphyid, gphyid);
    if (!row)
        return LIBDDM_ENOENT;
    *lphyid = row->lphyid;
    return 0;
}

int32_t libddm_get_gphyid_by_lphyid(uint32_t lphyid, uint32_t *gphyid)
{
    if (!gphyid)
        return LIBDDM_EINVAL;
    const libddm_port *row = find(&port_table::of_lphyid, lphyid);
    if (!row)
        return LIBDDM_ENOENT;
    *gphyid = row->gphyid;
    return 0;
}

int32_t libddm_get_unit_port_by_lphyid(uint32_t lphyid, int32_t *unit, int32_t *port)
{
    if (!unit || !port)
        return LIBDDM_EINVAL;
    const libddm_port *row = find(&port_table::of_lphyid, lphyid);
    if (!row || is_aggregate(*row))
        return LIBDDM_ENOENT;
    *unit = row->unit;
    *port = row->port;
    return 0;
}

int32_t libddm_get_lphyid_by_unit_port(int32_t unit, int32_t port, uint32_t *lphyid)
{
    if (!lphyid)
        return LIBDDM_EINVAL;
    const libddm_port *row = find(&port_table::of_unit_port, unit, port);
    if (!row)
        return LIBDDM_ENOENT;
    *lphyid = row->lphyid;
    return 0;
}
