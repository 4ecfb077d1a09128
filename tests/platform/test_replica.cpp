// The replica of a table: against a plain map, and what a walk over its slots meets.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "replica.hpp"

namespace mom
{
namespace
{

std::shared_ptr<const content> body(const std::string &bytes)
{
    return std::make_shared<content>(content{form::hash, bytes});
}

std::map<std::string, std::string> all_of(replica &records)
{
    std::map<std::string, std::string> all;
    for (size_t i = 0; i < records.slots(); ++i) {
        const auto *each = records.slot(i);
        if (each == nullptr)
            continue;
        EXPECT_TRUE(all.emplace(each->key, each->body->bytes).second) << each->key;
    }
    return all;
}

TEST(Replica, HoldsWhatAMapWouldHold)
{
    replica records;
    std::map<std::string, std::string> plain;
    std::minstd_rand random(1);
    for (int step = 0; step < 20000; ++step) {
        const std::string key = "u_bridge.evlan_session:application:32:" + std::to_string(random() % 300);
        if (random() % 3 != 0) {
            const std::string bytes = std::to_string(step);
            EXPECT_EQ(bytes, records.put(key, body(bytes)).body->bytes);
            plain[key] = bytes;
        } else if (auto *found = records.find(key)) {
            records.erase(*found);
            EXPECT_EQ(1u, plain.erase(key));
        } else {
            EXPECT_FALSE(plain.contains(key));
        }
        EXPECT_EQ(plain.contains(key), records.find(key) != nullptr);
    }
    EXPECT_EQ(plain, all_of(records));
    EXPECT_LE(records.slots(), 300u);  // slots are used again
}

TEST(Replica, AWalkMeetsOnceWhatIsThereAllTheTime)
{
    replica records;
    for (int i = 0; i < 100; ++i)
        records.put("stays" + std::to_string(i), body("x"));
    std::minstd_rand random(2);
    std::multiset<std::string> met;
    for (size_t at = 0; at < records.slots(); ++at) {
        for (int i = 0; i < 3; ++i) {
            records.put("new" + std::to_string(random() % 50), body("y"));
            if (auto *gone = records.find("new" + std::to_string(random() % 50)))
                records.erase(*gone);
        }
        if (const auto *each = records.slot(at); each != nullptr)
            met.emplace(each->key);
    }
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(1u, met.count("stays" + std::to_string(i))) << i;
}

TEST(Replica, ARecordThatComesBackIsUnseen)
{
    replica records;
    records.put("key", body("x")).seen = 7;
    EXPECT_EQ(7u, records.put("key", body("y")).seen);
    records.erase(*records.find("key"));
    EXPECT_EQ(nullptr, records.find("key"));
    EXPECT_EQ(0u, records.put("key", body("z")).seen);
}

}  // namespace
}  // namespace mom
