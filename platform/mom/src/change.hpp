// What happened to one record, told once and shared by all who hear of it.
#ifndef MOM_CHANGE_HPP
#define MOM_CHANGE_HPP

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "record_codec.hpp"

namespace mom
{

struct change {
    uint32_t db = 0;
    int32_t cmd = 0;                            // enum qz_mom_cmd
    int32_t end = 0;                            // enum qz_mom_end
    std::string_view key;                       // a NUL stands behind it; its bytes live as long as the change
    std::shared_ptr<const std::string> fields;  // names of the written fields, joined with commas; null: none
    std::shared_ptr<const content> body;  // the record as of this change; null where the notification has no value
    int32_t error = 0;                    // enum qz_mom_code; of answers
};
using change_ptr = std::shared_ptr<const change>;

// A change by itself, with a copy of its key.
inline std::shared_ptr<change> make_change(change what)
{
    struct with_key {
        std::string key;
        change what;
    };
    auto made = std::make_shared<with_key>(with_key{std::string(what.key), {}});
    made->what = std::move(what);
    made->what.key = made->key;
    return {made, &made->what};
}

// Changes that are told one after the other, in few pieces of memory: each of them keeps all alive.
class change_block : public std::enable_shared_from_this<change_block>
{
  public:
    // Room for the texts of all keys, a NUL behind each.
    explicit change_block(size_t text_size) { texts_.reserve(text_size); }

    // Its key is copied; there is room for it.
    change_ptr add(change what)
    {
        const size_t at = texts_.size();
        const std::string_view key = what.key;
        changes_.push_back(std::move(what));
        texts_.append(key) += '\0';
        changes_.back().key = std::string_view(texts_).substr(at, texts_.size() - 1 - at);
        return {shared_from_this(), &changes_.back()};
    }
    // Takes back the newest, which nobody holds.
    void take_back() noexcept
    {
        texts_.resize(texts_.size() - 1 - changes_.back().key.size());
        changes_.pop_back();
    }

  private:
    std::string texts_;
    std::deque<change> changes_;
};

}  // namespace mom
#endif
