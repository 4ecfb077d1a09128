// The embedded store: records in this process's memory, shared by all handles that were opened under one name.
//
// A call makes everything that it needs first (the new content, the deliveries), then applies it under the mutex in
// steps that cannot fail. So a write is seen whole or not at all, also when memory runs out.
#ifndef MOM_EMBEDDED_STORE_HPP
#define MOM_EMBEDDED_STORE_HPP

#include <array>
#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "posted_calls.hpp"
#include "qz_mom_embedded.h"
#include "store.hpp"

namespace mom
{

class embedded_store : public store, public post_target, public std::enable_shared_from_this<embedded_store>
{
  public:
    explicit embedded_store(std::string name);

    // The open store of that name, or null.
    static std::shared_ptr<embedded_store> find(std::string_view name);
    static std::shared_ptr<embedded_store> open(std::string_view name, const std::shared_ptr<client> &who);

    post_office &office() override { return *office_; }
    bool has_database(uint32_t db) const override { return db < QZ_MOM_EMBEDDED_DATABASES; }
    void close(client &from) noexcept override;
    int32_t connect(client &from, uint32_t db, const connection &answer) override;
    int32_t write_whole(client &from, const target &at, content &&body, const receiver &answer) override;
    int32_t write_ahead(client &from, const target &at, content &&body) override;
    int32_t write_fields(client &from, const target &at, const field_write &write, const receiver &answer) override;
    int32_t remove(client &from, const target &at, const receiver &answer) override;
    int32_t scan(client &from, const target &of, const receiver &to) override;
    int32_t subscribe(client &from, uint32_t db, std::vector<subscription> &&added) override;
    int32_t unsubscribe(client &from, const target &of, const receiver &to) override;
    int32_t mark(client &from, const target &of, int64_t delay_usec, const receiver &end) override;
    int32_t mark_now(client &from, const target &of, int64_t delay_usec) override
    {
        return mark(from, of, delay_usec, {nullptr, nullptr});  // every call is done when it returns
    }
    int32_t clear_mark(client &from, const target &at, const receiver &answer) override;
    int32_t remove_marked(client &from, const target &of, const receiver &end) override;
    int32_t lock(client &from, uint32_t db, const std::string &name, const lock_news &news) override;

    // qz_mom_embedded.h
    void seed(uint64_t seed);
    void lose();
    void restore();
    void put_raw(uint32_t db, std::string_view key, content &&body);
    int32_t count(uint32_t db);

    // The timer of the marks.
    void run() override;
    void retry() noexcept override;

  private:
    friend class embedded_scan;

    // An expiry call under way: tells its end when the last of its marks is gone, whatever took it.
    struct expiry_call {
        std::weak_ptr<client> owner;
        deliveries end;  // made in advance, so that telling it cannot fail; empty when nobody wants it
        size_t left = 0;
    };
    // Marks stand in the order in which they fire; the number keeps equal times in the order of the calls.
    struct mark_id {
        int64_t deadline = 0;
        uint64_t number = 0;  // 0: no mark
        auto operator<=>(const mark_id &) const = default;
    };
    struct expiry_mark {
        uint32_t db;
        const std::string *key;  // as it stands in the table
        std::shared_ptr<expiry_call> call;
    };
    struct record {
        std::shared_ptr<const content> body;
        mark_id mark;
        bool foreign = false;  // not written by this client: its key may be anything
    };
    using table = std::map<std::string, record, std::less<>>;
    using marks = std::map<mark_id, expiry_mark>;

    // Who holds a lock, first, and who waits for it. The news of it are made in advance.
    struct lock_seat {
        client *who;
        deliveries news;
    };
    using lock_queue = std::list<lock_seat>;

    static bool ours(const table::value_type &entry, const target &of);
    template <typename Visit>
    void each_match(const target &of, Visit visit);

    int32_t apply(const target &at, const std::shared_ptr<change> &what, const field_write *by_field, client &from,
                  const receiver &answer);
    change_ptr removal(uint32_t db, const table::value_type &entry, int32_t cmd) const;
    void erase(uint32_t db, table::iterator at) noexcept;

    int64_t now() const noexcept;
    void drop_mark(record &of) noexcept;
    bool expire_first();
    void fire_due() noexcept;
    void arm(int64_t at) noexcept;
    void keep_time_without(const client &leaving) noexcept;
    int32_t refusal(const client &from, uint32_t db) const;
    void give(lock_queue &queue) noexcept;
    void let_go(const client &leaving) noexcept;
    deliveries reconnections(int32_t type) const;

    const std::string name_;
    const std::shared_ptr<post_office> office_;
    // All below is guarded by the office's mutex.
    std::array<table, QZ_MOM_EMBEDDED_DATABASES> tables_;
    subscription_table subscriptions_;
    marks marks_;
    std::map<std::pair<uint32_t, std::string>, lock_queue> locks_;
    uint64_t last_mark_ = 0;
    int64_t clock_offset_ = 0;  // what the store's clock is ahead of its home master's
    post_address timer_;
    std::multiset<int64_t> armed_;  // times for which timers are under way
};

}  // namespace mom
#endif
