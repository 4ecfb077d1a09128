// Output to somebody who may read slowly, stop reading, or go away: writing waits for room, and ends when the reader has
// gone or somebody else has had enough.
#pragma once

#include <string_view>

namespace ebridge_tool
{

class patient_output
{
  public:
    // `enough`: once something can be read from this descriptor no write waits any more.
    patient_output(int fd, int enough) : fd_(fd), enough_(enough) {}

    // False when not all could be written.
    bool write(std::string_view text);
    // The reader has gone.
    bool is_unread() const;
    // What could not be written was not for want of a reader, nor of patience.
    bool has_failed() const { return failed_; }
    // Whether the system tells by a watch of the descriptor that the reader goes.
    bool is_pipe() const;

  private:
    bool has_room() const;

    const int fd_;
    const int enough_;
    bool failed_ = false;
};

}  // namespace ebridge_tool
