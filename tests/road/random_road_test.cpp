// Random users, restarts and losses under many interleavings: whatever happens, in the end every session is answered, no
// id has two keys, no key two ids, and the mirror and the users agree with the store.
#include <random>

#include "world.hpp"

using namespace road;

namespace
{

class RandomRoad : public world, public testing::WithParamInterface<uint32_t>
{
  protected:
    static constexpr const char *NAMES[] = {"app", "bee", "cat"};

    void act(std::mt19937 *random);
    void check();
};

void RandomRoad::act(std::mt19937 *random)
{
    const auto below = [random](uint32_t n) { return static_cast<uint32_t>((*random)() % n); };
    const char *user = NAMES[below(3)];
    const uint32_t key = 1 + below(12);
    UBridge__EvlanAppIndex app = index(user, VXLAN, key);
    switch (below(24)) {
        case 0:
            kill_service();
            start_service();
            break;
        case 1:
            stop_service();
            qz_thread_run_pending(master, static_cast<int32_t>(1 + below(20)));
            start_service();
            break;
        case 2:
            qz_mom_embedded_lose(STORE);
            qz_thread_run_pending(master, static_cast<int32_t>(1 + below(10)));
            qz_mom_embedded_restore(STORE);
            advance(below(2) * SECOND);
            break;
        case 3:
        case 4:
        case 5:
        case 6:
            sw_evlan_release_direct(&app);
            break;
        case 7:
        case 8:
            app.t_user = const_cast<char *>(user);
            sw_evlan_release(&app);
            break;
        case 9:
            advance(below(30) * SECOND);
            break;
        case 10:
            request(user, VXLAN, key, 0x20000001 + below(12));
            break;
        default:
            request(user, VXLAN, key);
    }
    qz_thread_run_pending(master, static_cast<int32_t>(1 + below(12)));
}

void RandomRoad::check()
{
    std::map<uint32_t, uint32_t> key_of, id_of_key;
    const auto held = sessions(APP_DB);
    for (const auto &[text, content] : held) {
        ASSERT_EQ(content.reply, 1) << text;
        ASSERT_NE(content.reply_value, REFUSED) << text;
        ASSERT_EQ(key_of.emplace(content.reply_value, content.keyid).first->second, content.keyid) << text;
        ASSERT_EQ(id_of_key.emplace(content.keyid, content.reply_value).first->second, content.reply_value) << text;
    }
    EXPECT_EQ(stat().keys, id_of_key.size());
    EXPECT_EQ(stat().sessions, held.size());
    const auto mirrors = sessions(UDP_DB);
    ASSERT_EQ(mirrors.size(), held.size());
    for (const auto &[text, mirror] : mirrors)
        EXPECT_EQ(mirror.reply_value, held.at(text).reply_value) << text;
}

}  // namespace

TEST_P(RandomRoad, EndsWithOneIdPerKeyAndAllAnswered)
{
    std::mt19937 random(GetParam());
    ASSERT_EQ(qz_mom_embedded_seed(STORE, GetParam()), 0);
    start_service();
    ebridge_args app = user(0, "app");
    app.auto_subscribe = 1;
    app.evlan_data_type = 0;
    init(app);
    init(user(1, "bee"));
    init(user(2, "cat"));
    settle();
    for (int step = 0; step < 400; ++step) {
        act(&random);
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
    advance(100 * SECOND);
    check();
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomRoad, testing::Range(1U, 21U));
