// What the tests of commands share: the handlers as the shell has them after a user's set-up, and the files that hold what
// they print.
#pragma once

#include <fstream>
#include <sstream>

#include "bridge_fixture.hpp"
#include "ssat.h"

namespace command_test
{

using namespace bridge_test;

// Keeps its line ends as they are.
inline std::string expected(const std::string &name)
{
    std::ifstream file(EXPECTED_OUTPUT "/" + name + ".txt", std::ios::binary);
    EXPECT_TRUE(file.is_open()) << name;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class CommandTest : public BridgeTest
{
  protected:
    CommandTest() : BridgeTest("app/lib/ebridge/libsw_ebridge") {}
    void SetUp() override
    {
        BridgeTest::SetUp();
        ebridge_args args{};
        args.user_name = "app";
        args.handle = recording::handle();
        EXPECT_EQ(sw_ebridge_init(&args), 0);
        registered_ = recording::calls_of("ssat_reg_mod_cmd");
        g_sw_vlan_file_zlog_level = 7;
        recording::reset();
    }

    // What the command prints; its result is to be `result`.
    std::string run(const std::string &name, const std::vector<int32_t> &arguments = {}, int32_t result = 0)
    {
        for (const auto &made : registered_) {
            if (made.name != name)
                continue;
            const auto handler = reinterpret_cast<ssat_handler>(made.callback);
            take_printed();
            EXPECT_EQ(handler(static_cast<int32_t>(arguments.size()), arguments.data()), result) << name;
            return take_printed();
        }
        ADD_FAILURE() << "no command " << name;
        return {};
    }

  private:
    std::vector<recording::call> registered_;
};

// An id as the shell hands it over.
constexpr int32_t argument(uint32_t id) { return static_cast<int32_t>(id); }

}  // namespace command_test
