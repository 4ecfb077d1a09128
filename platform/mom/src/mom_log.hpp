// Log lines of the client, in the category "qz_mom".
#ifndef MOM_LOG_HPP
#define MOM_LOG_HPP

namespace mom
{

// Foreign data: a record under this key cannot be ours, and is passed over.
void log_foreign(const char *key);
// Something that the system refused and that nobody is there to be told.
void log_failure(const char *what);

}  // namespace mom
#endif
