// Standard output for what has to be read at once: the process that sends it waits as long as it is not read. What cannot be
// written yet is kept.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace ebridge_tool
{

class output_pump
{
  public:
    explicit output_pump(int fd);
    // After finish().
    ~output_pump();
    output_pump(const output_pump &) = delete;
    output_pump &operator=(const output_pump &) = delete;

    // False: nothing more can be written, since nobody reads it any more, for instance.
    bool take(std::string_view text);
    // Waits until all is written. False when it could not be.
    bool finish();
    // After finish(): it could not, because nobody reads any more.
    bool is_unread() const { return unread_; }

  private:
    void write_all();

    int fd_;
    std::mutex lock_{};
    std::condition_variable changed_{};
    std::string kept_{};
    bool over_ = false;
    bool failed_ = false;
    bool unread_ = false;
    std::thread writer_;
};

}  // namespace ebridge_tool
