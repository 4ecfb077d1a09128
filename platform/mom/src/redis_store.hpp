// The Redis store: the databases that a URL means, on one server or spread over several, shared by all handles of this
// process that were opened under it.
//
// Who talks to the servers (redis_line.hpp). Handing a message from thread to thread costs more than all else that is
// done with it. So calls only leave word, and the thread of the handles' own master sends what was asked for once it is
// done with the callbacks that asked (`between_calls`), and reads what comes while it has nothing else to do (`run`).
// The store's own thread connects, keeps the clock, and does the reading for a master that does not come to it: one that
// is busy, does not run, waits in a call, or cannot watch descriptors.
#ifndef MOM_REDIS_STORE_HPP
#define MOM_REDIS_STORE_HPP

#include <condition_variable>
#include <optional>
#include <thread>

#include "posted_calls.hpp"
#include "redis_line.hpp"
#include "redis_map.hpp"
#include "redis_sentinel.hpp"

namespace mom
{

class redis_store : public store,
                    public post_target,
                    public between_calls,
                    public std::enable_shared_from_this<redis_store>
{
  public:
    redis_store(std::string url, redis_map databases);
    ~redis_store() override;

    static std::shared_ptr<redis_store> open(std::string_view url, const std::shared_ptr<client> &who, int32_t &code);

    post_office &office() override { return *office_; }
    bool has_database(uint32_t db) const override { return databases_.contains(db); }
    void close(client &from) noexcept override;
    int32_t connect(client &from, uint32_t db, const connection &answer) override;
    int32_t write_whole(client &from, const target &at, content &&body, const receiver &answer) override;
    int32_t write_ahead(client &from, const target &at, content &&body) override;
    int32_t write_fields(client &from, const target &at, const field_write &write, const receiver &answer) override;
    int32_t remove(client &from, const target &at, const receiver &answer) override;
    int32_t scan(client &from, const target &of, const receiver &to) override;
    int32_t subscribe(client &from, uint32_t db, std::vector<subscription> &&added) override;
    int32_t unsubscribe(client &from, const target &of, const receiver &to) override;
    int32_t mark(client &from, const target &of, int64_t delay_usec, const receiver &end) override;
    int32_t mark_now(client &from, const target &of, int64_t delay_usec) override;
    int32_t clear_mark(client &from, const target &at, const receiver &answer) override;
    int32_t remove_marked(client &from, const target &of, const receiver &end) override;
    int32_t lock(client &from, uint32_t db, const std::string &name, const lock_news &news) override;

    // With the mutex, on a master's thread that has made its calls.
    void all_made() noexcept override;
    // On the thread of the master that reads: something has come.
    void run() override;
    void retry() noexcept override {}

  private:
    struct served_database {
        redis_line line;
        redis_guide guide;
    };

    redis_line &line(uint32_t db);
    template <typename Ask>
    int32_t ask(client &from, uint32_t db, Ask what);
    int32_t put_write(client &from, const target &at, packed_texts &&row, const receiver &to);
    void let_go(const client &leaving) noexcept;
    std::function<void(const redis_outcome &)> answer_to(client &from, const target &at, const receiver &to,
                                                         int32_t end);
    int32_t taken_over(client &from, const redis_line &by, int32_t code) noexcept;
    template <typename Done>
    bool wait_for(std::unique_lock<std::mutex> &lock, steady::duration patience, Done done);
    void choose_reader() noexcept;

    // ---- the store's thread
    void serve();
    bool turn();
    bool reads() const;
    bool is_settled() const;
    static void advance(served_database &of, steady::time_point now);
    void look_up_names(std::unique_lock<std::mutex> &lock) noexcept;
    void wake() noexcept;

    // ---- any thread
    template <typename Act>
    void with_each(Act act) noexcept;
    // True: something had come.
    bool talk(bool listen) noexcept;
    static bool is_on_the_way(served_database &each);

    const std::string url_;
    const redis_map databases_;
    const std::shared_ptr<post_office> office_;
    int wake_fd_;
    link_set links_;
    // All below is guarded by the office's mutex.
    post_address address_;
    qz_thread_master *reader_ = nullptr;  // the master that watches the links
    bool reader_is_late_ = false;
    uint64_t rounds_ = 0;                // of the reader's reading
    std::optional<uint64_t> unread_at_;  // the round in which the store's thread last saw something left unread
    int waiting_ = 0;                    // calls that wait for an answer; one of them may be the reader's own
    std::map<uint32_t, std::unique_ptr<served_database>> served_;
    subscription_table subscriptions_;
    std::condition_variable drained_;
    bool woken_ = false;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace mom
#endif
