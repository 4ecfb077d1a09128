// The application whose restart is measured: one user with as many evlans as eports, each with its attributes. Its
// first life makes the records, its second one finds them and asks for all of them once more.
#pragma once

#include <array>
#include <string>

#include "processes.hpp"
#include "store_calls.hpp"

namespace bench
{

constexpr uint32_t SESSION_DB = 4;
constexpr uint32_t EVLAN_ATTR_DB = 5;
constexpr uint32_t EPORT_ATTR_DB = 6;
constexpr uint32_t MIRROR_DB = 8;

// The phases of a life. The first one has no records to read, and neither marks nor deletes.
enum phase { START, MARK, REFRESH, DELETE, PHASES };  // PHASES: its end
inline constexpr std::array<const char *, PHASES> PHASE_NAMES{"start", "mark", "refresh", "delete"};

// Runs each phase when it is told to, and says the counts of its store calls when that is done; ends when it is told
// to. It ends too early where something is not as it should be. A life with `known` expects that many evlans and as
// many eports to be there, and their ids to stay.
process start_application(const std::string &url, int each, int known);

call_counts run_phase(const process &application, phase what);

}  // namespace bench
