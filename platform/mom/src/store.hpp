// The interface behind which the kinds of stores stand. One class per kind, chosen by the scheme of the URL; what they
// share (key texts, encoding, matching, delivery) stands beside it.
#ifndef MOM_STORE_HPP
#define MOM_STORE_HPP

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "client.hpp"
#include "key_pattern.hpp"
#include "record_codec.hpp"
#include "subscriptions.hpp"

namespace mom
{

// The records that a call means.
struct target {
    uint32_t db;
    key_pattern keys;
};

// A write by field, encoded.
struct field_write {
    std::vector<uint32_t> numbers;  // the fields that the caller named, each once
    std::vector<encoded_field> fields;
    bool creates;      // hmset; else hmupdate, which writes only what is there
    bool clears_mark;  // hmset
};

// Calls come from any thread. They return 0 or an enum qz_mom_code; when they return anything but 0, or throw, nothing
// has happened. Arguments have been checked; `from` is open. A receiver without cb wants no answer.
class store
{
  public:
    virtual ~store() = default;

    virtual post_office &office() = 0;
    virtual bool has_database(uint32_t db) const = 0;
    // The last that a store hears of a handle.
    virtual void close(client &from) noexcept = 0;

    virtual int32_t connect(client &from, uint32_t db, const connection &answer) = 0;

    virtual int32_t write_whole(client &from, const target &at, content &&body, const receiver &answer) = 0;
    // Ahead of what waits for the server, where something does. Neither a fence nor a loss keeps it back.
    virtual int32_t write_ahead(client &from, const target &at, content &&body) = 0;
    virtual int32_t write_fields(client &from, const target &at, const field_write &write, const receiver &answer) = 0;
    virtual int32_t remove(client &from, const target &at, const receiver &answer) = 0;

    virtual int32_t scan(client &from, const target &of, const receiver &to) = 0;
    // Confirmed to the first of them.
    virtual int32_t subscribe(client &from, uint32_t db, std::vector<subscription> &&added) = 0;
    virtual int32_t unsubscribe(client &from, const target &of, const receiver &to) = 0;

    virtual int32_t mark(client &from, const target &of, int64_t delay_usec, const receiver &end) = 0;
    // Returns when the marks are set, or refused; EDOWN also when that takes too long: they may be set yet.
    virtual int32_t mark_now(client &from, const target &of, int64_t delay_usec) = 0;
    virtual int32_t clear_mark(client &from, const target &at, const receiver &answer) = 0;
    virtual int32_t remove_marked(client &from, const target &of, const receiver &end) = 0;

    // The handle has asked for none in that database before.
    virtual int32_t lock(client &from, uint32_t db, const std::string &name, const lock_news &news) = 0;
};

// The schemes. Each opens the store of the name or URL for a handle: the handle is attached, and code 0 returned.
int32_t open_embedded(std::string_view name, const std::shared_ptr<client> &who);
int32_t open_redis(std::string_view url, const std::shared_ptr<client> &who);

}  // namespace mom
#endif
