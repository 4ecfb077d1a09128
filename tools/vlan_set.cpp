// A set of VLANs. See vlan_set.hpp.
#include "vlan_set.hpp"

#include <algorithm>
#include <bit>

namespace ebridge_tool
{

std::optional<vlan_set> vlan_set::read(uint32_t start, std::span<const uint32_t> words, std::string *fault)
{
    vlan_set made;
    const size_t first = start / 32, room = made.words_.size();
    if (start % 32 != 0) {
        *fault = "its start " + std::to_string(start) + " is not a multiple of 32";
        return std::nullopt;
    }
    if (first > room || words.size() > room - first) {
        *fault = std::to_string(words.size()) + (words.size() == 1 ? " word" : " words") + " from VLAN " +
                 std::to_string(start) + " on go beyond VLAN 4095";
        return std::nullopt;
    }
    std::ranges::copy(words, made.words_.begin() + static_cast<ptrdiff_t>(first));
    return made;
}

uint32_t vlan_set::size() const
{
    uint32_t count = 0;
    for (const uint32_t word : words_)
        count += static_cast<uint32_t>(std::popcount(word));
    return count;
}

uint32_t vlan_set::next(uint32_t vlan) const
{
    if (vlan >= SIZE)
        return SIZE;
    size_t i = vlan / 32;
    uint32_t word = words_[i] & ~0U << vlan % 32;
    while (word == 0 && ++i < words_.size())
        word = words_[i];
    return word == 0 ? SIZE : static_cast<uint32_t>(i) * 32 + static_cast<uint32_t>(std::countr_zero(word));
}

vlan_set vlan_set::edges() const
{
    vlan_set made;
    uint32_t before = 0;  // the last VLAN of the word before
    for (size_t i = 0; i < words_.size(); ++i) {
        made.words_[i] = words_[i] ^ (words_[i] << 1 | before);
        before = words_[i] >> 31;
    }
    return made;
}

vlan_set &vlan_set::operator|=(const vlan_set &other)
{
    for (size_t i = 0; i < words_.size(); ++i)
        words_[i] |= other.words_[i];
    return *this;
}

vlan_set &vlan_set::operator&=(const vlan_set &other)
{
    for (size_t i = 0; i < words_.size(); ++i)
        words_[i] &= other.words_[i];
    return *this;
}

vlan_set &vlan_set::operator-=(const vlan_set &other)
{
    for (size_t i = 0; i < words_.size(); ++i)
        words_[i] &= ~other.words_[i];
    return *this;
}

std::string vlan_set::text() const
{
    std::string text;
    for_each_run(edges(),
                 [&text](uint32_t first, uint32_t last) { text += (text.empty() ? "" : ",") + run_text(first, last); });
    return text.empty() ? "-" : text;
}

std::string run_text(uint32_t first, uint32_t last)
{
    return first == last ? std::to_string(first) : std::to_string(first) + '-' + std::to_string(last);
}

}  // namespace ebridge_tool
