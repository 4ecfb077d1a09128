// Who follows which records. Looked up by database and record name, so that a change costs in proportion to those who
// follow its kind of record, not to all.
#ifndef MOM_SUBSCRIPTIONS_HPP
#define MOM_SUBSCRIPTIONS_HPP

#include <map>
#include <span>
#include <string>
#include <vector>

#include "delivery.hpp"
#include "key_pattern.hpp"

namespace mom
{

struct subscription {
    client *owner;
    key_pattern pattern;
    receiver to;
    const ProtobufCFieldDescriptor *field;  // null: hears every change
};

// Guarded by the store's mutex.
class subscription_table
{
  public:
    // Each takes the place of an equal one. All are of one record type. Without memory nothing is added.
    void add(uint32_t db, std::vector<subscription> &&added);
    void remove(uint32_t db, const client &owner, const key_pattern &pattern, const receiver &to) noexcept;
    void remove_all(const client &owner) noexcept;

    // True when somebody follows records of that name.
    bool any(uint32_t db, std::string_view name) const noexcept;

    // One delivery for each subscription that hears of the change. `written`: the field numbers of a write by field.
    void address(const change_ptr &what, std::span<const uint32_t> written, post_office &office, deliveries &out) const;

  private:
    using same_type = std::map<std::string, std::vector<subscription>, std::less<>>;
    std::map<uint32_t, same_type> by_db_;
};

}  // namespace mom
#endif
