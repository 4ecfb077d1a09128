// Congestion control against its header, with a store client of the test's own: it takes the callbacks of the queues, and
// the test plays the marks. (test_congest_store.cpp has the real one, congest_fault_test.cpp a real server.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "allocation_failure.hpp"
#include "libcgstctrl.h"
#include "u_bridge.pb-c.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

struct watcher {
    qz_mom_queue_cb cb;
    void *args;
};
std::map<qz_mom_handle *, watcher> watchers;
int32_t watch_result = 0;
uint32_t depth = 0;

// Plays a mark of the handle's queue.
void mark(qz_mom_handle &handle, int32_t above)
{
    const watcher &heard = watchers.at(&handle);
    depth = above ? 100 : 10;
    heard.cb(&handle, above, depth, heard.args);
}

struct watched_writes {
    qz_mom_handle *handle;
    uint32_t db;
    const ProtobufCMessageDescriptor *type;
    uint32_t low, high;
    qz_mom_queue_cb cb;
    void *args;
};
std::vector<watched_writes> watched;
uint32_t waiting = 0;

struct notice {
    qz_mom_handle *handle;
    uint32_t db;
    std::string from;
    bool dated;
    bool operator==(const notice &) const = default;
};
std::vector<notice> notices;

ProtobufCMessageDescriptor named(const char *name)
{
    ProtobufCMessageDescriptor made{};
    made.name = name;
    return made;
}

const ProtobufCMessageDescriptor evlan_session = named("u_bridge.evlan_session");
const ProtobufCMessageDescriptor eport_session = named("u_bridge.eport_session");
const ProtobufCMessageDescriptor port_vid = named("u_bridge.port_vid");

// Plays a mark of the writes of one type.
void mark_writes(qz_mom_handle &handle, const ProtobufCMessageDescriptor &type, int32_t above)
{
    const std::vector<watched_writes> now = watched;
    for (const auto &each : now)
        if (each.handle == &handle && each.type == &type)
            each.cb(&handle, above, above ? each.high : each.low, each.args);
}

struct heard {
    uint32_t db;
    const ProtobufCMessageDescriptor *descriptor;
    int32_t congested;
    bool operator==(const heard &) const = default;
};

void hear(qz_mom_handle *, uint32_t db, const ProtobufCMessageDescriptor *descriptor, int32_t congested, void *args)
{
    static_cast<std::vector<heard> *>(args)->push_back({db, descriptor, congested});
}

libcgstctrl_topic topic_of(const ProtobufCMessageDescriptor &descriptor)
{
    return {.descriptor = &descriptor, .params = {}};
}

int32_t add_topic(qz_mom_handle &handle, uint32_t db, const char *module, const ProtobufCMessageDescriptor &descriptor)
{
    const libcgstctrl_topic topic = topic_of(descriptor);
    return libcgstctrl_gen_topic_reg(&handle, db, module, &topic, 0);
}

struct visit {
    const qz_mom_handle *handle;
    uint32_t db;
    std::string module;
    const ProtobufCMessageDescriptor *descriptor;
    bool operator==(const visit &) const = default;
};

int32_t note_visit(const qz_mom_handle *handle, uint32_t db, const char *module, const libcgstctrl_topic *topic,
                   void *args)
{
    static_cast<std::vector<visit> *>(args)->push_back({handle, db, module, topic->descriptor});
    return 0;
}

std::vector<visit> topics()
{
    std::vector<visit> all;
    EXPECT_EQ(0, libcgstctrl_for_each(note_visit, &all));
    return all;
}

}  // namespace

// Takes the place of the store client's.
int32_t qz_mom_set_queue_cb(qz_mom_handle *handle, qz_mom_queue_cb cb, void *args)
{
    if (watch_result == 0)
        watchers[handle] = {cb, args};
    return watch_result;
}

uint32_t qz_mom_queue_depth(qz_mom_handle *) { return depth; }

int32_t qz_mom_watch_writes(qz_mom_handle *handle, uint32_t db, const ProtobufCMessageDescriptor *type, uint32_t low,
                            uint32_t high, qz_mom_queue_cb cb, void *args)
{
    if (watch_result != 0)
        return watch_result;
    for (auto &each : watched)
        if (each.handle == handle && each.db == db && each.type == type && each.args == args)
            return 0;
    watched.push_back({handle, db, type, low, high, cb, args});
    return 0;
}

uint32_t qz_mom_writes_waiting(qz_mom_handle *, uint32_t, const ProtobufCMessageDescriptor *) { return waiting; }

int32_t qz_mom_set_ahead(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record)
{
    // By way of void: on some targets its fields want more alignment than a message's head.
    const auto *written = static_cast<const UBridge__CongestNotify *>(static_cast<const void *>(record));
    notices.push_back({handle, db, written->notice_from, written->timestamp != 0});
    return 0;
}

TEST(Congest, RefusesWhatCannotBeRegistered)
{
    qz_mom_handle handle{};
    const libcgstctrl_topic topic = topic_of(port_vid), nothing{};
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_init(nullptr, 0, "m", nullptr));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_init(&handle, 0, nullptr, nullptr));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_init(&handle, 0, "", nullptr));
    EXPECT_THAT(watchers, IsEmpty());
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 0, "m", nullptr));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_topic_reg(nullptr, 0, "m", &topic, 0));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_topic_reg(&handle, 0, nullptr, &topic, 0));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_topic_reg(&handle, 0, "", &topic, 0));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_topic_reg(&handle, 0, "m", nullptr, 0));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_topic_reg(&handle, 0, "m", &nothing, 0));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_topic_reg(&handle, 0, "m", &topic, 1));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_for_each(nullptr, nullptr));
    EXPECT_THAT(topics(), IsEmpty());
}

TEST(Congest, TopicNeedsItsProducer)
{
    qz_mom_handle handle{}, other{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    EXPECT_EQ(LIBCGSTCTRL_ENOENT, add_topic(other, 4, "m", port_vid));
    EXPECT_EQ(LIBCGSTCTRL_ENOENT, add_topic(handle, 5, "m", port_vid));
    EXPECT_EQ(LIBCGSTCTRL_ENOENT, add_topic(handle, 4, "n", port_vid));
    EXPECT_EQ(0, add_topic(handle, 4, "m", port_vid));
}

TEST(Congest, TopicsAreVisitedInTheOrderOfRegistration)
{
    qz_mom_handle a{}, b{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&a, 4, "libvlan_a", nullptr));
    ASSERT_EQ(0, libcgstctrl_gen_init(&b, 5, "libvlan_b", nullptr));
    EXPECT_EQ(0, add_topic(b, 5, "libvlan_b", evlan_session));
    EXPECT_EQ(0, add_topic(a, 4, "libvlan_a", evlan_session));
    EXPECT_EQ(0, add_topic(a, 4, "libvlan_a", eport_session));
    EXPECT_EQ(0, add_topic(b, 5, "libvlan_b", port_vid));
    EXPECT_THAT(topics(),
                ElementsAre(visit{&b, 5, "libvlan_b", &evlan_session}, visit{&a, 4, "libvlan_a", &evlan_session},
                            visit{&a, 4, "libvlan_a", &eport_session}, visit{&b, 5, "libvlan_b", &port_vid}));
}

TEST(Congest, TopicThatIsAlreadyThereStays)
{
    qz_mom_handle handle{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    libcgstctrl_topic topic{.descriptor = &port_vid, .params = {4, 1, 3, 4}};
    EXPECT_EQ(0, libcgstctrl_gen_topic_reg(&handle, 4, "m", &topic, 0));
    topic.params[0] = 9;  // the caller's own: it was copied
    EXPECT_EQ(0, libcgstctrl_gen_topic_reg(&handle, 4, "m", &topic, 0));
    EXPECT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    std::vector<uint32_t> params;
    const libcgstctrl_visitor keep = [](const qz_mom_handle *, uint32_t, const char *, const libcgstctrl_topic *each,
                                        void *args) -> int32_t {
        auto *all = static_cast<std::vector<uint32_t> *>(args);
        all->insert(all->end(), each->params, each->params + 4);
        return 0;
    };
    EXPECT_EQ(0, libcgstctrl_for_each(keep, &params));
    EXPECT_THAT(params, ElementsAre(4, 1, 3, 4));
}

TEST(Congest, WalkEndsAtTheFirstNonZeroResult)
{
    qz_mom_handle handle{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    for (const auto *descriptor : {&evlan_session, &eport_session, &port_vid})
        ASSERT_EQ(0, add_topic(handle, 4, "m", *descriptor));
    int32_t visits = 0;
    const libcgstctrl_visitor stop_at_two = [](const qz_mom_handle *, uint32_t, const char *, const libcgstctrl_topic *,
                                               void *args) -> int32_t {
        return ++*static_cast<int32_t *>(args) == 2 ? -42 : 0;
    };
    EXPECT_EQ(-42, libcgstctrl_for_each(stop_at_two, &visits));
    EXPECT_EQ(2, visits);
}

TEST(Congest, VisitorMayRegister)
{
    static qz_mom_handle handle{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    ASSERT_EQ(0, add_topic(handle, 4, "m", evlan_session));
    const libcgstctrl_visitor add = [](const qz_mom_handle *, uint32_t, const char *, const libcgstctrl_topic *,
                                       void *) -> int32_t { return add_topic(handle, 4, "m", eport_session); };
    EXPECT_EQ(0, libcgstctrl_for_each(add, nullptr));
    EXPECT_EQ(2U, topics().size());
}

TEST(Congest, StateFollowsTheMarksOfItsHandle)
{
    qz_mom_handle handle{}, other{};
    libcgstctrl_state state{}, other_state{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &state));
    ASSERT_EQ(0, libcgstctrl_gen_init(&other, 4, "m", &other_state));
    mark(handle, 1);
    EXPECT_EQ(1U, state.congested);
    EXPECT_EQ(1U, state.highs);
    EXPECT_EQ(0U, state.lows);
    mark(handle, 0);
    EXPECT_EQ(0U, state.congested);
    EXPECT_EQ(1U, state.lows);
    mark(handle, 1);
    EXPECT_EQ(2U, state.highs);
    EXPECT_EQ(0U, other_state.congested + other_state.highs + other_state.lows);
}

TEST(Congest, AllProducersOfAHandleHearItsMarks)
{
    qz_mom_handle handle{};
    libcgstctrl_state a{}, b{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &a));
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 5, "n", &b));
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 5, "stateless", nullptr));
    mark(handle, 1);
    mark(handle, 0);
    for (const auto *state : {&a, &b}) {
        EXPECT_EQ(1U, state->highs);
        EXPECT_EQ(1U, state->lows);
        EXPECT_EQ(0U, state->congested);
    }
}

TEST(Congest, NamingAProducerAgainTakesTheNewStateBlock)
{
    qz_mom_handle handle{};
    libcgstctrl_state first{}, second{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &first));
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    mark(handle, 1);
    EXPECT_EQ(1U, first.highs);
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &second));
    EXPECT_EQ(1U, second.congested);
    EXPECT_EQ(0U, second.highs);
    mark(handle, 0);
    EXPECT_EQ(0U, second.congested);
    EXPECT_EQ(1U, second.lows);
    EXPECT_EQ(0U, first.lows);
}

TEST(Congest, ProducerThatComesBetweenTheMarksKnowsTheStateOfItsHandle)
{
    qz_mom_handle handle{};
    libcgstctrl_state first{}, second{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &first));
    mark(handle, 1);
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 5, "n", &second));
    EXPECT_EQ(1U, second.congested);
    mark(handle, 0);
    EXPECT_EQ(0U, second.congested);
    EXPECT_EQ(1U, second.lows);
}

TEST(Congest, LowMarkWithoutAHighOneDoesNotCount)
{
    qz_mom_handle handle{};
    libcgstctrl_state state{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &state));
    mark(handle, 0);
    EXPECT_EQ(0U, state.congested + state.highs + state.lows);
}

TEST(Congest, HandleThatCannotBeWatchedRegistersNothing)
{
    qz_mom_handle handle{};
    watch_result = QZ_MOM_EINVAL;
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    watch_result = QZ_MOM_ENOMEM;
    EXPECT_EQ(LIBCGSTCTRL_ENOMEM, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    EXPECT_EQ(LIBCGSTCTRL_ENOENT, add_topic(handle, 4, "m", port_vid));
}

TEST(Congest, WithoutMemoryNothingIsRegistered)
{
    qz_mom_handle handle{};
    const std::string module(100, 'm');
    watchers[&handle] = {};  // so that the test's own store client needs no memory
    watched.reserve(watched.size() + 16);
    const auto init = [&] { return libcgstctrl_gen_init(&handle, 4, module.c_str(), nullptr); };
    EXPECT_LE(2U, failures_reported(init, LIBCGSTCTRL_ENOMEM));
    const auto add = [&] { return add_topic(handle, 4, module.c_str(), port_vid); };
    EXPECT_LE(2U, failures_reported(add, LIBCGSTCTRL_ENOMEM));
    EXPECT_EQ(1U, topics().size());
    EXPECT_EQ(1U, watched.size());
    const libcgstctrl_visitor nothing = [](const qz_mom_handle *, uint32_t, const char *, const libcgstctrl_topic *,
                                           void *) -> int32_t { return 0; };
    EXPECT_EQ(1U, failures_reported([&] { return libcgstctrl_for_each(nothing, nullptr); }, LIBCGSTCTRL_ENOMEM));
}

TEST(Congest, MarksOfATopicAreItsParametersOrDefaults)
{
    qz_mom_handle handle{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    const auto add = [&](const ProtobufCMessageDescriptor &type, uint32_t high, uint32_t low) {
        const libcgstctrl_topic topic{.descriptor = &type, .params = {high, low, 0, 0}};
        return libcgstctrl_gen_topic_reg(&handle, 4, "m", &topic, 0);
    };
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, add(evlan_session, 5, 5));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, add(evlan_session, 0, 16384));
    EXPECT_THAT(watched, IsEmpty());
    EXPECT_EQ(0, add(evlan_session, 0, 0));
    EXPECT_EQ(0, add(eport_session, 100, 0));
    EXPECT_EQ(0, add(port_vid, 100, 99));
    ASSERT_EQ(3U, watched.size());
    const uint32_t wanted[3][2] = {{4096, 16384}, {25, 100}, {99, 100}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(wanted[i][0], watched[i].low);
        EXPECT_EQ(wanted[i][1], watched[i].high);
        EXPECT_EQ(4U, watched[i].db);
    }
}

TEST(Congest, EachMarkOfATopicIsToldToItsProducerOnceAndNoticedOnce)
{
    qz_mom_handle handle{};
    std::vector<heard> marks;
    libcgstctrl_state state{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "libvlan_app", &state));
    ASSERT_EQ(0, libcgstctrl_set_cb(&handle, 4, "libvlan_app", hear, &marks));
    ASSERT_EQ(0, add_topic(handle, 4, "libvlan_app", evlan_session));
    ASSERT_EQ(0, add_topic(handle, 4, "libvlan_app", port_vid));
    mark_writes(handle, port_vid, 1);
    EXPECT_EQ(1U, state.congested);
    mark_writes(handle, evlan_session, 1);
    mark_writes(handle, port_vid, 0);
    EXPECT_EQ(1U, state.congested);  // the other topic
    mark_writes(handle, evlan_session, 0);
    EXPECT_THAT(marks, ElementsAre(heard{4, &port_vid, 1}, heard{4, &evlan_session, 1}, heard{4, &port_vid, 0},
                                   heard{4, &evlan_session, 0}));
    const char vid[] = "libvlan_app:u_bridge.port_vid", evlan[] = "libvlan_app:u_bridge.evlan_session";
    EXPECT_THAT(notices, ElementsAre(notice{&handle, 4, vid, true}, notice{&handle, 4, evlan, true},
                                     notice{&handle, 4, vid, false}, notice{&handle, 4, evlan, false}));
    EXPECT_EQ(0U, state.congested);
    EXPECT_EQ(2U, state.highs);
    EXPECT_EQ(2U, state.lows);
}

TEST(Congest, ProducersHearOfTheirOwnTopicsAlone)
{
    qz_mom_handle a{}, b{};
    std::vector<heard> of_a, of_b;
    for (auto *each : {&a, &b}) {
        ASSERT_EQ(0, libcgstctrl_gen_init(each, 4, "m", nullptr));
        ASSERT_EQ(0, add_topic(*each, 4, "m", port_vid));
    }
    ASSERT_EQ(0, libcgstctrl_set_cb(&a, 4, "m", hear, &of_a));
    ASSERT_EQ(0, libcgstctrl_set_cb(&b, 4, "m", hear, &of_b));
    mark_writes(b, port_vid, 1);
    EXPECT_THAT(of_a, IsEmpty());
    EXPECT_THAT(of_b, ElementsAre(heard{4, &port_vid, 1}));
    EXPECT_EQ(0, libcgstctrl_congested(&a, 4, "m", &port_vid));
    EXPECT_EQ(1, libcgstctrl_congested(&b, 4, "m", &port_vid));
}

TEST(Congest, CallbackIsReplacedAndEnded)
{
    qz_mom_handle handle{};
    std::vector<heard> first, second;
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_set_cb(nullptr, 4, "m", hear, nullptr));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_set_cb(&handle, 4, "", hear, nullptr));
    EXPECT_EQ(LIBCGSTCTRL_ENOENT, libcgstctrl_set_cb(&handle, 4, "m", hear, nullptr));
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
    ASSERT_EQ(0, libcgstctrl_set_cb(&handle, 4, "m", hear, &first));
    ASSERT_EQ(0, libcgstctrl_set_cb(&handle, 4, "m", hear, &second));
    mark_writes(handle, port_vid, 1);
    ASSERT_EQ(0, libcgstctrl_set_cb(&handle, 4, "m", nullptr, nullptr));
    mark_writes(handle, port_vid, 0);
    EXPECT_THAT(first, IsEmpty());
    EXPECT_EQ(1U, second.size());
}

TEST(Congest, RegisteringAgainTellsNothingTwice)
{
    qz_mom_handle handle{};
    std::vector<heard> marks;
    libcgstctrl_state state{};
    for (int times = 0; times < 3; ++times) {
        ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &state));
        ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
        ASSERT_EQ(0, libcgstctrl_set_cb(&handle, 4, "m", hear, &marks));
    }
    mark_writes(handle, port_vid, 1);
    waiting = 100;
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
    EXPECT_EQ(1, libcgstctrl_congested(&handle, 4, "m", &port_vid));
    mark_writes(handle, port_vid, 0);
    EXPECT_EQ(2U, marks.size());
    EXPECT_EQ(2U, notices.size());
    EXPECT_EQ(1U, state.highs);
    EXPECT_EQ(1U, state.lows);
}

TEST(Congest, HandleThatWasClosedWhileCongestedBeginsAnew)
{
    qz_mom_handle handle{};
    libcgstctrl_state first{}, second{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &first));
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 5, "n", &second));
    mark(handle, 1);
    depth = 0;  // that of another one, which has got its address
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &first));
    for (const auto *state : {&first, &second}) {
        EXPECT_EQ(0U, state->congested);
        EXPECT_EQ(1U, state->lows);
    }
    mark(handle, 1);
    mark(handle, 0);
    for (const auto *state : {&first, &second}) {
        EXPECT_EQ(2U, state->highs);
        EXPECT_EQ(2U, state->lows);
    }
}

TEST(Congest, TopicOfAHandleThatWasClosedWhileCongestedBeginsAnew)
{
    qz_mom_handle handle{};
    libcgstctrl_state state{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &state));
    ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
    mark_writes(handle, port_vid, 1);
    watched.clear();
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", &state));
    ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
    EXPECT_EQ(1U, watched.size());
    EXPECT_EQ(0, libcgstctrl_congested(&handle, 4, "m", &port_vid));
    EXPECT_EQ(0U, state.congested);
    EXPECT_EQ(1U, state.lows);
    ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
    EXPECT_EQ(1U, state.lows) << "a mark that tells nothing new";
}

TEST(Congest, ProducerCanAskBeforeItsCallbackHasRun)
{
    qz_mom_handle handle{};
    EXPECT_EQ(LIBCGSTCTRL_ENOENT, libcgstctrl_congested(&handle, 4, "m", &port_vid));
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    EXPECT_EQ(LIBCGSTCTRL_ENOENT, libcgstctrl_congested(&handle, 4, "m", &port_vid));
    ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_congested(nullptr, 4, "m", &port_vid));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_congested(&handle, 4, "", &port_vid));
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, libcgstctrl_congested(&handle, 4, "m", nullptr));
    waiting = 16383;
    EXPECT_EQ(0, libcgstctrl_congested(&handle, 4, "m", &port_vid));
    waiting = 16384;
    EXPECT_EQ(1, libcgstctrl_congested(&handle, 4, "m", &port_vid));
    mark_writes(handle, port_vid, 1);
    waiting = 5000;  // between the marks
    EXPECT_EQ(1, libcgstctrl_congested(&handle, 4, "m", &port_vid));
    mark_writes(handle, port_vid, 0);
    EXPECT_EQ(0, libcgstctrl_congested(&handle, 4, "m", &port_vid));
}

TEST(Congest, CallbackMayCallCongestionControl)
{
    static qz_mom_handle handle{};
    static int32_t asked = -1;
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    ASSERT_EQ(0, add_topic(handle, 4, "m", port_vid));
    const libcgstctrl_cb calls = [](qz_mom_handle *, uint32_t, const ProtobufCMessageDescriptor *, int32_t, void *) {
        asked = libcgstctrl_congested(&handle, 4, "m", &port_vid);
        EXPECT_EQ(0, add_topic(handle, 4, "m", eport_session));
    };
    ASSERT_EQ(0, libcgstctrl_set_cb(&handle, 4, "m", calls, nullptr));
    mark_writes(handle, port_vid, 1);
    EXPECT_EQ(1, asked);
    EXPECT_EQ(2U, topics().size());
}

TEST(Congest, TopicThatCannotBeWatchedIsNotRegistered)
{
    qz_mom_handle handle{};
    ASSERT_EQ(0, libcgstctrl_gen_init(&handle, 4, "m", nullptr));
    watch_result = QZ_MOM_EDB;
    EXPECT_EQ(LIBCGSTCTRL_EINVAL, add_topic(handle, 4, "m", port_vid));
    watch_result = QZ_MOM_ENOMEM;
    EXPECT_EQ(LIBCGSTCTRL_ENOMEM, add_topic(handle, 4, "m", port_vid));
    EXPECT_THAT(topics(), IsEmpty());
}
