// What the core's tests share: users, logging set to tell everything, blocks that were freed, failing allocations, and a
// root folder of a test's own for the fixed paths (/etc, /data) that the library uses.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "connecting.hpp"
#include "recording_platform.hpp"
#include "sw_ebridge.h"

namespace core_test
{

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using strings = std::vector<std::string>;

inline constexpr int32_t kDebug = 20, kInfo = 40, kWarning = 80, kError = 100, kFatal = 120;
inline constexpr char kCoreFile[] = "app/lib/ebridge/libsw_ebridge.cpp";

// How a parameterised test is called after the name of its case.
template <typename Case>
std::string parameter_name(const testing::TestParamInfo<Case> &tested)
{
    return tested.param.name;
}

std::string format(const char *text, ...) __attribute__((format(printf, 1, 2)));

// ---- users

// Arguments of a user without callbacks, databases or flags.
ebridge_args args_of(const char *name);
// A record for the registry that carries a name and a database.
sw_ebridge_list_item record_of(const char *name, uint32_t mod_db = 0);
// Callbacks that only exist.
int32_t no_vlan_reply(UBridge__VlanAppIndex *, int32_t);
int32_t no_evlan_reply(UBridge__EvlanAppIndex *, UBridge__EvlanIndex *);
int32_t no_eport_reply(UBridge__EportAppIndex *, UBridge__EportIndex *);
int32_t no_eport_release_reply(UBridge__EportAppIndex *, UBridge__EportIndex *, int32_t);
int32_t no_pvid_change(uint32_t, uint16_t, uint16_t, sw_vlan_pvid_entry *);

bool linked_to_itself(const sw_list_head &link);

// ---- what was logged

// The only line of that text in the file category; a failure when there is none or more than one.
recording::log_line only_line(const std::string &text);
// Expects that line once in the file category, at this level and from this site.
void expect_line(const std::string &text, int32_t level, const std::string &file, const std::string &function);
strings errors();

// ---- memory

// The blocks that `work` freed.
std::vector<const void *> freed_by(const std::function<void()> &work);

// Runs body(n) for n = 1, 2, ... with the nth allocation failing, each in a process of its own because the library's
// tables live as long as the process, until it returns true: nothing failed any more. The logs of the runs are
// returned: for each the error lines, in order.
std::vector<strings> fail_each_allocation(const std::function<bool(uint64_t)> &body);

// ---- files

// A folder that is removed with all that it holds.
class temporary_folder
{
  public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder &) = delete;
    temporary_folder &operator=(const temporary_folder &) = delete;
    const std::string &path() const { return path_; }
    std::string write(const std::string &name, const std::string &text) const;

  private:
    std::string path_;
};

// While one lives, "/" is an empty temporary folder with /etc, /data and /tmp, so that fixed paths of the library reach
// nothing of the machine. There is no /proc in it.
class own_root
{
  public:
    own_root();
    ~own_root();
    own_root(const own_root &) = delete;
    own_root &operator=(const own_root &) = delete;
    bool entered() const { return entered_; }
    const std::string &reason() const { return reason_; }

  private:
    temporary_folder folder_;
    std::string reason_;
    int outside_ = -1;
    int working_folder_ = -1;
    bool entered_ = false;
};

// What `work` printed on standard output, error output and through the debug shell.
std::string output_of(const std::function<void()> &work);
std::string read_file(const std::string &path);

// Logging as a user with a debug file finds it: both categories, every class, both levels 7. A second set-up, as an
// initialisation makes it, then changes nothing.
class CoreTest : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace core_test
