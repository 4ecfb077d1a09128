// The match rules of "ebridge run": which user publishes which, what it hears of each, what the observer reads, and what
// the calculation says that should be.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "match_rules.hpp"
#include "run.hpp"
#include "walks.hpp"

namespace ebridge_tool
{

// Facts are plain values: processes hand them to each other as they are.
struct rule_facts {
    int32_t code = 0;    // of the call that publishes it
    bool sent = false;   // a verdict counts from here on
    bool heard = false;  // a verdict, by the user's ematch_reply
    int32_t result = 0;  // the last one
};

struct rule_sight {
    bool found = false;  // by the observer's scan; then what stands there
    bool equal = false;  // all but the result is as it was published
    int32_t result = 0;
};

// A rule as one user publishes it.
struct published_rule {
    static constexpr size_t NO_ENTRY = static_cast<size_t>(-1);

    size_t entry;  // index in the table ACL_RULE; NO_ENTRY: it tells the order of two users
    size_t user;   // index of its name
    size_t key;    // index of what it shares with its rivals
    sw_ematch_item item;

    rule_facts asked{};
    rule_sight seen{};
    int32_t expected = 0;   // by the calculation: a result, or NOT_COMPARED
    std::string lost_to{};  // by the calculation: the user whose rule wins over it
    bool dropped = false;   // after a restart

    bool tells_order() const { return entry == NO_ENTRY; }
    bool is_compared() const { return expected != NOT_COMPARED; }
    bool is_heard() const { return asked.heard || !is_compared(); }
    bool is_settled() const { return is_heard() || asked.code != 0; }
    bool is_as_calculated() const { return is_heard() && (!is_compared() || asked.result == expected); }
};

// A rule of somebody else, or of an earlier run.
struct other_rule {
    char user[SW_EBRIDGE_NAME_SIZE];
    sw_ematch_item item;
};

// The rules of one run, spread over its users so that they contest each other. Rules of one key go to users that follow each
// other, the one of the highest priority first; which user has that one goes round with the keys. Where the configuration
// has too few rules of a key, the users that follow publish the first one too, as rivals on levels of their own: so that
// two contest each key, and three every other key. One user has no rivals.
//
// What comes out depends on the order in which the process that decides walks the users, and nobody tells it. So each two
// users publish a rule of a key and level that only they have, and which matches no frame: of two rules of one level the one
// that is met first holds.
class rule_book
{
  public:
    // Adds the table to the result, with what cannot be expressed. The configuration must outlive the book.
    rule_book(const switch_config &config, std::vector<std::string> users, run_result *result);

    bool empty() const { return rules_.empty(); }
    size_t size() const { return rules_.size(); }
    const published_rule &at(size_t index) const { return rules_[index]; }
    const std::vector<std::string> &users() const { return users_; }
    const std::string &user_of(const published_rule &of) const { return users_[of.user]; }
    const std::string &entry_of(const published_rule &of) const { return (*config_->acl_rules)[of.entry].key; }
    // The rule that a user publishes under this key and priority; size() when there is none.
    size_t find(const std::string &user, const sw_ematch_item &item) const;

    void set(size_t index, const rule_facts &facts);
    void set(size_t index, const rule_sight &sight) { rules_[index].seen = sight; }

    // Rules beside those of this run, which contest them where they have the same key. Others are not kept.
    void add_other(const other_rule &other);
    void forget_others();
    const std::vector<other_rule> &others() const { return others_; }

    // Calculates what the verdicts should be, in the order of the users that the verdicts tell. Nothing tells the places of
    // others: they stand where they explain what was heard, if that is possible.
    void calculate();

    // Rules that are wanted; those of them of which a verdict was heard, and the calculated one. Where there is none to wait
    // for they count, too: of rules that are not compared, or could not be published.
    size_t wanted() const { return wanted_; }
    size_t settled() const { return settled_; }
    size_t as_calculated() const { return as_calculated_; }
    // Of one user: those of which something is still to be heard.
    size_t unheard_of(size_t user) const { return unheard_[user]; }

    // As request_book::restart().
    void restart(const switch_config &reduced);

  private:
    struct contest {
        std::vector<size_t> rules{};   // of this run
        std::vector<size_t> others{};  // indexes of others_
    };
    // A rule before it is known who publishes it.
    struct candidate {
        size_t entry;
        sw_ematch_item item;
    };

    void spread(const std::vector<expressed_rule> &expressed, run_result *result);
    void deal_out(size_t key, std::vector<candidate> candidates, std::vector<std::string> *reasons);
    void add_rivals(size_t key);
    void add_order_rules();
    std::vector<std::string> walk() const;
    void calculate(const contest &of, const walked_places &walk);
    bool publish(size_t key, size_t user, const candidate &of);
    size_t key_of(const sw_ematch_item &item);
    std::vector<claim> claims_of(const contest &of) const;
    void count(const published_rule &of, bool add);

    const switch_config *config_;
    std::vector<std::string> users_;
    std::vector<published_rule> rules_;
    std::vector<other_rule> others_;
    std::vector<contest> contests_;  // by key
    std::unordered_map<std::string, size_t> keys_;
    size_t wanted_ = 0;
    size_t settled_ = 0;
    size_t as_calculated_ = 0;
    std::vector<size_t> unheard_;
};

}  // namespace ebridge_tool
