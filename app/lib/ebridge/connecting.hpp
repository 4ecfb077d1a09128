// Arguments of a connection request: made by the connect step, owned by the connected callback. Shared by the data
// connection (libsw_ebridge.cpp) and the congestion connection (libsw_ebridge_congest.cpp). And of a subscription, which
// the data connection makes.
#pragma once

#include "logging.hpp"

namespace sw
{

// What a connection or subscription carries of its user.
struct list_args {
    char user_name[SW_EBRIDGE_NAME_SIZE];
    uint32_t db_flags;              // flag of the connection's database
    uint32_t subscribing_flags[8];  // subscriptions expected in this cycle, bit p in word p / 32
};

// What a subscription carries until it is confirmed.
struct subscribing_args {
    uint32_t bit;            // its bit in the flags
    list_args *list;         // a copy of its own, with all that the cycle expects
    subscribing_args *next;  // in the list of unconfirmed ones
};

inline constexpr uint32_t kAppDbFlag = 0x1000000;  // database 4
inline constexpr uint32_t kUdpDbFlag = 0x2000000;  // any other, in practice 8

// 0, or -2 with the reason logged and the arguments freed.
int32_t check_connecting_args(site where, sw_ebridge_connecting_args *ca);
// Logs the arguments and takes their flag into the process-wide word of connected databases.
void note_connected(site where, uint32_t &current_db_flags, const sw_ebridge_connecting_args *ca);
void free_connecting_args(sw_ebridge_connecting_args *ca);

}  // namespace sw
