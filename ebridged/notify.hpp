// A word to the service manager that waits for one (Type=notify).
//
// The protocol is sd_notify(3)'s: one datagram to the socket that NOTIFY_SOCKET names. It is small and promised to stay,
// and its manual offers it for programs to speak by themselves: libsystemd would bring four compression and encryption
// libraries along, onto switches that have none of them.
#pragma once

namespace ebridged
{

// `state`: "READY=1", "STATUS=...", "STOPPING=1", several of them a line each. Without a manager nothing happens; one
// that does not listen is none.
void notify_manager(const char *state);

}  // namespace ebridged
