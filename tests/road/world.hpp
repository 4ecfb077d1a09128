// A small switch in one process, for tests of whole roads: an embedded store on a driven clock, the allocator service on
// a handle of its own, up to four users of the library on another, and a spy that sees what is written. Sessions of
// eports are written and read with the store client, as the library would.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ebridged.h"
#include "qz_mom_embedded.h"
#include "sw_ebridge.h"

namespace road
{

inline constexpr uint32_t VLAN = 16, VXLAN = 32, L3VPN = 128;
inline constexpr uint32_t APP_DB = SW_EBRIDGE_APP_DB, UDP_DB = SW_EBRIDGE_UDP_DB;

enum class kind { evlan, eport };

// A session record as the store has it. An eport's key is (keyid / 2, keyid), so that both numbers tell keys apart.
struct session {
    kind of = kind::evlan;
    std::string user;
    uint32_t type = 0, keyid = 0, request_value = 0;
    int32_t priority = 0, request = 0;
    uint32_t reply_value = 0;
    int32_t reply = 0, mom_db = 0;
};

inline std::vector<std::string> events;  // what the users' callbacks hear
inline std::vector<std::string> service_log;

class world : public testing::Test
{
  protected:
    static constexpr const char *STORE = "road";
    static constexpr int64_t SECOND = 1'000'000;
    static constexpr uint32_t REFUSED = 0xffffffff;

    world();
    ~world() override;

    // Runs all that is due.
    // Until mirrors, which wait a moment for each other, are written, too.
    void settle() { qz_thread_advance(master, 5000); }
    void advance(int64_t usec) { qz_thread_advance(master, usec); }

    void start_service(std::vector<uint32_t> databases = {4});
    void stop_service();
    // As when its process dies: its handle goes with it, and what waited for that handle is heard by nobody.
    void kill_service();
    ebridged_stat stat() const;

    // User number n (0 to 3): callbacks write into `events`, as "NAME vlan 10 for REQUESTER/KEY" and the like.
    ebridge_args user(int n, const char *name);
    void init(const ebridge_args &args) { ASSERT_EQ(sw_ebridge_init(&args), 0); }

    static UBridge__EvlanAppIndex index(const char *user, uint32_t type, uint32_t keyid);
    static int32_t request(const char *user, uint32_t type, uint32_t keyid, uint32_t wanted = 0);
    static int32_t release_now(const char *user, uint32_t type, uint32_t keyid);
    static uint32_t id_of(uint32_t type, uint32_t keyid);  // as slot 0 of the library maps it; 0 when it does not

    // What a scan finds, by key text.
    std::map<std::string, session> sessions(uint32_t db, kind of = kind::evlan);
    session only_session(uint32_t db, kind of = kind::evlan);
    // Writes a session record as some user or service might have left it: request fields, and the answer unless 0.
    int32_t put_session(uint32_t db, const session &content);
    int32_t put_session(qz_mom_handle *handle, uint32_t db, const session &content);
    void delete_session(uint32_t db, const session &which);
    void expire_session(uint32_t db, const session &which, int32_t seconds);
    void write_range(uint32_t type, uint32_t min, uint32_t max, kind of = kind::evlan, uint32_t db = APP_DB);
    void delete_range(uint32_t type, kind of);
    // Changes of a database as they come, as "6 request_value,priority,request" or "3".
    void spy(uint32_t db, kind of = kind::evlan);

    qz_thread_master *master;
    qz_mom_handle *users = nullptr;
    qz_mom_handle *serving = nullptr;
    ebridged_service *service = nullptr;
    std::vector<std::string> written;  // what the spy sees
};

}  // namespace road
