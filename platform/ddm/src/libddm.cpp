// The C face of the port table, and the one table of the process.
#include "libddm.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "port_file.hpp"
#include "port_table.hpp"

using ddm::is_aggregate;
using ddm::port_row;
using ddm::port_table;

namespace
{

// Made when it is first asked for, so that loading the library runs nothing; never destroyed, because threads may look
// ports up until the very end.
port_table *table = nullptr;

// The table's answer, or null while there is no table.
template <typename... Keys>
const port_row *find(const port_row *(port_table::*of)(Keys...) const, Keys... keys)
{
    return table ? (table->*of)(keys...) : nullptr;
}

// Puts a table made of the file in place of the one there is. Otherwise `line` says why not.
int32_t load(const char *path, std::string *line)
{
    std::string text;
    config_text::config_fault fault;
    if (const int code = config_text::read_file(path, &text); code != 0) {
        *line = config_text::fault_line(path, {0, std::strerror(code)});
        return LIBDDM_EIO;
    }
    auto fresh = std::make_unique<port_table>();
    if (const int32_t code = ddm::read_ports(text, fresh.get(), &fault); code != 0) {
        *line = config_text::fault_line(path, fault);
        return code;
    }
    delete table;
    table = fresh.release();
    return 0;
}

void tell(const char *line, char *error, size_t error_size)
{
    if (error)
        std::snprintf(error, error_size, "%s", line);
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

int32_t libddm_table_load(const char *path, char *error, size_t error_size)
{
    if (!path) {
        tell("no path", error, error_size);
        return LIBDDM_EINVAL;
    }
    try {
        std::string line;
        const int32_t code = load(path, &line);
        if (code != 0)
            tell(line.c_str(), error, error_size);
        return code;
    } catch (const std::bad_alloc &) {
        tell("out of memory", error, error_size);
        return LIBDDM_ENOMEM;
    }
}

void libddm_table_clear(void)
{
    delete table;
    table = nullptr;
}

uint32_t libddm_table_size(void) { return table ? table->size() : 0; }

int32_t libddm_get_ifx_by_name(const char *name, uint32_t *ifx)
{
    if (!name || !ifx)
        return LIBDDM_EINVAL;
    const port_row *row = find(&port_table::of_name, std::string_view(name));
    if (!row)
        return LIBDDM_ENOENT;
    *ifx = row->ifx;
    return 0;
}

int32_t libddm_get_name_by_ifx(uint32_t ifx, const char **name)
{
    if (!name)
        return LIBDDM_EINVAL;
    const port_row *row = find(&port_table::of_ifx, ifx);
    if (!row || row->name.empty())
        return LIBDDM_ENOENT;
    *name = row->name.c_str();
    return 0;
}

int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    if (!phyid)
        return LIBDDM_EINVAL;
    const port_row *row = find(&port_table::of_ifx, ifx);
    if (!row)
        return LIBDDM_ENOENT;
    *phyid = row->gphyid;
    return 0;
}

int32_t libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    if (!ifx)
        return LIBDDM_EINVAL;
    const port_row *row = find(&port_table::of_phyid, phyid);
    if (!row)
        return LIBDDM_ENOENT;
    *ifx = row->ifx;
    return 0;
}

int32_t libddm_get_lphyid_by_gphyid(uint32_t gphyid, uint32_t *lphyid)
{
    if (!lphyid)
        return LIBDDM_EINVAL;
    const port_row *row = find(&port_table::of_gphyid, gphyid);
    if (!row)
        return LIBDDM_ENOENT;
    *lphyid = row->lphyid;
    return 0;
}

int32_t libddm_get_gphyid_by_lphyid(uint32_t lphyid, uint32_t *gphyid)
{
    if (!gphyid)
        return LIBDDM_EINVAL;
    const port_row *row = find(&port_table::of_lphyid, lphyid);
    if (!row)
        return LIBDDM_ENOENT;
    *gphyid = row->gphyid;
    return 0;
}

int32_t libddm_get_unit_port_by_lphyid(uint32_t lphyid, int32_t *unit, int32_t *port)
{
    if (!unit || !port)
        return LIBDDM_EINVAL;
    const port_row *row = find(&port_table::of_lphyid, lphyid);
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
    const port_row *row = find(&port_table::of_unit_port, unit, port);
    if (!row)
        return LIBDDM_ENOENT;
    *lphyid = row->lphyid;
    return 0;
}
