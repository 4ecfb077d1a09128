// Verdicts about the entries of the tables, made of those about what was asked for them: the worst counts.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "run.hpp"

namespace ebridge_tool
{

enum class verdict_kind : uint8_t { verified, differs, refused };
enum class kept_verdict : uint8_t { kept_equal, kept_otherwise, gone, left };

// `what`: what is wrong with it, "" nothing.
inline verdict_kind verdict_of(bool granted, const std::string &what)
{
    return !granted ? verdict_kind::refused : what.empty() ? verdict_kind::verified : verdict_kind::differs;
}

inline kept_verdict kept_verdict_of(bool dropped, const std::string &what)
{
    return dropped        ? what.empty() ? kept_verdict::gone : kept_verdict::left
           : what.empty() ? kept_verdict::kept_equal
                          : kept_verdict::kept_otherwise;
}

// For the line about it.
inline const char *text_of(verdict_kind made) { return made == verdict_kind::refused ? "refused: " : "differs: "; }

inline void count(verdict_kind made, table_result *into)
{
    into->granted += made != verdict_kind::refused;
    into->refused += made == verdict_kind::refused;
    into->verified += made == verdict_kind::verified;
}

inline void count(kept_verdict made, restart_result *into)
{
    into->kept += made <= kept_verdict::kept_otherwise;
    into->unchanged += made == kept_verdict::kept_equal;
    into->dropped += made >= kept_verdict::gone;
    into->gone += made == kept_verdict::gone;
}

template <typename Verdict>
class entry_verdicts
{
  public:
    explicit entry_verdicts(size_t tables) : worst_(tables) {}

    void add(size_t table, size_t entry, Verdict verdict)
    {
        std::vector<std::optional<Verdict>> &entries = worst_[table];
        if (entries.size() <= entry)
            entries.resize(entry + 1);
        entries[entry] = entries[entry] ? std::max(*entries[entry], verdict) : verdict;
    }
    template <typename Count>
    void for_each(const Count &count) const
    {
        for (size_t table = 0; table < worst_.size(); ++table)
            for (const std::optional<Verdict> &verdict : worst_[table])
                if (verdict)
                    count(table, *verdict);
    }

  private:
    std::vector<std::vector<std::optional<Verdict>>> worst_;
};

}  // namespace ebridge_tool
