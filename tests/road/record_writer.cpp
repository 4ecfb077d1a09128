// See record_writer.hpp.
#include "record_writer.hpp"

#include <gtest/gtest.h>

namespace road
{

namespace
{

constexpr int64_t PATIENCE = 30'000'000;

}  // namespace

record_writer::record_writer(const std::string &url)
{
    const uint32_t databases[] = {4, 8};
    std::string error;
    EXPECT_EQ(link_.open(url, databases, &error), 0) << error;
}

void record_writer::call(const std::function<int32_t()> &made)
{
    ASSERT_EQ(link_.patiently(made, PATIENCE), 0);
    ++made_;
}

int32_t record_writer::on_done(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<record_writer *>(self);
    EXPECT_EQ(msg->error, 0);
    ++of->done_;
    of->link_.happened();
    return 0;
}

void record_writer::set(uint32_t db, const ProtobufCMessage &record)
{
    call([&] { return qz_mom_set(link_.handle(), db, &record, on_done, this); });
}

void record_writer::write(uint32_t db, const ProtobufCMessage &record, const std::vector<uint32_t> &fields)
{
    const auto count = static_cast<uint32_t>(fields.size());
    call([&] { return qz_mom_hmset(link_.handle(), db, &record, fields.data(), count, on_done, this); });
}

void record_writer::remove(uint32_t db, const ProtobufCMessage &record)
{
    call([&] { return qz_mom_del(link_.handle(), db, &record, on_done, this); });
}

void record_writer::expire(uint32_t db, const ProtobufCMessage &record)
{
    const qz_mom_timeval now{};
    call([&] { return qz_mom_pexpire(link_.handle(), db, &record, QZ_MOM_EXPIRE_PATTERN, &now, on_done, this); });
}

void record_writer::wait()
{
    ASSERT_TRUE(link_.wait_until([this] { return is_done(); }, PATIENCE));
}

}  // namespace road
