// The tables of one database of a Redis server that are followed or scanned: a replica of each, which the log keeps.
//
// A table is read page by page (table_step.hpp) when somebody begins to follow or to scan it, and once more when the
// log does not lead on: what is there is told as changed then, what is missing as removed, with the content that it had.
// Meanwhile the log goes on, and each record is told of from the page on that has shown it. Scans are served from the
// replica. A table that nobody follows, and no scan reads, is not kept.
//
// All of it happens with the office's mutex, on whatever thread.
#ifndef MOM_REDIS_TABLES_HPP
#define MOM_REDIS_TABLES_HPP

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "redis_feed.hpp"
#include "redis_operation.hpp"
#include "replica.hpp"
#include "store.hpp"
#include "subscriptions.hpp"

namespace mom
{

// A change of a record, as an entry of the log has it.
struct told_row {
    int32_t cmd;
    bool is_part;  // of the record: the fields that were written
    std::string_view key;
    std::string_view written;  // numbers of the named fields, and of all behind a '|' where these are others
};

class replica_scan;

class redis_tables
{
  public:
    // The way to the server.
    class asker
    {
      public:
        virtual ~asker() = default;
        // For a user: EDOWN, EFULL; or taken over.
        virtual int32_t put(redis_operation &&operation) = 0;
        // What was begun goes on, however much waits.
        virtual void ask(redis_operation &&operation) = 0;
        virtual void lose(const char *why) noexcept = 0;
    };

    redis_tables(uint32_t db, asker &server, post_office &office, subscription_table &subscriptions);

    // ---- who follows, and who scans
    int32_t follow(std::vector<subscription> &&added);
    int32_t scan(client &from, const target &of, const receiver &to);
    // Lets go of a table that nobody uses any more; of all such.
    void drop_unused(std::string_view name) noexcept;
    void drop_unused() noexcept;
    // Somebody follows or scans one, and was answered.
    bool any() const;

    // ---- what comes
    // False: one who would hear of it has no room.
    bool tell(const told_row &row, log_entry &entry);
    // Entries of the log are missing: what is followed is to be read anew.
    void missed();
    // Reads what was being read, or is to be read anew, from the beginning: a cursor means nothing to another server.
    void load_again();
    bool is_loading() const;
    // A page has come; nothing else is told before all of it is.
    bool has_page() const { return page_ != nullptr; }
    // False: one who would hear of what is left of the page has no room for it.
    bool tell_page();

  private:
    friend class replica_scan;

    struct waiting_scan {
        std::weak_ptr<client> from;
        target of;
        receiver to;
    };
    // What the newest write of a table has named: most writes name the same.
    struct written_fields {
        std::string text;             // as the log has it
        std::vector<uint32_t> named;  // the numbers
        std::vector<uint32_t> all;    // that it wrote, in ascending order: more than it named, as a rule the same
        std::shared_ptr<const std::string> names;

        // Without memory it stays as it was.
        void become(std::string_view other, const ProtobufCMessageDescriptor &type);
        void become_all(const ProtobufCMessageDescriptor &type);
    };
    struct table {
        const ProtobufCMessageDescriptor *type = nullptr;
        replica records;
        int awaited = 0;     // calls to follow or scan it that are not answered yet
        bool begun = false;  // one was answered
        bool whole = false;  // its records seem to be written in one piece
        bool loaded = false;
        uint64_t loading = 0;    // number of the load under way; 0: none
        uint64_t good_from = 0;  // what this load, or a later one, has met is kept by the log without a gap
        written_fields written;
        bool again = false;  // changes may have been missed since somebody began to follow
        std::vector<waiting_scan> scans;
        std::vector<std::weak_ptr<replica_scan>> running;  // scans that read the replica
    };

    // A page of records, taken in one by one.
    struct record_page {
        record_page(table_step &read, bool last, const ProtobufCMessageDescriptor &type);
        record_page(const record_page &) = delete;
        record_page &operator=(const record_page &) = delete;

        const std::string name;
        const uint64_t load;
        const bool is_last;
        // What may have been written of a record meanwhile: any field. One that is at its default again does not show.
        const std::vector<uint32_t> numbers;
        const std::shared_ptr<const std::string> names;
        // Taken last: without memory for all else the step still has them.
        const std::vector<table_step::shown> records;
        size_t next_record = 0;
        size_t next_slot = 0;  // of the replica, when what is gone is looked for
    };

    int32_t put_for_table(const ProtobufCMessageDescriptor &type, redis_operation &&asked);
    void answered_for_table(const std::string &name);
    void activate(std::vector<subscription> added);
    void start_scan(table &in, const waiting_scan &scan);
    void scan_ended(const replica_scan &scan, const std::string &name);
    bool is_used(std::string_view name, table &in) noexcept;

    static std::shared_ptr<const content> take_content(const told_row &row, size_t fields, log_entry &entry);
    bool has_room(const deliveries &out) const;

    void load(const std::string &name);
    redis_operation operation_of(std::shared_ptr<table_step> step);
    redis_operation first_step(const std::string &name, uint64_t number);
    void take_page(table_step &read);
    void read_on(table &in, const table_step &read);
    void say_read(const std::string &name);
    bool tell_record(table &in);
    bool tell_gone(table &in);
    void finish_load(table &in);

    const uint32_t db_;
    asker &server_;
    post_office &office_;
    subscription_table &subscriptions_;
    std::map<std::string, table, std::less<>> tables_;
    uint64_t last_load_ = 0;
    std::unique_ptr<record_page> page_;
};

}  // namespace mom
#endif
