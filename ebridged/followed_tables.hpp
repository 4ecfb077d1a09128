// Tables of the store that a part of the service follows: each is subscribed, then scanned once, and whoever follows it is
// told of what the scan finds and of every change. What the store cannot take yet is tried again.
//
// A change that is heard while a table is read outweighs what the scan delivers of that record afterwards.
//
// Callbacks carry a number instead of a pointer, so that one that comes after the end finds nobody and does nothing. One
// that is broken off for lack of memory is made again by the store client: then the follower is told once more.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_set>

#include "numbers.hpp"
#include "qz_mom.h"
#include "service_log.hpp"

namespace ebridged
{

class followed_tables
{
  public:
    class follower
    {
      public:
        virtual ~follower() = default;
        // A record of the table with this tag. `live`: a change; else what the scan has found.
        virtual void heard(int tag, const qz_mom_notification &msg, bool live) = 0;
        // Every table has been read. May come again when it was broken off, else once.
        virtual void all_read() = 0;
    };

    followed_tables(qz_mom_handle *handle, const service_log &log, follower &told);
    ~followed_tables();
    followed_tables(const followed_tables &) = delete;
    followed_tables &operator=(const followed_tables &) = delete;

    // Before the start. The pattern lives as long as this does.
    void add(int tag, uint32_t db, const ProtobufCMessage *pattern);
    // 0, or a code that will not pass by itself.
    int32_t start() { return advance(); }

  private:
    enum class progress { unfollowed, following, unread, reading, read };
    struct table {
        followed_tables *const self;
        const int tag;
        const uint32_t db;
        const ProtobufCMessage *const pattern;
        const numbers<table *>::own number{this};  // for callbacks
        table(followed_tables *its, int its_tag, uint32_t its_db, const ProtobufCMessage *its_pattern)
            : self(its), tag(its_tag), db(its_db), pattern(its_pattern)
        {
        }
        progress state = progress::unfollowed;
        std::unordered_set<std::string> changed = {};  // until read: key texts
    };

    static int32_t on_change(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_scan(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static void on_retry(void *number);

    int32_t advance();
    int32_t begin(const table &which);
    void follows(table &its, int32_t error);
    void is_read(table &its, int32_t error);
    void retry_later(const table &its);

    qz_mom_handle *const handle_;
    const service_log &log;
    follower &told_;
    std::deque<table> tables_;  // which stay where they are
    bool retry_pending_ = false;
};

}  // namespace ebridged
