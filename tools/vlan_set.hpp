// A set of VLANs, 0 to 4095, as records carry it: a bitmap, worked on word by word.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace ebridge_tool
{

class vlan_set
{
  public:
    static constexpr uint32_t SIZE = 4096;

    vlan_set() = default;
    explicit vlan_set(uint32_t vlan) { add(vlan); }
    // The set of a record's bitmap: 32 VLANs a word, those of the first from `start` on. Nothing, and in *fault why, for one
    // that has no such place among the VLANs. Without words it is empty.
    static std::optional<vlan_set> read(uint32_t start, std::span<const uint32_t> words, std::string *fault);

    bool has(uint32_t vlan) const { return (words_[vlan / 32] >> vlan % 32 & 1) != 0; }
    void add(uint32_t vlan) { words_[vlan / 32] |= 1U << vlan % 32; }
    bool empty() const { return next(0) == SIZE; }
    uint32_t size() const;
    // As the library takes it: 128 words, VLAN v is bit v % 32 of word v / 32.
    const uint32_t *words() const { return words_.data(); }
    // The first one that is not before this; SIZE when there is none.
    uint32_t next(uint32_t vlan) const;
    // Where it begins and where it ends: the VLANs that are in it while the one before them is not, and the reverse.
    vlan_set edges() const;

    vlan_set &operator|=(const vlan_set &other);
    vlan_set &operator&=(const vlan_set &other);
    vlan_set &operator-=(const vlan_set &other);
    bool operator==(const vlan_set &) const = default;

    // Calls run(first, last) for the VLANs that follow each other, where a new run begins at each of `cuts`.
    template <typename Run>
    void for_each_run(const vlan_set &cuts, const Run &run) const
    {
        for (uint32_t first = next(0), end; first < SIZE; first = next(end)) {
            end = cuts.next(first + 1);
            run(first, end - 1);
        }
    }
    // "2-5,7"; "-" when it is empty.
    std::string text() const;

  private:
    std::array<uint32_t, SIZE / 32> words_{};
};

// "2-5", or "7".
std::string run_text(uint32_t first, uint32_t last);

}  // namespace ebridge_tool
