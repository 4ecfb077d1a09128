// Refusals: a code for everything that makes no sense, never a crash, and nothing done.
#include <algorithm>

#include "store_fixture.hpp"

namespace contract
{
namespace
{

constexpr uint32_t unknown_db = 4000000000u;
const uint32_t one_field[] = {6};
const qz_mom_timeval second{1, 0};
const qz_mom_msg_cb hear = listener::hear;

int32_t connected(qz_mom_handle *, void *) { return 0; }

int32_t reconnected(qz_mom_handle *, uint32_t, int32_t, void *) { return 0; }

// The codes of all calls that name records, for one handle, database and record.
std::vector<int32_t> all_calls(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, listener &to)
{
    constexpr int32_t mode = QZ_MOM_EXPIRE_PATTERN;
    return {qz_mom_set(handle, db, record, hear, &to),
            qz_mom_hmset(handle, db, record, one_field, 1, hear, &to),
            qz_mom_hmupdate(handle, db, record, one_field, 1, hear, &to),
            qz_mom_del(handle, db, record, hear, &to),
            qz_mom_scan(handle, db, record, 0, hear, &to),
            qz_mom_subscribe(handle, db, record, 0, hear, &to),
            qz_mom_subscribe_field(handle, db, record, 0, one_field, &hear, nullptr, 1),
            qz_mom_unsubscribe(handle, db, record, hear, &to),
            qz_mom_pexpire(handle, db, record, mode, &second, hear, &to),
            qz_mom_pexpire_sync(handle, db, record, mode, &second),
            qz_mom_clear_expire(handle, db, record, hear, &to),
            qz_mom_del_expire(handle, db, record, mode, hear, &to)};
}

}  // namespace

class Refusals : public StoreTest
{
  protected:
    void expect_all_refused(int32_t code, qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record)
    {
        listener nobody;
        for (const int32_t each : all_calls(handle, db, record, nobody))
            EXPECT_EQ(code, each);
        settle();
        EXPECT_TRUE(nobody.all.empty());
    }
};

TEST_F(Refusals, NullHandle)
{
    expect_all_refused(QZ_MOM_EINVAL, nullptr, app_db, session_record({}).message());
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_client_connect(nullptr, app_db, connected, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_client_set_reconnect_cb(nullptr, app_db, reconnected, nullptr));
    EXPECT_EQ(nullptr, qz_mom_handle_master(nullptr));
    qz_mom_client_close(nullptr);
}

TEST_F(Refusals, UnknownDatabase)
{
    auto *handle = open();
    expect_all_refused(QZ_MOM_EDB, handle, unknown_db, session_record({}).message());
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_client_connect(handle, unknown_db, connected, nullptr));
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_client_set_reconnect_cb(handle, unknown_db, reconnected, nullptr));
}

TEST_F(Refusals, NullRecord) { expect_all_refused(QZ_MOM_EINVAL, open(), app_db, nullptr); }

TEST_F(Refusals, RecordWithoutDescriptor)
{
    const ProtobufCMessage bare{};
    expect_all_refused(QZ_MOM_EINVAL, open(), app_db, &bare);
}

TEST_F(Refusals, RecordWithoutItsKey)
{
    const UBridge__EvlanSession keyless = U_BRIDGE__EVLAN_SESSION__INIT;
    expect_all_refused(QZ_MOM_EINVAL, open(), app_db, &keyless.base);
}

TEST_F(Refusals, RecordThatCannotBeEncoded)
{
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PortVlans vlans = U_BRIDGE__PORT_VLANS__INIT;
    UBridge__Bitmap bitmap = U_BRIDGE__BITMAP__INIT;
    vlans.index = &index;
    vlans.vbmp = &bitmap;
    bitmap.n_value = 4;
    bitmap.value = nullptr;
    expect_all_refused(QZ_MOM_EINVAL, open(), app_db, &vlans.base);
}

TEST_F(Refusals, SubMessageOfAnotherType)
{
    UBridge__PortIndex wrong = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__EvlanSession session = U_BRIDGE__EVLAN_SESSION__INIT;
    session.index = reinterpret_cast<UBridge__EvlanAppIndex *>(&wrong);
    expect_all_refused(QZ_MOM_EINVAL, open(), app_db, &session.base);
}

TEST_F(Refusals, FieldListsThatMakeNoSense)
{
    auto *handle = open();
    const session_record record({.request = 1});
    const uint32_t unknown[] = {6, 99};
    const uint32_t key[] = {6, 5};
    const auto hmset_with = [&](const uint32_t *fields, uint32_t count) {
        return qz_mom_hmset(handle, app_db, record.message(), fields, count, nullptr, nullptr);
    };
    EXPECT_EQ(QZ_MOM_EINVAL, hmset_with(one_field, 0));
    EXPECT_EQ(QZ_MOM_EINVAL, hmset_with(nullptr, 1));
    EXPECT_EQ(QZ_MOM_EINVAL, hmset_with(unknown, 2));
    EXPECT_EQ(QZ_MOM_EINVAL, hmset_with(key, 2));
    const auto follow_with = [&](const uint32_t *fields, const qz_mom_msg_cb *cbs, uint32_t count) {
        return qz_mom_subscribe_field(handle, app_db, record.message(), 0, fields, cbs, nullptr, count);
    };
    const qz_mom_msg_cb holes[] = {hear, nullptr};
    EXPECT_EQ(QZ_MOM_EINVAL, follow_with(one_field, &hear, 0));
    EXPECT_EQ(QZ_MOM_EINVAL, follow_with(nullptr, &hear, 1));
    EXPECT_EQ(QZ_MOM_EINVAL, follow_with(one_field, nullptr, 1));
    EXPECT_EQ(QZ_MOM_EINVAL, follow_with(unknown, holes, 2));
    EXPECT_EQ(QZ_MOM_EINVAL, follow_with(key, holes, 2));
    EXPECT_TRUE(scan(handle, any_session()).empty());
}

TEST_F(Refusals, MissingCallbacksAndUnknownFlags)
{
    auto *handle = open();
    const session_record record({});
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_scan(handle, app_db, record.message(), 0, nullptr, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_scan(handle, app_db, record.message(), 1, hear, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_subscribe(handle, app_db, record.message(), 0, nullptr, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_subscribe(handle, app_db, record.message(), 1, hear, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_subscribe_field(handle, app_db, record.message(), 1, one_field, &hear, nullptr, 1));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_unsubscribe(handle, app_db, record.message(), nullptr, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_client_connect(handle, app_db, nullptr, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_client_set_reconnect_cb(handle, app_db, nullptr, nullptr));
}

TEST_F(Refusals, TimesAndModesThatMakeNoSense)
{
    auto *handle = open();
    const session_record record({});
    hmset(handle, {}, {6});
    const auto expire_with = [&](int32_t mode, const qz_mom_timeval *delay) {
        EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_pexpire_sync(handle, app_db, record.message(), mode, delay));
        EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_pexpire(handle, app_db, record.message(), mode, delay, nullptr, nullptr));
    };
    for (const qz_mom_timeval bad : {qz_mom_timeval{-1, 0}, {0, -1}, {0, 1000000}, {INT32_MIN, INT32_MIN}})
        expire_with(QZ_MOM_EXPIRE_PATTERN, &bad);
    expire_with(QZ_MOM_EXPIRE_PATTERN, nullptr);
    for (const int32_t mode : {0, 2, 5, -1, QZ_MOM_EXPIRE_EPORT_SESSION + 0})
        expire_with(mode, &second);
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_del_expire(handle, app_db, record.message(), 2, nullptr, nullptr));
    const qz_mom_timeval longest{INT32_MAX, 999999};
    EXPECT_EQ(0, qz_mom_pexpire_sync(handle, app_db, record.message(), QZ_MOM_EXPIRE_PATTERN, &longest));
    EXPECT_EQ(1u, scan(handle, any_session()).size());
}

TEST_F(Refusals, Urls)
{
    qz_mom_handle *handle = nullptr;
    for (const char *url : {"", "mem", "mem:", "memory:x", "file:///x", "MEM:x", ":"})
        EXPECT_EQ(QZ_MOM_EURL, qz_mom_client_open(url, master_, &handle)) << url;
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_client_open(nullptr, master_, &handle));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_client_open("mem:x", nullptr, &handle));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_client_open("mem:x", master_, nullptr));
    EXPECT_EQ(nullptr, handle);
}

TEST_F(Refusals, EveryCodeHasItsOwnText)
{
    std::vector<std::string> texts;
    for (int32_t code : {0, -101, -102, -103, -104, -105, -106, -107, -108})
        texts.emplace_back(qz_mom_strerror(code));
    for (const auto &each : texts) {
        EXPECT_NE("unknown code", each);
        EXPECT_EQ(1, std::count(texts.begin(), texts.end(), each));
    }
    EXPECT_STREQ("unknown code", qz_mom_strerror(-1));
    EXPECT_STREQ("unknown code", qz_mom_strerror(-109));
}

}  // namespace contract
