// Random users, restarts and losses under many interleavings: whatever happens, in the end every session is answered, no
// id has two keys, no key two ids, and the mirror and the users agree with the store.
#include <random>

#include "world.hpp"

using namespace road;

namespace
{

constexpr uint32_t PORT = 16, AP = 32;

class RandomRoad : public world, public testing::WithParamInterface<uint32_t>
{
  protected:
    static constexpr const char *NAMES[] = {"app", "bee", "cat"};

    void act(std::mt19937 *random);
    void act_on_service(uint32_t what, uint32_t how_long);
    void act_as_evlan_user(uint32_t what, const char *user, uint32_t key, uint32_t wanted);
    void act_as_eport_user(uint32_t what, const char *user, uint32_t key, uint32_t wanted);
    void clear_refused_eports();
    size_t check(kind of);
};

void RandomRoad::act(std::mt19937 *random)
{
    const auto below = [random](uint32_t n) { return static_cast<uint32_t>((*random)() % n); };
    const char *user = NAMES[below(3)];
    const uint32_t key = 1 + below(12), what = below(24), wanted = 0x20000001 + below(12);
    if (what < 4)
        act_on_service(what, below(30));
    else if (below(2) == 0)
        act_as_evlan_user(what, user, key, wanted);
    else
        act_as_eport_user(what, user, key, wanted);
    qz_thread_run_pending(master, static_cast<int32_t>(1 + below(12)));
}

void RandomRoad::act_on_service(uint32_t what, uint32_t how_long)
{
    switch (what) {
        case 0:
            kill_service();
            return start_service();
        case 1:
            stop_service();
            qz_thread_run_pending(master, static_cast<int32_t>(1 + how_long));
            return start_service();
        case 2:
            qz_mom_embedded_lose(STORE);
            qz_thread_run_pending(master, static_cast<int32_t>(1 + how_long / 2));
            qz_mom_embedded_restore(STORE);
            return advance(how_long % 2 * SECOND);
        default:
            advance(how_long * SECOND);
    }
}

void RandomRoad::act_as_evlan_user(uint32_t what, const char *user, uint32_t key, uint32_t wanted)
{
    UBridge__EvlanAppIndex app = index(user, VXLAN, key);
    if (what < 8)
        sw_evlan_release_direct(&app);
    else if (what < 10)
        sw_evlan_release(&app);
    else
        request(user, VXLAN, key, what == 10 ? wanted : 0);
}

// Ports and aggregate ports, some of which want ids of the other type.
void RandomRoad::act_as_eport_user(uint32_t what, const char *user, uint32_t key, uint32_t wanted)
{
    session asked{.of = kind::eport, .user = user, .type = key % 2 == 0 ? AP : PORT, .keyid = key};
    if (what < 8)
        return delete_session(APP_DB, asked);
    if (what < 10)
        return expire_session(APP_DB, asked, 40);
    asked.request_value = what == 10 ? wanted : what == 11 ? PORT << 24 | (wanted & 15) : asked.type << 24;
    asked.request = 1;
    put_session(APP_DB, asked);
}

// What the library would do.
void RandomRoad::clear_refused_eports()
{
    for (const auto &[text, content] : sessions(APP_DB, kind::eport))
        if (content.reply != 0 && content.reply_value == REFUSED)
            delete_session(APP_DB, content);
    settle();
}

size_t RandomRoad::check(kind of)
{
    using name = std::pair<uint32_t, uint32_t>;
    std::map<uint32_t, name> key_of;
    std::map<name, uint32_t> id_of_key;
    const auto held = sessions(APP_DB, of);
    for (const auto &[text, content] : held) {
        const name key{content.type, content.keyid};
        EXPECT_EQ(content.reply, 1) << text;
        EXPECT_NE(content.reply_value, REFUSED) << text;
        EXPECT_EQ(key_of.emplace(content.reply_value, key).first->second, key) << text;
        EXPECT_EQ(id_of_key.emplace(key, content.reply_value).first->second, content.reply_value) << text;
    }
    const auto mirrors = sessions(UDP_DB, of);
    EXPECT_EQ(mirrors.size(), held.size());
    for (const auto &[text, mirror] : mirrors) {
        const auto origin = held.find(text);
        EXPECT_TRUE(origin != held.end() && mirror.reply_value == origin->second.reply_value) << text;
    }
    return id_of_key.size();
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
    clear_refused_eports();
    const size_t evlans = check(kind::evlan), eports = check(kind::eport);
    EXPECT_EQ(stat().keys, evlans + eports);
    EXPECT_EQ(stat().sessions, sessions(APP_DB, kind::evlan).size() + sessions(APP_DB, kind::eport).size());
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomRoad, testing::Range(1U, 21U));
