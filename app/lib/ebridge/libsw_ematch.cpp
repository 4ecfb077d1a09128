// Match rules: the process-wide table. Its contents come with the rules' records.
#include "export.hpp"
#include "keyed_cache.hpp"
#include "logging.hpp"
#include "names.hpp"

SW_EXPORT int32_t sw_ebridge_match_db_init(int32_t list, const char *user_name)
{
    if (const int32_t rv = sw_ebridge_list_init(); rv != 0) {
        SW_LOG(error, "Assert:EBIDGE user list init failed.\n");
        return rv;
    }
    if (!sw::family<sw_ematch_item>::exists(0) && sw_ematch_item_hash_init(1) != 0) {
        SW_LOG(error, "Assert:EMatch DB init failed.\n");
        return -1;
    }
    const auto table = static_cast<uint32_t>(list);
    if (user_name != nullptr && sw_ebridge_list_item_get_inst(table, user_name) == nullptr) {
        sw_ebridge_list_item blank = {};
        sw::copy_name(blank.user_name, user_name);
        sw_ebridge_list_add_inst(table, &blank);
    }
    return 0;
}
