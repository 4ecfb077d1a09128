// Rows of texts between the store client and the server's side: what is packed is read back, and bytes that are no rows
// end the reading.
#include <gtest/gtest.h>

#include <algorithm>

#include "redis_rows.hpp"

namespace mom
{
namespace
{

TEST(StoreRows, TextsOfAllLengthsComeBack)
{
    packed_texts packed;
    std::vector<std::string> texts;
    for (const size_t size : std::vector<size_t>{0, 1, 31, 32, 255, 256, 65535, 65536, 100000})
        texts.emplace_back(size, static_cast<char>('a' + texts.size()));
    texts.emplace_back("\0\xff\n", 3);
    for (const auto &text : texts)
        packed.add(text);
    const std::string &bytes = packed.bytes();
    row_reader rows(bytes);
    for (const auto &text : texts)
        EXPECT_EQ(text, rows.text());
    EXPECT_TRUE(rows.at_end());
    EXPECT_FALSE(rows.broken());
    EXPECT_EQ("", rows.text());
}

TEST(StoreRows, AHeadIsPassedOverWhoeverHasPackedIt)
{
    using namespace std::string_literals;
    packed_texts ours{"4", "client"};
    ours.add_number(4294967295u);
    ours.add_number(0);
    ours.append({"row"});
    const auto heads = {ours.bytes(), "\xa1\x34\xd9\x01x\x7f\x00\xa3row"s, "\xa1\x34\xa1x\xcc\x80\xcd\x01\x00\xa3row"s,
                        "\xa1\x34\xa1x\xce\x00\x01\x00\x00\xcf\x00\x00\x00\x01\x00\x00\x00\x00\xa3row"s};
    for (const std::string &bytes : heads) {
        row_reader rows(bytes);
        rows.skip_head();
        EXPECT_EQ("row", rows.text());
        EXPECT_TRUE(rows.at_end() && !rows.broken());
    }
}

TEST(StoreRows, WhatIsNoHeadIsNoRowsEither)
{
    using namespace std::string_literals;
    for (const std::string &bytes : {""s, "x"s, "plain text"s, "\xa1\x34\xa1x"s, "\xa1\x34\xa1x\xa1y\xa1z"s,
                                     "\xa1\x34\xa1x\x01\xcf\x00\x00"s, "\xa1\x34\xa1x\x01\x80"s}) {
        row_reader rows(bytes);
        rows.skip_head();
        EXPECT_TRUE(rows.broken() && rows.at_end()) << bytes;
    }
}

TEST(StoreRows, BodiesAreInTheOrderOfTheirNumbers)
{
    packed_texts packed{"key", "3", "10", "J", "6", "", "2", "B", "next"};
    const std::string &bytes = packed.bytes();
    row_reader rows(bytes);
    EXPECT_EQ("key", rows.text());
    const auto body = rows.body();
    ASSERT_NE(nullptr, body);
    EXPECT_EQ((content{form::hash, "BJ"}), *body);
    EXPECT_EQ("next", rows.text());
    EXPECT_TRUE(rows.at_end());
}

TEST(StoreRows, ABodyOfOneTextIsARecordWrittenWhole)
{
    const std::string bytes = packed_texts({"1", "", "bytes"}).bytes();
    const auto body = row_reader(bytes).body();
    ASSERT_NE(nullptr, body);
    EXPECT_EQ((content{form::whole, "bytes"}), *body);
}

TEST(StoreRows, AFieldThatIsNoNumberIsForeignAndPassedOver)
{
    for (const char *field : {"name", "0", "-1", "6x", "99999999999"}) {
        const std::string bytes = packed_texts({"2", field, "a", "7", "b", "next"}).bytes();
        row_reader rows(bytes);
        EXPECT_EQ(nullptr, rows.body()) << field;
        EXPECT_EQ("next", rows.text());
    }
}

TEST(StoreRows, ABodyIsPutTogetherFromFieldsInAnyOrder)
{
    body_reader body;
    body.add("8", "Y");
    body.add("7", "");
    body.add("6", "X");
    const auto made = body.made();
    ASSERT_NE(nullptr, made);
    EXPECT_EQ((content{form::hash, "XY"}), *made);
    body.clear();
    body.add("name", "Z");
    EXPECT_EQ(nullptr, body.made());
    body.clear();
    EXPECT_EQ((content{form::hash, ""}), *body.made());
}

TEST(StoreRows, BodiesArePassedOver)
{
    const std::string flat = packed_texts({"2", "6", "X", "8", "Y", "next"}).bytes();
    row_reader passing(flat);
    passing.skip_body();
    EXPECT_EQ("next", passing.text());
}

TEST(StoreRows, ValuesAloneAreAContentInTheirOrder)
{
    const std::string bytes = packed_texts({"J", "", "B", "next"}).bytes();
    row_reader rows(bytes);
    EXPECT_EQ((content{form::hash, "JB"}), *rows.values(3));
    EXPECT_EQ((content{form::hash, ""}), *rows.values(0));
    EXPECT_EQ("next", rows.text());
    EXPECT_TRUE(rows.at_end() && !rows.broken());
}

TEST(StoreRows, MoreValuesThanThereAreEndWithTheLast)
{
    const std::string bytes = packed_texts({"J", "B"}).bytes();
    row_reader rows(bytes);
    EXPECT_EQ((content{form::hash, "JB"}), *rows.values(1000000));
    EXPECT_TRUE(rows.at_end() && !rows.broken());
    EXPECT_EQ((content{form::hash, ""}), *rows.values(2));

    row_reader cut(std::string_view(bytes).substr(0, bytes.size() - 1));
    EXPECT_EQ((content{form::hash, "J"}), *cut.values(2));
    EXPECT_TRUE(cut.at_end() && cut.broken());
}

TEST(StoreRows, APlaceCanBeComeBackTo)
{
    const std::string bytes = packed_texts({"a", "b", "c"}).bytes();
    row_reader rows(bytes);
    rows.text();
    const auto place = rows.here();
    rows.skip(2);
    EXPECT_TRUE(rows.at_end());
    rows.go_to(place);
    EXPECT_EQ("b", rows.text());
}

// Every cut, and every changed byte: the reading ends, and nothing behind the bytes is touched.
TEST(StoreRows, BytesThatAreNoRowsEndTheReading)
{
    const std::string whole = packed_texts({"key", "2", "6", "X", "8", std::string(300, 'Y'), "end"}).bytes();
    const auto read = [](const std::string &bytes) {
        const auto exact = std::make_unique<char[]>(bytes.size());  // a sanitizer sees the first byte too many
        bytes.copy(exact.get(), bytes.size());
        row_reader rows({exact.get(), bytes.size()});
        size_t count = 0;
        for (; !rows.at_end() && count < 1000; ++count)
            count % 2 == 0 ? void(rows.text()) : void(rows.body());
        EXPECT_LT(count, 1000u);
        return rows.broken();
    };
    const std::vector<size_t> between{0, 4, 6, 8, 10, 12, whole.size() - 4};
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(std::ranges::count(between, size) == 0, read(whole.substr(0, size))) << size;
    EXPECT_TRUE(read(whole + "x"));
    for (size_t at = 0; at < whole.size(); ++at) {
        for (const int byte : {0x00, 0x80, 0x9f, 0xcf, 0xdb, 0xdd, 0xff}) {
            std::string changed = whole;
            changed[at] = static_cast<char>(byte);
            read(changed);
        }
    }
}

}  // namespace
}  // namespace mom
