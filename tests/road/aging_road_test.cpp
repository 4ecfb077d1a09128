// What a restarted application no longer wants: mark, refresh, delete, on the embedded store and the driven clock. Nobody
// allocates here: the test answers the requests itself, in the record, as an allocator does.
#include <gmock/gmock.h>

#include "world.hpp"

using namespace road;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

constexpr uint32_t VXLAN_AC = 48;
constexpr uint32_t EVLAN_ATTR_DB = 5, EPORT_ATTR_DB = 6;

int32_t signed_id(uint32_t type, int32_t n) { return static_cast<int32_t>(type << 24 | static_cast<uint32_t>(n)); }

// Either kind: its session and attribute records under small numbers, and its calls.
struct evlans {
    using session = UBridge__EvlanSession;
    static constexpr uint32_t attr_db = EVLAN_ATTR_DB;
    static constexpr auto mark = sw_evlan_aging_flag_set;
    static constexpr auto aged_delete = sw_evlan_aged_data_delete;
    static constexpr auto mark_attrs = sw_evlan_attr_aging_flag_set;
    static constexpr auto delete_marked_attrs = sw_evlan_attr_aged_data_delete;

    UBridge__EvlanAppIndex key = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession record = U_BRIDGE__EVLAN_SESSION__INIT;
    UBridge__EvlanIndex attr_key = U_BRIDGE__EVLAN_INDEX__INIT;
    UBridge__Evlan attrs = U_BRIDGE__EVLAN__INIT;
    explicit evlans(int32_t n)
    {
        key.t_user = const_cast<char *>("app");
        key.type = VXLAN;
        key.keyid = n;
        record.index = &key;
        record.reply_value = signed_id(VXLAN, n);
        attrs.index = &attr_key;
    }
    int32_t request() { return sw_evlan_request(&key, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0); }
    static int32_t set_attrs(int32_t n)
    {
        sw_evlan_attr attr;
        sw_evlan_init(&attr, "app", static_cast<uint32_t>(signed_id(VXLAN, n)));
        return sw_evlan_attr_set(&attr);
    }
    static int32_t number(const UBridge__EvlanSession &found) { return found.index->keyid; }
    static int32_t number(const UBridge__Evlan &found) { return found.index->evlan_id & 0xffffff; }
};

// Plain VLANs, which have a mark of their own.
struct vlans : evlans {
    explicit vlans(int32_t n) : evlans(n)
    {
        key.type = VLAN;
        record.reply_value = signed_id(VLAN, n);
    }
};

struct eports {
    using session = UBridge__EportSession;
    static constexpr uint32_t attr_db = EPORT_ATTR_DB;
    static constexpr auto mark = sw_eport_aging_flag_set;
    static constexpr auto aged_delete = sw_eport_aged_data_delete;
    static constexpr auto mark_attrs = sw_eport_attr_aging_flag_set;
    static constexpr auto delete_marked_attrs = sw_eport_attr_aged_data_delete;

    UBridge__EportAppIndex key = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportSession record = U_BRIDGE__EPORT_SESSION__INIT;
    UBridge__EportIndex attr_key = U_BRIDGE__EPORT_INDEX__INIT;
    UBridge__Eport attrs = U_BRIDGE__EPORT__INIT;
    explicit eports(int32_t n)
    {
        key.t_user = const_cast<char *>("app");
        key.type = VXLAN_AC;
        key.keyid1 = n;
        record.index = &key;
        record.reply_value = signed_id(VXLAN_AC, n);
        attrs.index = &attr_key;
    }
    int32_t request() { return sw_eport_request(&key, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0); }
    static int32_t set_attrs(int32_t n)
    {
        sw_eport_attr attr;
        sw_eport_init(&attr, "app", static_cast<uint32_t>(signed_id(VXLAN_AC, n)));
        return sw_eport_attr_set(&attr);
    }
    static int32_t number(const UBridge__EportSession &found) { return found.index->keyid1; }
    static int32_t number(const UBridge__Eport &found) { return found.index->eport_id & 0xffffff; }
};

// Adds the number of a session or attribute record that a scan finds to the list.
template <typename Kind>
int32_t note_number(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    auto *numbers = static_cast<std::vector<int32_t> *>(args);
    if (msg->cmd == QZ_MOM_CMD_HMSET || msg->cmd == QZ_MOM_CMD_HSET) {
        const auto *hash = static_cast<const qz_mom_hash_value *>(msg->value);
        numbers->push_back(Kind::number(*reinterpret_cast<const typename Kind::session *>(hash->record)));
    }
    if (msg->cmd == QZ_MOM_CMD_SET)
        numbers->push_back(Kind::number(*static_cast<const decltype(Kind::attrs) *>(msg->value)));
    return 0;
}

int32_t note_end(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    *static_cast<int *>(args) += msg->end == QZ_MOM_END_EXPIRY;
    return 0;
}

template <typename Kind>
class AgingRoad : public world
{
  protected:
    AgingRoad()
    {
        ebridge_args app = user(0, "app");
        app.eport_reply = [](UBridge__EportAppIndex *, UBridge__EportIndex *) { return 0; };
        app.evlan_attr_mom_db = EVLAN_ATTR_DB;
        app.eport_attr_mom_db = EPORT_ATTR_DB;
        app.auto_subscribe = 1;
        init(app);
        settle();
    }

    void request(int32_t n)
    {
        Kind wanted(n);
        ASSERT_EQ(wanted.request(), 0);
        settle();
    }

    void answer(int32_t n)
    {
        Kind granted(n);
        granted.record.reply = 1;
        const uint32_t fields[] = {10, 11};
        ASSERT_EQ(qz_mom_hmupdate(users, APP_DB, &granted.record.base, fields, 2, nullptr, nullptr), 0);
        settle();
    }

    void hold(std::initializer_list<int32_t> numbers)
    {
        for (const int32_t n : numbers) {
            request(n);
            answer(n);
        }
    }

    std::vector<int32_t> found(uint32_t db, const ProtobufCMessage &pattern)
    {
        std::vector<int32_t> numbers;
        EXPECT_EQ(qz_mom_scan(users, db, &pattern, 0, note_number<Kind>, &numbers), 0);
        settle();
        return numbers;
    }

    std::vector<int32_t> held()
    {
        Kind any(0);
        any.key.type = 0;
        return found(APP_DB, any.record.base);
    }

    std::vector<int32_t> published() { return found(Kind::attr_db, Kind(0).attrs.base); }
};

using kinds = testing::Types<evlans, eports>;
TYPED_TEST_SUITE(AgingRoad, kinds);
using VlanAgingRoad = AgingRoad<vlans>;

}  // namespace

TYPED_TEST(AgingRoad, OfTwoSessionsTheOneThatWasNotAskedForAgainGoesAfterFortySeconds)
{
    this->hold({1, 2});
    ASSERT_THAT(this->held(), UnorderedElementsAre(1, 2));
    ASSERT_EQ(TypeParam::mark("app", nullptr, nullptr, nullptr), 0);
    this->request(2);
    ASSERT_EQ(TypeParam::aged_delete("app"), 0);
    this->advance(39 * this->SECOND);
    EXPECT_THAT(this->held(), UnorderedElementsAre(1, 2));
    this->advance(2 * this->SECOND);
    EXPECT_THAT(this->held(), ElementsAre(2));
    this->advance(3600 * this->SECOND);
    EXPECT_THAT(this->held(), ElementsAre(2));
}

TYPED_TEST(AgingRoad, WithoutDeletionWhatWasNotAskedForAgainGoesAfterHalfAnHour)
{
    this->hold({1, 2});
    int ends = 0;
    ASSERT_EQ(TypeParam::mark("app", nullptr, note_end, &ends), 0);
    this->request(2);
    this->advance(1799 * this->SECOND);
    EXPECT_THAT(this->held(), UnorderedElementsAre(1, 2));
    EXPECT_EQ(ends, 0);
    this->advance(2 * this->SECOND);
    EXPECT_THAT(this->held(), ElementsAre(2));
    EXPECT_EQ(ends, 1);
}

// The second sweep finds the timer armed; after it fired, a third one arms it anew.
TYPED_TEST(AgingRoad, SweepsOneAfterTheOtherWork)
{
    auto *user = sw_ebridge_list_item_get("app");
    this->hold({1, 2});
    ASSERT_EQ(TypeParam::mark("app", nullptr, nullptr, nullptr), 0);
    this->request(2);
    ASSERT_EQ(TypeParam::aged_delete("app"), 0);
    this->advance(20 * this->SECOND);
    ASSERT_EQ(TypeParam::aged_delete("app"), 0);
    EXPECT_EQ(user->stat, 1);
    this->advance(21 * this->SECOND);
    EXPECT_THAT(this->held(), ElementsAre(2));
    ASSERT_EQ(TypeParam::mark("app", nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(TypeParam::aged_delete("app"), 0);
    EXPECT_EQ(user->stat, 2);
    this->advance(41 * this->SECOND);
    EXPECT_THAT(this->held(), IsEmpty());
}

TYPED_TEST(AgingRoad, OfAttributesThoseThatWereNotSetAgainGo)
{
    this->hold({1, 2, 3});
    for (const int32_t n : {1, 2, 3})
        ASSERT_EQ(TypeParam::set_attrs(n), 0);
    this->settle();
    ASSERT_THAT(this->published(), UnorderedElementsAre(1, 2, 3));
    int marks = 0, deletions = 0;
    ASSERT_EQ(TypeParam::mark_attrs("app", nullptr, note_end, &marks), 0);
    this->settle();
    ASSERT_EQ(TypeParam::set_attrs(2), 0);
    ASSERT_EQ(TypeParam::delete_marked_attrs("app", note_end, &deletions), 0);
    this->settle();
    EXPECT_THAT(this->published(), ElementsAre(2));
    EXPECT_EQ(marks, 1);
    EXPECT_EQ(deletions, 1);
    EXPECT_THAT(this->held(), UnorderedElementsAre(1, 2, 3));
    this->advance(3600 * this->SECOND);
    EXPECT_THAT(this->published(), ElementsAre(2));
}

TEST_F(VlanAgingRoad, OfAllSessionsTheVlansThatWereNotAskedForAgainGoAfterHalfAnHour)
{
    hold({10, 11});
    ASSERT_EQ(evlans(1).request(), 0);
    settle();
    int ends = 0;
    ASSERT_EQ(sw_vlan_aging_flag_set("app", nullptr, note_end, &ends), 0);
    request(11);
    advance(1799 * SECOND);
    EXPECT_THAT(held(), UnorderedElementsAre(1, 10, 11));
    EXPECT_EQ(ends, 0);
    advance(2 * SECOND);
    EXPECT_THAT(held(), UnorderedElementsAre(1, 11));
    EXPECT_EQ(ends, 1);
}
