// The rows that the server's side packs (redis_store.lua): changes of the log, records of a page.
#ifndef MOM_REDIS_ROWS_HPP
#define MOM_REDIS_ROWS_HPP

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "record_codec.hpp"

namespace mom
{

// The texts of a MessagePack array; nothing when the bytes are anything else. They point into `bytes`.
std::optional<std::vector<std::string_view>> unpack_texts(std::string_view bytes);

// Takes rows off a list of texts.
class row_reader
{
  public:
    explicit row_reader(std::vector<std::string_view> texts) : texts_(std::move(texts)) {}

    bool at_end() const { return at_ == texts_.size(); }
    // The next text; "" behind the end, and then nothing more is taken.
    std::string_view text();
    // A count, then as often a field and its bytes: a record's content; null when a field is no number.
    std::shared_ptr<const content> body();

  private:
    std::vector<std::string_view> texts_;
    size_t at_ = 0;
};

}  // namespace mom
#endif
