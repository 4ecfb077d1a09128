// Fields that were written laid over those that were known of a record, and what that says of choices: as protobuf-c reads
// the outcome.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "record_codec.hpp"
#include "u_bridge.pb-c.h"

namespace mom
{
namespace
{

using numbers = std::vector<uint32_t>;

// Fields 6 and 10 of a session, as they stand on the wire; the bytes of a field at its default are none.
std::string whole_number(uint32_t field, char value)
{
    return value == 0 ? std::string() : std::string{static_cast<char>(field << 3), value};
}

std::shared_ptr<const content> hash(const std::string &bytes)
{
    return std::make_shared<content>(content{form::hash, bytes});
}

std::shared_ptr<const content> merged(const std::string &base, const std::string &written, const numbers &of)
{
    const content known{form::hash, base};
    return merge(&known, hash(written), of);
}

TEST(RecordMerge, OfARecordThatIsNotKnownWhatWasWrittenIsAll)
{
    const auto written = hash("\x30\x01");
    EXPECT_EQ(written, merge(nullptr, written, numbers{6}));
    const content empty{form::hash, {}};
    EXPECT_EQ(written, merge(&empty, written, numbers{6}));
}

TEST(RecordMerge, WhereAllThatWasKnownIsWrittenOverNothingIsCopied)
{
    const content known{form::hash, "\x30\x01\x40\x02"};
    const auto written = hash("\x30\x05");
    EXPECT_EQ(written, merge(&known, written, numbers{6, 8, 10}));
}

TEST(RecordMerge, FieldsBeforeBetweenAndBehindThoseThatStayAreInTheOrderOfTheirNumbers)
{
    EXPECT_EQ("\x30\x05\x40\x02", merged("\x40\x02", "\x30\x05", {6})->bytes);
    EXPECT_EQ("\x40\x02\x50\x05", merged("\x40\x02", "\x50\x05", {10})->bytes);
    EXPECT_EQ("\x30\x01\x40\x05\x50\x03", merged("\x30\x01\x50\x03", "\x40\x05", {8})->bytes);
    EXPECT_EQ("\x30\x05\x38\x01\x40\x06\x48\x02\x50\x07",
              merged("\x38\x01\x48\x02", "\x30\x05\x40\x06\x50\x07", {6, 8, 10})->bytes);
}

TEST(RecordMerge, AFieldThatIsWrittenOverIsThereOnce)
{
    EXPECT_EQ("\x30\x05\x40\x02", merged("\x30\x01\x40\x02", "\x30\x05", {6})->bytes);
    EXPECT_EQ("\x30\x01\x40\x06", merged("\x30\x01\x40\x02", "\x40\x06", {8})->bytes);
}

// It stands among the numbers and has no bytes.
TEST(RecordMerge, AFieldThatIsAtItsDefaultAgainIsGone)
{
    EXPECT_EQ("\x40\x02", merged("\x30\x01\x40\x02", "", {6})->bytes);
    EXPECT_EQ("\x40\x02\x50\x05", merged("\x30\x01\x40\x02", "\x50\x05", {6, 10})->bytes);
    EXPECT_EQ("", merged("\x30\x01\x40\x02", "", {6, 8})->bytes);
}

TEST(RecordMerge, TheItemsOfARepeatedFieldStayTogetherAndGoTogether)
{
    EXPECT_EQ("\x30\x01\x30\x02\x38\x09", merged("\x30\x01\x30\x02\x38\x03", "\x38\x09", {7})->bytes);
    EXPECT_EQ("\x30\x09\x38\x03", merged("\x30\x01\x30\x02\x38\x03", "\x30\x09", {6})->bytes);
    EXPECT_EQ("\x30\x07\x30\x08\x38\x03", merged("\x38\x03", "\x30\x07\x30\x08", {6})->bytes);
}

// Tags and values that take several bytes, and values that look like tags.
TEST(RecordMerge, ValuesOfAllKindsArePassedOverWhole)
{
    const std::string varint = "\x30\xff\xff\xff\xff\x0f", text = "\x3a\x03\x30\x01\x40";
    const std::string fixed64 = std::string("\x41") + "12345678", fixed32 = std::string("\x4d") + "1234";
    const std::string far = "\x80\x7d\x01";  // field 2000
    const std::string all = varint + text + fixed64 + fixed32 + far;
    EXPECT_EQ(varint + text + fixed64 + fixed32 + "\x50\x05" + far, merged(all, "\x50\x05", {10})->bytes);
    EXPECT_EQ(varint + fixed64 + fixed32 + far, merged(all, "", {7})->bytes);
    EXPECT_EQ(varint + text + fixed64 + far, merged(all, "", {9})->bytes);
    EXPECT_EQ(varint + text + fixed64 + fixed32, merged(all, "", {2000})->bytes);
}

// The same as with fields that stand apart.
TEST(RecordMerge, BothWaysOfMergingSayTheSame)
{
    std::minstd_rand random(1);
    const auto draw = [&random](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    for (int round = 0; round < 2000; ++round) {
        content known{form::hash, {}};
        std::vector<encoded_field> fields;
        numbers of;
        std::string written;
        for (uint32_t number = 1; number <= 12; ++number) {
            if (draw(2) == 0)
                known.bytes += whole_number(number, static_cast<char>(1 + draw(100)));
            if (draw(2) == 0)
                continue;
            of.push_back(number);
            fields.push_back({number, whole_number(number, static_cast<char>(draw(3)))});
            written += fields.back().bytes;
        }
        EXPECT_EQ(merge(&known, fields).bytes, merge(&known, hash(written), of)->bytes) << "round " << round;
    }
}

// ---- choices --------------------------------------------------------------------------------------------------------

struct evlan {
    evlan() { record.index = nullptr; }

    void set_underlay(int32_t fid)
    {
        underlay.fid = fid;
        record.attr_case = U_BRIDGE__EVLAN__ATTR_UNDERLAY;
        record.underlay = &underlay;
    }
    void set_overlay(int32_t vnid)
    {
        overlay.vnid = vnid;
        record.attr_case = U_BRIDGE__EVLAN__ATTR_OVERLAY;
        record.overlay = &overlay;
    }

    UBridge__EvlanAttrUnderlay underlay = U_BRIDGE__EVLAN_ATTR_UNDERLAY__INIT;
    UBridge__EvlanAttrOverlay overlay = U_BRIDGE__EVLAN_ATTR_OVERLAY__INIT;
    UBridge__Evlan record = U_BRIDGE__EVLAN__INIT;
};

// What a follower makes of such a write, on what he knows.
std::shared_ptr<const content> after_write(const content *known, const evlan &what, uint32_t member)
{
    const auto *field = protobuf_c_message_descriptor_get_field(&u_bridge__evlan__descriptor, member);
    numbers of;
    std::string written;
    for (const auto &each : encode_fields(what.record.base, std::span(&field, 1))) {
        of.push_back(each.number);
        written += each.bytes;
    }
    return merge(known, hash(written), of);
}

TEST(RecordMerge, WritingOneMemberOfAChoiceTakesAwayTheOther)
{
    evlan first, second;
    first.record.class_id = 77;
    first.set_overlay(100);
    second.set_underlay(9);
    const auto known = after_write(hash(whole_number(7, 77)).get(), first, 9);
    const auto now = after_write(known.get(), second, 8);
    EXPECT_EQ((numbers{7, 9}), numbers_of(*known));
    EXPECT_EQ((numbers{7, 8}), numbers_of(*now));

    const std::unique_ptr<UBridge__Evlan,
                          decltype([](UBridge__Evlan *made) { u_bridge__evlan__free_unpacked(made, nullptr); })>
        read(u_bridge__evlan__unpack(nullptr, now->bytes.size(), reinterpret_cast<const uint8_t *>(now->bytes.data())));
    ASSERT_NE(nullptr, read);
    ASSERT_EQ(U_BRIDGE__EVLAN__ATTR_UNDERLAY, read->attr_case);
    EXPECT_EQ(9, read->underlay->fid);
    EXPECT_EQ(77, read->class_id);
}

// It is not set: its bytes are none, and the other member is not its to clear.
TEST(RecordMerge, NamingTheMemberThatIsNotSetTakesAwayThatOneAlone)
{
    evlan overlaid;
    overlaid.set_overlay(100);
    const auto known = after_write(nullptr, overlaid, 9);
    EXPECT_EQ(*known, *after_write(known.get(), overlaid, 8));
}

}  // namespace
}  // namespace mom
