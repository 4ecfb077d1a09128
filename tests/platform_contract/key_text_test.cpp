// Key texts: readable, reversible, and exactly one for each key.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qz_mom.h"
#include "u_bridge.pb-c.h"

namespace
{

struct free_message {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using message_ptr = std::unique_ptr<ProtobufCMessage, free_message>;

std::string text_of(const ProtobufCMessage *record)
{
    const int32_t length = qz_mom_key_text(record, nullptr, 0);
    EXPECT_GT(length, 0);
    std::string text(static_cast<size_t>(length), '\0');
    EXPECT_EQ(length, qz_mom_key_text(record, text.data(), text.size() + 1));
    return text;
}

message_ptr parse(const ProtobufCMessageDescriptor &type, const std::string &text)
{
    return message_ptr(qz_mom_key_parse(&type, text.c_str()));
}

std::string session_text(const char *user, int32_t type, int32_t keyid)
{
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession session = U_BRIDGE__EVLAN_SESSION__INIT;
    index.t_user = const_cast<char *>(user);
    index.type = type;
    index.keyid = keyid;
    session.index = &index;
    session.request_value = 99;
    return text_of(&session.base);
}

// A match rule with all its addresses, the richest of the keys.
struct rule {
    rule()
    {
        mac_.data = {6, mac};
        mask_.data = {6, mask};
        v4_.data = 0;
        v6_.data = {16, v6};
        v4b_.data = {4, v4b};
        entry.index = &index;
    }
    rule(const rule &) = delete;
    rule &operator=(const rule &) = delete;

    void use_mac() { index.mac = &mac_; }
    void use_mask() { index.mask = &mask_; }
    void use_ip(PLibpub__Ip__IpCase kind)
    {
        index.ip = &ip_;
        ip_.ip_case = kind;
        if (kind == P_LIBPUB__IP__IP_V4)
            ip_.v4 = &v4_;
        if (kind == P_LIBPUB__IP__IP_V6)
            ip_.v6 = &v6_;
        if (kind == P_LIBPUB__IP__IP_V4B)
            ip_.v4b = &v4b_;
    }
    void set_v4(uint32_t address) { v4_.data = address; }
    std::string text() const { return text_of(&entry.base); }

    uint8_t mac[6] = {}, mask[6] = {}, v6[16] = {}, v4b[4] = {};
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;

  private:
    PLibpub__Mac mac_ = P_LIBPUB__MAC__INIT, mask_ = P_LIBPUB__MAC__INIT;
    PLibpub__Ip ip_ = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4_ = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6_ = P_LIBPUB__IPV6__INIT;
    PLibpub__Ipv4b v4b_ = P_LIBPUB__IPV4B__INIT;
};

const std::string empty_rule = "u_bridge.ematch_entry::0:0:0:0:0:0:0:0:0:0::0:0::0:";

class random_source
{
  public:
    explicit random_source(uint32_t seed) : engine_(seed) {}
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine_() % limit); }
    int32_t number()
    {
        const int32_t some[] = {0, 1, -1, 32, 4095, INT32_MAX, INT32_MIN};
        return below(2) != 0 ? some[below(7)] : static_cast<int32_t>(engine_());
    }
    std::string name()
    {
        std::string made(below(40), '\0');
        for (char &c : made)
            c = static_cast<char>(1 + below(255));
        return made;
    }
    void fill(uint8_t *bytes, size_t size)
    {
        for (size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<uint8_t>(below(4) == 0 ? below(256) : 0);
    }

  private:
    std::mt19937 engine_;
};

TEST(KeyText, IsPackageRecordNameAndKeyFieldsInOrder)
{
    EXPECT_EQ("u_bridge.evlan_session:app:32:7", session_text("app", 32, 7));
    EXPECT_EQ("u_bridge.evlan_session::0:-5", session_text("", 0, -5));
    EXPECT_EQ("u_bridge.evlan_session::0:0", session_text(nullptr, 0, 0));
}

TEST(KeyText, EscapesWhatIsNotPlainInANameByItsBytes)
{
    EXPECT_EQ("u_bridge.evlan_session:a%3Ab%25%2A%3F%5B%20%2F:0:0", session_text("a:b%*?[ /", 0, 0));
    EXPECT_EQ("u_bridge.evlan_session:A.z_0-9%C3%BC%FF%01:0:0", session_text("A.z_0-9\xC3\xBC\xFF\x01", 0, 0));
}

TEST(KeyText, BareNumberAndNoticeKeys)
{
    UBridge__EportSessionRange range = U_BRIDGE__EPORT_SESSION_RANGE__INIT;
    EXPECT_EQ("u_bridge.eport_session_range:0", text_of(&range.base));
    range.index = U_BRIDGE__EPORT_TYPE__PORT;
    EXPECT_EQ("u_bridge.eport_session_range:16", text_of(&range.base));
    UBridge__CongestNotify notice = U_BRIDGE__CONGEST_NOTIFY__INIT;
    EXPECT_EQ("u_bridge.congest_notify", text_of(&notice.base));
    const message_ptr parsed = parse(u_bridge__eport_session_range__descriptor, "u_bridge.eport_session_range:16");
    ASSERT_NE(nullptr, parsed);
    EXPECT_EQ(U_BRIDGE__EPORT_TYPE__PORT, reinterpret_cast<UBridge__EportSessionRange &>(*parsed).index);
    EXPECT_NE(nullptr, parse(u_bridge__congest_notify__descriptor, "u_bridge.congest_notify"));
    EXPECT_EQ(nullptr, parse(u_bridge__congest_notify__descriptor, "u_bridge.congest_notify:"));
}

TEST(KeyText, AddressesThatAreNotSetAreWrittenAsNothingHoweverTheyAreNotSet)
{
    EXPECT_EQ(empty_rule, rule().text());
    rule zeros;
    zeros.use_mac();
    zeros.use_mask();
    EXPECT_EQ(empty_rule, zeros.text());
    for (const auto kind :
         {P_LIBPUB__IP__IP__NOT_SET, P_LIBPUB__IP__IP_V4, P_LIBPUB__IP__IP_V6, P_LIBPUB__IP__IP_V4B}) {
        zeros.use_ip(kind);
        EXPECT_EQ(empty_rule, zeros.text());
    }
}

TEST(KeyText, AddressesAreWrittenByMemberNumber)
{
    rule some;
    some.use_mac();
    some.mac[5] = 0x41;
    some.use_ip(P_LIBPUB__IP__IP_V4);
    some.set_v4(3232235777u);
    EXPECT_EQ("u_bridge.ematch_entry::0:0:0:0:0:0:0:0:0:0:(1=%00%00%00%00%00A):0:0:(1=(1=3232235777)):0:", some.text());
}

TEST(KeyText, IsCutToTheSizeGivenAndItsWholeLengthReturned)
{
    UBridge__CongestNotify notice = U_BRIDGE__CONGEST_NOTIFY__INIT;
    char text[9] = "xxxxxxxx";
    EXPECT_EQ(23, qz_mom_key_text(&notice.base, text, sizeof text));
    EXPECT_STREQ("u_bridge", text);
    EXPECT_EQ(23, qz_mom_key_text(&notice.base, nullptr, 0));
    EXPECT_EQ(23, qz_mom_key_text(&notice.base, text, 1));
    EXPECT_STREQ("", text);
}

TEST(KeyText, RefusesWhatHasNoKey)
{
    char text[64];
    UBridge__EvlanSession keyless = U_BRIDGE__EVLAN_SESSION__INIT;
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_key_text(&keyless.base, text, sizeof text));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_key_text(nullptr, text, sizeof text));
    UBridge__CongestNotify notice = U_BRIDGE__CONGEST_NOTIFY__INIT;
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_key_text(&notice.base, nullptr, 5));
    EXPECT_EQ(nullptr, qz_mom_key_parse(nullptr, "u_bridge.congest_notify"));
    EXPECT_EQ(nullptr, qz_mom_key_parse(&u_bridge__congest_notify__descriptor, nullptr));
}

TEST(KeyParse, GivesARecordThatHoldsTheKeyAndNothingElse)
{
    const message_ptr parsed = parse(u_bridge__evlan_session__descriptor, session_text("a b", 32, -7));
    ASSERT_NE(nullptr, parsed);
    const auto &session = reinterpret_cast<const UBridge__EvlanSession &>(*parsed);
    EXPECT_STREQ("a b", session.index->t_user);
    EXPECT_EQ(32, session.index->type);
    EXPECT_EQ(-7, session.index->keyid);
    EXPECT_EQ(0, session.request_value);
}

TEST(KeyParse, RefusesTextsThatNoKeyHas)
{
    for (const char *text : {"",
                             "u_bridge",
                             "u_bridge.evlan",
                             "u_bridge.evlan_session",
                             "u_bridge.evlan_session:",
                             "u_bridge.evlan_session:a",
                             "u_bridge.evlan_session:a:1",
                             "u_bridge.evlan_session:a:1:",
                             "u_bridge.evlan_session:a::1",
                             "u_bridge.evlan_session:a:1:2:3",
                             "u_bridge.evlan_session:a:1:2 ",
                             "u_bridge.evlan_session:a:01:2",
                             "u_bridge.evlan_session:a:-0:2",
                             "u_bridge.evlan_session:a:+1:2",
                             "u_bridge.evlan_session:a:1:2147483648",
                             "u_bridge.evlan_session:a b:1:2",
                             "u_bridge.evlan_session:%:1:2",
                             "u_bridge.evlan_session:%4:1:2",
                             "u_bridge.evlan_session:%41:1:2",
                             "u_bridge.evlan_session:%3a:1:2",
                             "u_bridge.evlan_session:%00:1:2",
                             "u_bridge.evlan_session_range:a:1:2",
                             "s_bridge.evlan_session:a:1:2"})
        EXPECT_EQ(nullptr, parse(u_bridge__evlan_session__descriptor, text)) << text;
    const std::string front = "u_bridge.ematch_entry::0:0:0:0:0:0:0:0:0:0:";
    for (const char *mac : {"()", "(", "(1=)", "(1=%00)", "(2=A)", "(1=A,1=A)", "(1=A", "(1=A))", "A", "(=A)"})
        EXPECT_EQ(nullptr, parse(u_bridge__ematch_entry__descriptor, front + mac + ":0:0::0:")) << mac;
    for (const char *ip : {"(1=(1=0))", "(1=())", "(1=5)", "(1=(1=5),2=(1=A))", "(2=(1=A),1=(1=5))", "(1=(1=-5))"})
        EXPECT_EQ(nullptr, parse(u_bridge__ematch_entry__descriptor, front + ":0:0:" + ip + ":0:")) << ip;
}

// Whatever a key holds, its text gives it back, and contains nothing that a store's search would take for a wildcard.
TEST(KeyText, RoundTripsRandomKeys)
{
    random_source random(20240611);
    for (int round = 0; round < 20000; ++round) {
        rule made;
        std::string user = random.name();
        made.index.t_user = user.data();
        made.index.match_type = random.number();
        made.index.match_id = random.number();
        made.index.ipv4 = static_cast<uint32_t>(random.number());
        made.index.vnid = random.number();
        random.fill(made.mac, sizeof made.mac);
        random.fill(made.mask, sizeof made.mask);
        random.fill(made.v6, sizeof made.v6);
        random.fill(made.v4b, sizeof made.v4b);
        made.set_v4(static_cast<uint32_t>(random.number()));
        if (random.below(2) != 0)
            made.use_mac();
        if (random.below(2) != 0)
            made.use_mask();
        if (random.below(2) != 0)
            made.use_ip(static_cast<PLibpub__Ip__IpCase>(random.below(4)));
        const std::string text = made.text();
        ASSERT_EQ(std::string::npos, text.find_first_of("*?[\\\n ")) << text;
        const message_ptr parsed = parse(u_bridge__ematch_entry__descriptor, text);
        ASSERT_NE(nullptr, parsed) << text;
        const auto &index = *reinterpret_cast<const UBridge__EmatchEntry &>(*parsed).index;
        ASSERT_EQ(user, index.t_user);
        ASSERT_EQ(made.index.match_type, index.match_type);
        ASSERT_EQ(made.index.match_id, index.match_id);
        ASSERT_EQ(made.index.ipv4, index.ipv4);
        const bool mac_set =
            made.index.mac != nullptr && std::any_of(made.mac, made.mac + 6, [](int b) { return b != 0; });
        ASSERT_EQ(mac_set, index.mac != nullptr);
        if (mac_set) {
            ASSERT_EQ(0, std::memcmp(made.mac, index.mac->data.data, 6));
        }
        ASSERT_EQ(text, text_of(parsed.get()));
    }
}

// Two texts of one key would be two records: what parses is exactly what is written.
TEST(KeyParse, WhateverItTakesIsTheTextOfWhatItGives)
{
    random_source random(7);
    const std::string letters = "0123456789-:%()=,AZaz.\x01 ";
    const std::string seeds[] = {session_text("a:b", 32, 7),
                                 "u_bridge.ematch_entry:app:1:0:0:0:0:0:0:0:0:0:(1=%01A):0:0:(2=(1=%FE)):0:(1=x)"};
    const ProtobufCMessageDescriptor *types[] = {&u_bridge__evlan_session__descriptor,
                                                 &u_bridge__ematch_entry__descriptor};
    int taken = 0;
    for (int round = 0; round < 200000; ++round) {
        const uint32_t which = random.below(2);
        std::string text = seeds[which];
        for (uint32_t edits = 1 + random.below(3); edits > 0; --edits) {
            const size_t name = std::string_view("u_bridge.ematch_entry").size();
            const size_t at = name + random.below(static_cast<uint32_t>(text.size() - name));
            const char letter = letters[random.below(static_cast<uint32_t>(letters.size()))];
            if (random.below(3) == 0)
                text.erase(at, 1);
            else if (random.below(2) == 0)
                text.insert(at, 1, letter);
            else
                text[at] = letter;
        }
        const message_ptr parsed = parse(*types[which], text);
        if (parsed == nullptr)
            continue;
        ++taken;
        ASSERT_EQ(text, text_of(parsed.get()));
    }
    EXPECT_GT(taken, 1000) << "too few of the texts were any good";
}

}  // namespace
