// Looking up the user that a record or an argument names.
#pragma once

#include "logging.hpp"

namespace sw
{

// The user of that name in slot 0; its absence is logged for the caller.
[[gnu::noinline]] inline sw_ebridge_list_item *find_user(site where, const char *user_name)
{
    sw_ebridge_list_item *user = sw_ebridge_list_item_get(user_name);
    if (user == nullptr)
        SW_LOG_AT(where, error, "Assert:No user named '%s'.\n", printable(user_name));
    return user;
}

}  // namespace sw
