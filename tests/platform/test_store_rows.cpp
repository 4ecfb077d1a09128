// Rows of texts between the store client and the server's side: what is packed is read back, and bytes that are no rows
// end the reading.
#include <gtest/gtest.h>

#include "redis_rows.hpp"

namespace mom
{
namespace
{

std::string array_of(const packed_texts &texts) { return array_head(texts.count()) + texts.bytes(); }

TEST(StoreRows, TextsOfAllLengthsComeBack)
{
    packed_texts packed;
    std::vector<std::string> texts;
    for (const size_t size : std::vector<size_t>{0, 1, 31, 32, 255, 256, 65535, 65536, 100000})
        texts.emplace_back(size, static_cast<char>('a' + texts.size()));
    texts.emplace_back("\0\xff\n", 3);
    for (const auto &text : texts)
        packed.add(text);
    packed.add_number(4294967295u);
    const std::string array = array_of(packed);
    row_reader rows(array);
    for (const auto &text : texts)
        EXPECT_EQ(text, rows.text());
    EXPECT_FALSE(rows.at_end());
    EXPECT_EQ("4294967295", rows.text());
    EXPECT_TRUE(rows.at_end());
    EXPECT_FALSE(rows.broken());
    EXPECT_EQ("", rows.text());
}

TEST(StoreRows, ServersPackingOfShortArraysAndTextsIsRead)
{
    row_reader small("\x92\xa1x\xd9\x02yz");
    EXPECT_EQ("x", small.text());
    EXPECT_EQ("yz", small.text());
    EXPECT_TRUE(small.at_end() && !small.broken());
    EXPECT_TRUE(row_reader("\x80").at_end());  // an empty table is packed as a map
    EXPECT_FALSE(row_reader("\x80").broken());
}

TEST(StoreRows, BodiesAreInTheOrderOfTheirNumbers)
{
    packed_texts packed{"key", "3", "10", "J", "6", "", "2", "B", "next"};
    const std::string array = array_of(packed);
    row_reader rows(array);
    EXPECT_EQ("key", rows.text());
    const auto body = rows.body();
    ASSERT_NE(nullptr, body);
    EXPECT_EQ((content{form::hash, "BJ"}), *body);
    EXPECT_EQ("next", rows.text());
    EXPECT_TRUE(rows.at_end());
}

TEST(StoreRows, ABodyOfOneTextIsARecordWrittenWhole)
{
    const std::string array = array_of({"1", "", "bytes"});
    const auto body = row_reader(array).body();
    ASSERT_NE(nullptr, body);
    EXPECT_EQ((content{form::whole, "bytes"}), *body);
}

TEST(StoreRows, AFieldThatIsNoNumberIsForeignAndPassedOver)
{
    for (const char *field : {"name", "0", "-1", "6x", "99999999999"}) {
        const std::string array = array_of({"2", field, "a", "7", "b", "next"});
        row_reader rows(array);
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
    const std::string flat = array_of({"2", "6", "X", "8", "Y", "next"});
    row_reader passing(flat);
    passing.skip_body();
    EXPECT_EQ("next", passing.text());
}

TEST(StoreRows, ValuesAloneAreAContentInTheirOrder)
{
    const std::string array = array_of({"J", "", "B", "next"});
    row_reader rows(array);
    EXPECT_EQ((content{form::hash, "JB"}), *rows.values(3));
    EXPECT_EQ((content{form::hash, ""}), *rows.values(0));
    EXPECT_EQ("next", rows.text());
    EXPECT_TRUE(rows.at_end() && !rows.broken());
}

TEST(StoreRows, MoreValuesThanThereAreEndWithTheLast)
{
    const std::string array = array_of({"J", "B"});
    row_reader rows(array);
    EXPECT_EQ((content{form::hash, "JB"}), *rows.values(1000000));
    EXPECT_TRUE(rows.at_end() && !rows.broken());
    EXPECT_EQ((content{form::hash, ""}), *rows.values(2));

    row_reader cut(std::string_view(array).substr(0, array.size() - 1));
    EXPECT_EQ((content{form::hash, "J"}), *cut.values(2));
    EXPECT_TRUE(cut.at_end() && cut.broken());
}

TEST(StoreRows, APlaceCanBeComeBackTo)
{
    const std::string array = array_of({"a", "b", "c"});
    row_reader rows(array);
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
    const std::string whole = array_of({"key", "2", "6", "X", "8", std::string(300, 'Y'), "end"});
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
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_TRUE(read(whole.substr(0, size))) << size;
    EXPECT_TRUE(read(whole + "x"));
    for (size_t at = 0; at < whole.size(); ++at) {
        for (const int byte : {0x00, 0x80, 0x9f, 0xdb, 0xdd, 0xff}) {
            std::string changed = whole;
            changed[at] = static_cast<char>(byte);
            read(changed);
        }
    }
}

}  // namespace
}  // namespace mom
