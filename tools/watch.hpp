// "ebridge watch": every change of a store, as it comes. Only reads.
//
// Each table is subscribed, so what is heard is what the store client promises: all changes as long as the connection
// holds, and afterwards the newest content of what has changed meanwhile. Where that is less than every single change,
// a line of its own says so (gap).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bridge_tables.hpp"
#include "store_link.hpp"
#include "watch_text.hpp"

namespace ebridge_tool
{

struct watch_query {
    std::string store{};  // URL
    std::vector<uint32_t> databases{4, 8};
    std::string user{};                          // only records of this one; "" all
    std::optional<wanted_type> type{};           // only records of it
    std::vector<const bridge_table *> tables{};  // none: all that are known
    bool now = false;                            // first what is there
    bool json = false;
    uint64_t count = 0;                  // ends after so many changes, and not before all that is there; 0: it does not
    int64_t patience_usec = 30'000'000;  // until everything is followed, without anything heard
};

// Of the tables that are asked for those that can have such records.
std::vector<const bridge_table *> tables_of(const watch_query &query);

class watch
{
  public:
    // Lines, several at a time. It may wait as long as it likes. False: they cannot be written, which ends the watch.
    using writer = std::function<bool(std::string_view lines)>;

    watch(const watch_query &query, writer write);
    watch(const watch &) = delete;
    watch &operator=(const watch &) = delete;

    // How many waiting changes are kept for a slow writer. What comes on top stays in the store's log, which is finite.
    static constexpr uint32_t MOST_WAITING = 16384;

    // Follows all that is asked for. 0, or a qz_mom_code and a line in *error.
    int32_t follow(std::string *error);
    size_t tables() const { return tables_.size(); }
    qz_thread_master *master() const { return link_.master(); }
    // Until it ends by its count, by the writer, or by end().
    void run();
    // On the loop's thread.
    void end();

  private:
    static int32_t on_change(qz_mom_handle *, const qz_mom_notification *msg, void *self);
    static int32_t on_found(qz_mom_handle *, const qz_mom_notification *msg, void *self);
    static int32_t on_connection(qz_mom_handle *, uint32_t db, int32_t type, void *self);
    static void on_queue(qz_mom_handle *, int32_t above, uint32_t depth, void *self);
    static void on_flush(void *self);

    template <typename Call>
    int32_t for_each_table(const Call &call);
    void heard(const qz_mom_notification &msg, bool is_scan);
    void all_told();
    bool has_enough() const { return query_.count != 0 && changes_ >= query_.count; }
    bool is_wanted(const ProtobufCMessage *record) const;
    void tell(gap what, uint32_t db);
    void say(const std::string &line);
    void flush();

    const watch_query query_;
    const writer write_;
    std::vector<const bridge_table *> tables_{};
    std::string lines_{};  // not yet written
    bool flush_posted_ = false;
    uint64_t changes_ = 0;
    size_t confirmed_ = 0;  // subscriptions
    size_t scanned_ = 0;    // tables
    bool told_ = false;     // all that was there
    int32_t failure_ = 0;   // of one of these
    bool over_ = false;
    store_link link_{};
};

}  // namespace ebridge_tool
