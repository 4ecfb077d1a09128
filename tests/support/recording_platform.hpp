// The recording platform: every platform call of the library, written down with its arguments, with results that a test
// chooses. Unit tests link the library's objects with it in place of the platform libraries.
//
// One process runs one test (the test main sees to that), so the library's process-wide state is fresh in each.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libddm.h"
#include "qz_mom.h"

namespace recording
{

// A call of the store client, the thread library, the debug shell or congestion control. Members that a call does not
// have keep their defaults.
struct call {
    std::string function;          // "qz_mom_hmset"
    const void *handle = nullptr;  // store handle, thread master or shell module
    uint32_t db = 0;
    std::string record;            // rendered message, see render(); of a congestion topic the record type's name
    std::vector<uint32_t> fields;  // field numbers; of a congestion topic its parameters
    uint32_t flags = 0;
    uint32_t count = 0;  // length of the lists as the library gave it
    int32_t mode = 0;
    size_t printed_before = 0;  // characters that went through ssat_vprint before it
    qz_mom_timeval delay{};     // expiry
    int32_t seconds = 0;        // timer
    std::string name;           // timer, module or command name
    std::string text;           // help text
    void *callback = nullptr;   // of lists the first
    void *args = nullptr;       // of congestion control the module name as it was handed over
    void *extra = nullptr;      // timer object, state block, congestion topic
};

struct log_line {
    std::string category;  // name given to qz_zlog_init
    std::string file;
    std::string function;
    long line = 0;
    int32_t level = 0;   // zlog level
    std::string format;  // what the library handed over as format: always "%s"
    std::string text;
    size_t printed_before = 0;  // characters that went through ssat_vprint before it
};

// Forgets calls, lines, prints and results. Arguments of accepted calls (result 0) stay reachable: a store holds them.
void reset();
qz_mom_handle *handle();        // a handle to give to the library; its master is master()
qz_mom_handle *other_handle();  // another one
qz_thread_master *master();

std::vector<call> &calls();
std::vector<call> calls_of(const std::string &function);
std::vector<log_line> &log();  // lines of both categories, in order
// Texts logged to the file category at this zlog level (0: any).
std::vector<std::string> logged(int32_t level = 0);
bool has_logged(const std::string &text, int32_t level = 0);
std::string &printed();  // what went through ssat_vprint
// Calls and file-category log lines in the order in which they happened: "call qz_mom_hmset", "log 40 the text".
std::vector<std::string> &sequence();

// The nth call from now of `function` (1: the next; 0: every one) returns `result`. Calls return 0 otherwise.
void set_result(const std::string &function, int32_t result, uint32_t nth = 0);
// qz_zlog_init of this category gives null.
void fail_category(const std::string &name);

// Allocations made by anyone in the process count from this call on; the nth from now fails once (0: none does).
// With `all_after`, every later one fails too. Needs the --wrap linker options that the unit tests are linked with.
void fail_allocation(uint64_t nth, bool all_after = false);
uint64_t allocations();    // since fail_allocation() was called last
uint64_t refused_bytes();  // of those that failed since then, in all
// Called with each pointer that is freed while set, before it is freed.
void on_free(void (*hook)(void *));

// Rows that the port look-ups find; reset() empties the list. A look-up that set_result() lets fail fills its out
// arguments all the same.
std::vector<libddm_port> &ports();

// Renders a message: u_bridge.evlan_session{index{t_user:"app" type:32} request:1}. Fields stand in the order of their
// numbers; those at their default are left out, a sub-message that is there shows itself even when it is empty
// (index{}), an enumeration is its number, a list stands in brackets (value:[1 2]). A null message renders as "null".
std::string render(const ProtobufCMessage *message);

}  // namespace recording
