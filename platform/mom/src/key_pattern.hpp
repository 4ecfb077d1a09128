// Which records a call means: all whose key fields agree with a pattern, or exactly one. Works on key texts alone, so
// it serves every kind of store.
#ifndef MOM_KEY_PATTERN_HPP
#define MOM_KEY_PATTERN_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "message_access.hpp"

namespace mom
{

// What stands before the first ':' of a key text: package and record name.
std::string_view record_name(std::string_view key);

class key_pattern
{
  public:
    // Key fields at their default match anything. Nothing when the record has no key text.
    static std::optional<key_pattern> of(const ProtobufCMessage &pattern);
    // The record's key exactly as it stands.
    static std::optional<key_pattern> exactly(const ProtobufCMessage &record);

    enum class verdict { differs, matches, malformed /* bears our name, but not the form of our keys */ };
    verdict match(std::string_view key) const;

    const ProtobufCMessageDescriptor &type() const { return *type_; }
    const std::string &text() const { return text_; }
    // In sorted keys, those that can match stand together, from this one on until the first that is past them.
    const std::string &prefix() const { return exact_ ? text_ : prefix_; }
    // True when one key alone can match, text().
    bool exact() const { return exact_; }
    // One per key field; empty: any value. Nothing where exact().
    const std::vector<std::string> &wanted() const { return wanted_; }
    // What the value of each of these fields looks like in a key text.
    enum class shape : uint8_t { number, text, message };
    const std::vector<shape> &shapes() const { return shapes_; }
    bool past(std::string_view key) const { return exact_ ? key != text_ : !key.starts_with(prefix_); }

  private:
    key_pattern(const ProtobufCMessage &record, std::string text);

    const ProtobufCMessageDescriptor *type_;
    std::string text_;
    size_t name_size_;                 // of the record's name, with which the text begins
    std::string prefix_;               // unless exact
    std::vector<std::string> wanted_;  // one per key field; empty: any value
    std::vector<shape> shapes_;
    bool exact_ = false;
};

}  // namespace mom
#endif
