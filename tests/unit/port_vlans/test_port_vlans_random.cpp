// Long random runs of additions and deletions, with tags and flags, against plain sets: what is held locally, and what
// readers of the published records would have. A run is told by its seed.
#include <map>
#include <random>

#include "port_vlans_fixture.hpp"

namespace
{

using namespace port_vlans_test;

const char *const users[] = {"app", "other"};

class model_run
{
  public:
    explicit model_run(uint32_t seed) : random_(seed) {}

    void run(int steps)
    {
        for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE(testing::Message() << "step " << step);
            recording::reset();
            const port which{users[below(2)], port_3 + static_cast<int32_t>(below(4))};
            const bool failing = below(10) == 0;
            recording::set_result("qz_mom_set", failing ? -105 : 0);
            recording::set_result("qz_mom_del", failing ? -105 : 0);
            const int32_t send_flag = static_cast<int32_t>(below(4));
            switch (below(6)) {
                case 0:
                case 1:
                    add_one(which, send_flag, failing);
                    break;
                case 2:
                    del_one(which, send_flag, failing);
                    break;
                case 3:
                    add_many(which, send_flag, failing);
                    break;
                case 4:
                    del_many(which, send_flag, failing);
                    break;
                default:
                    check(which, sw_vlan_port_range_vids_set(which.first.c_str(), which.second), -105, publish,
                          failing);
            }
            compare();
        }
    }

  private:
    using port = std::pair<std::string, int32_t>;

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

    // Now and then at the ends of the bitmap or of a word, else among few, so that the same ones meet again.
    size_t some_vid()
    {
        static constexpr size_t ends[] = {0, 31, 32, 4063, 4064, 4095};
        return below(3) == 0 ? ends[below(6)] : 2000 + below(70);
    }

    vlan_set some_set()
    {
        vlan_set set;
        const size_t first = below(4096);
        if (below(3) == 0)
            set = vlan_range(first, std::min<size_t>(first + below(300), 4095));
        for (uint32_t left = below(6); left > 0; --left)
            set.set(some_vid());
        return set;
    }

    // One bit at a time.
    void model_add(const port &which, const port_sets &given)
    {
        const auto found = held_.find(which);
        if (found == held_.end()) {
            held_[which] = given;
            return;
        }
        for (size_t vid = 0; vid < 4096; ++vid) {
            if (!given.vbmp[vid])
                continue;
            found->second.vbmp.set(vid);
            found->second.ubmp[vid] = given.ubmp[vid];
            found->second.mcbmp[vid] = given.mcbmp[vid];
        }
    }

    void model_del(const port &which, const vlan_set &given)
    {
        const auto found = held_.find(which);
        if (found == held_.end())
            return;
        for (size_t vid = 0; vid < 4096; ++vid)
            if (given[vid])
                found->second.vbmp[vid] = found->second.ubmp[vid] = found->second.mcbmp[vid] = false;
    }

    void add_one(const port &which, int32_t send_flag, bool failing)
    {
        const size_t vid = some_vid();
        const int32_t tag = static_cast<int32_t>(below(2)), number = static_cast<int32_t>(vid);
        const bool plain = below(2) == 0;
        if (plain)
            send_flag = publish | multicast;
        const vlan_set one = vlans({vid}), none;
        model_add(which, {one, tag == untagged ? one : none, (send_flag & multicast) != 0 ? one : none});
        const char *name = which.first.c_str();
        const int32_t rv = plain ? sw_vlan_port_add(name, number, which.second, tag)
                                 : sw_vlan_port_add_with_flag(name, number, which.second, tag, send_flag);
        check(which, rv, -3, send_flag, failing);
    }

    void del_one(const port &which, int32_t send_flag, bool failing)
    {
        const size_t vid = some_vid();
        const bool plain = below(2) == 0;
        if (plain)
            send_flag = publish;
        model_del(which, vlans({vid}));
        const char *name = which.first.c_str();
        const int32_t rv = plain ? sw_vlan_port_del(name, static_cast<int32_t>(vid), which.second)
                                 : sw_vlan_port_del_with_flag(name, static_cast<int32_t>(vid), which.second, send_flag);
        check(which, rv, -105, send_flag, failing);
    }

    void add_many(const port &which, int32_t send_flag, bool failing)
    {
        const port_sets given{some_set(), some_set(), some_set()};
        model_add(which, given);
        const int32_t rv = sw_vlan_port_range_vids_add_with_flag(which.first.c_str(), which.second, bitmap(given.vbmp),
                                                                 bitmap(given.ubmp), bitmap(given.mcbmp), send_flag);
        check(which, rv, -3, send_flag, failing);
    }

    void del_many(const port &which, int32_t send_flag, bool failing)
    {
        const vlan_set given = below(8) == 0 ? vlan_range(0, 4095) : some_set();
        model_del(which, given);
        check(which, sw_vlan_port_range_vids_del_with_flag(which.first.c_str(), which.second, bitmap(given), send_flag),
              -105, send_flag, failing);
    }

    // The result of a call, and its publication if there was one.
    void check(const port &which, int32_t rv, int32_t failure, int32_t send_flag, bool failing)
    {
        const auto found = held_.find(which);
        if (found == held_.end()) {
            EXPECT_EQ(rv, -5);
            EXPECT_THAT(recording::calls(), IsEmpty());
            return;
        }
        const bool published = (send_flag & publish) != 0;
        EXPECT_EQ(rv, published && failing ? failure : 0);
        if (!published) {
            EXPECT_THAT(recording::calls(), IsEmpty());
            return;
        }
        const recording::call made = only_call();
        EXPECT_EQ(made.function, found->second.vbmp.any() ? "qz_mom_set" : "qz_mom_del");
        EXPECT_EQ(made.record, record_of(found->second, which.second, which.first.c_str()));
        if (failing)
            return;
        if (made.function == "qz_mom_set")
            store_[which] = decoded(made.record);
        else
            store_.erase(which);
        read_[which] = found->second;
    }

    void compare()
    {
        for (const auto &[which, sets] : held_) {
            ASSERT_NE(sw_eport_db_get_item(0, which.first.c_str(), static_cast<uint32_t>(which.second)), nullptr);
            EXPECT_EQ(local(which.second, which.first.c_str()), sets);
        }
        // The store has what was true when it was last reached.
        for (const auto &[which, sets] : read_) {
            const auto found = store_.find(which);
            ASSERT_EQ(found != store_.end(), sets.vbmp.any());
            if (found == store_.end())
                continue;
            EXPECT_EQ(found->second, sets);
        }
    }

    std::mt19937 random_;
    std::map<port, port_sets> held_;   // what should be held locally
    std::map<port, port_sets> store_;  // what the records say
    std::map<port, port_sets> read_;   // what they should say
};

class PortVlansAtRandom : public PortVlansTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(PortVlansAtRandom, AreAsPlainSetsWouldBe)
{
    SCOPED_TRACE(testing::Message() << "seed " << GetParam());
    for (const char *name : users)
        add_user(name);
    g_sw_vlan_file_zlog_level = 0;
    model_run(GetParam()).run(1500);
}

INSTANTIATE_TEST_SUITE_P(Seeds, PortVlansAtRandom, testing::Range(1u, 9u));

}  // namespace
