// Diagnosis state that the evlan and eport sides share, and the dumps that the debug shell offers of it.
#pragma once

#include "sw_ebridge.h"

namespace sw
{

// How long a released id waits for its owner to come back; the debug shell's "delay" sets the seconds.
extern qz_mom_timeval evlan_delay_del_timeval;
extern qz_mom_timeval eport_delay_del_timeval;
// How long marked records live when the caller names no time.
extern const qz_mom_timeval mom_key_aging_timer;

// Print the counters, and the last five refused requests of each side. 0.
int32_t dump_statistics();
int32_t dump_evlan_errors();
int32_t dump_eport_errors();

}  // namespace sw
