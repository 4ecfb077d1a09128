// What "ebridge show sessions", "show ids" and "show holder" tell: tables for people, arrays for programs. See
// show_sessions.hpp.
#include <algorithm>
#include <array>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

#include "config_file.hpp"
#include "json_text.hpp"
#include "record_text.hpp"
#include "show_sessions.hpp"
#include "text_columns.hpp"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

namespace
{

constexpr const char *NAME_OF_STATE[] = {"open", "granted", "refused", "not requested"};
constexpr uint32_t NUMBER = 0xffffff;  // of an id

const char *kind_name(const id_kind &of) { return of.of_eports ? "eport" : "evlan"; }
const char *state_name(const shown_session &of) { return NAME_OF_STATE[static_cast<size_t>(of.state())]; }

std::string key_text(const shown_session &of)
{
    return std::to_string(of.key1) + (of.kind.of_eports ? '+' + std::to_string(of.key2) : "");
}

std::string wanted_text(const shown_session &of) { return (of.wanted & NUMBER) == 0 ? "any" : id_text(of.wanted); }

}  // namespace

std::string type_name(const id_kind &of)
{
    return type_name(of.of_eports ? u_bridge__eport_type__descriptor : u_bridge__evlan_type__descriptor,
                     static_cast<int32_t>(of.type));
}

// ---- for people -----------------------------------------------------------------------------------------------------

std::string sessions_table(const std::vector<shown_session> &sessions, bool with_db)
{
    std::vector<text_columns::cells> rows;
    std::set<std::string> users;
    std::array<size_t, std::size(NAME_OF_STATE)> in_state{};
    for (const shown_session &of : sessions) {
        rows.push_back({kind_name(of.kind), type_name(of.kind), key_text(of), config_text::printable(of.user),
                        std::to_string(of.db), wanted_text(of), state_name(of), of.id() == 0 ? "-" : id_text(of.id())});
        users.insert(of.user);
        ++in_state[static_cast<size_t>(of.state())];
    }
    const text_columns columns(
        {{"KIND"}, {"TYPE"}, {"KEY", true}, {"USER"}, {"DB", true, with_db}, {"WANTED"}, {"STATE"}, {"ID"}});
    std::string text =
        aligned(columns, rows) + counted(sessions.size(), "session") + " of " + counted(users.size(), "user");
    const char *before = ": ";
    for (size_t i = 0; i < in_state.size(); ++i)
        if (in_state[i] != 0) {
            text += before + std::string(NAME_OF_STATE[i]) + ' ' + std::to_string(in_state[i]);
            before = ", ";
        }
    return text + '\n';
}

std::string holders_table(const std::vector<shown_session> &holders, uint32_t id)
{
    std::vector<text_columns::cells> rows;
    std::set<std::tuple<id_kind, uint32_t, uint32_t>> keys;
    for (const shown_session &of : holders) {
        rows.push_back({kind_name(of.kind), type_name(of.kind), key_text(of), config_text::printable(of.user),
                        std::to_string(of.db), of.mom_db == 0 ? "-" : std::to_string(of.mom_db)});
        keys.emplace(of.kind, of.key1, of.key2);
    }
    if (rows.empty())
        return "nobody holds " + id_text(id) + '\n';
    const text_columns columns({{"KIND"}, {"TYPE"}, {"KEY", true}, {"USER"}, {"DB", true}, {"MOM_DB"}});
    return aligned(columns, rows) + id_text(id) + ": " + counted(keys.size(), "key") + ", " +
           counted(rows.size(), "session") + '\n';
}

std::string ids_table(const std::vector<id_usage> &usage)
{
    std::vector<text_columns::cells> rows;
    size_t in_use = 0;
    for (const id_usage &of : usage) {
        const std::string range = of.min > of.max ? "none" : std::to_string(of.min) + '-' + std::to_string(of.max);
        rows.push_back({kind_name(of.kind), type_name(of.kind), std::to_string(of.kind.type), range,
                        std::to_string(of.in_use), std::to_string(of.free)});
        in_use += of.in_use;
    }
    const text_columns columns({{"KIND"}, {"TYPE"}, {"NUMBER", true}, {"RANGE", true}, {"IN USE", true}, {"FREE"}});
    return aligned(columns, rows) + counted(in_use, "id") + " in use\n";
}

// ---- for programs ---------------------------------------------------------------------------------------------------

using json = nlohmann::ordered_json;

std::string sessions_json(const std::vector<shown_session> &sessions)
{
    std::string text = "[";
    for (const shown_session &of : sessions) {
        json object{{"db", of.db}, {"kind", kind_name(of.kind)}, {"type", type_name(of.kind)}};
        object[of.kind.of_eports ? "keyid1" : "keyid"] = of.key1;
        if (of.kind.of_eports)
            object["keyid2"] = of.key2;
        object.update({{"user", of.user}, {"wanted", of.wanted}, {"priority", of.priority}, {"state", state_name(of)}});
        if (of.answered)
            object["answer"] = of.answer;
        object["mom_db"] = of.mom_db;
        text += (text.size() == 1 ? "" : ",") + json_text(object);
    }
    return text + ']';
}

std::string ids_json(const std::vector<id_usage> &usage)
{
    json all = json::array();
    for (const id_usage &of : usage)
        all.push_back({{"kind", kind_name(of.kind)},
                       {"type", type_name(of.kind)},
                       {"min", of.min},
                       {"max", of.max},
                       {"in_use", of.in_use},
                       {"free", of.free}});
    return json_text(all);
}

}  // namespace ebridge_tool
