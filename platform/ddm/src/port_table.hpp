// The port table: its rows, and one hash map for each way to name a port.
#ifndef DDM_PORT_TABLE_HPP
#define DDM_PORT_TABLE_HPP

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "libddm.h"

namespace ddm
{

bool is_aggregate(const libddm_port &row);

struct port_row : libddm_port {
    std::string name;  // empty: it has none
};

class port_table
{
  public:
    // 0, or a code of libddm_table_add(), also for a name that is there; std::bad_alloc leaves the table as it was.
    int32_t add(const libddm_port &ids, std::string_view name = {});
    uint32_t size() const { return static_cast<uint32_t>(rows_.size()); }

    // The row of a port, or null.
    const port_row *of_ifx(uint32_t ifx) const { return find(by_ifx_, ifx); }
    const port_row *of_phyid(uint32_t phyid) const { return find(by_phyid_, phyid); }
    const port_row *of_gphyid(uint32_t gphyid) const;
    const port_row *of_lphyid(uint32_t lphyid) const;
    const port_row *of_unit_port(int32_t unit, int32_t port) const;
    const port_row *of_name(std::string_view name) const { return find(by_name_, name); }

  private:
    template <typename Key>
    using id_index = std::unordered_map<Key, const port_row *>;

    template <typename Key>
    static const port_row *find(const id_index<Key> &rows, Key key)
    {
        const auto found = rows.find(key);
        return found == rows.end() ? nullptr : found->second;
    }

    bool holds_id_of(const port_row &row) const;
    void link(const port_row &row);
    void unlink(const port_row &row);

    std::deque<port_row> rows_;  // rows keep their addresses
    id_index<uint32_t> by_ifx_;
    id_index<uint32_t> by_phyid_;  // global and local ids: their kinds keep them apart
    id_index<uint64_t> by_unit_port_;
    id_index<std::string_view> by_name_;  // the rows hold the texts
};

}  // namespace ddm
#endif
