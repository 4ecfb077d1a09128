/* ssat.h - debug shell: a registry of modules and their commands, by which an operator looks into a running process; and the
 * server that hands it to clients.
 *
 * A command's help text doubles as the description of its arguments: each integer conversion in it (%d, %x, also %i, %u,
 * %X, %o and with flags, width or length: "0x%x", "%ld") names one integer argument, in order; "%%" names none. Handlers
 * run on the thread master's thread, one at a time: whoever calls ssat_exec() sees to that. All functions may be called
 * from any thread. Modules and commands live as long as the process.
 */
#ifndef SSAT_H
#define SSAT_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "qz_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ssat_module ssat_module;

enum { SSAT_EINVAL = -1, SSAT_ENOENT = -2, SSAT_ENOMEM = -3, SSAT_EARGS = -4, SSAT_EEXIST = -5, SSAT_EIO = -6 };

/* `argc` is the number of arguments that the help text names; those that the operator left out are 0. */
typedef int32_t (*ssat_handler)(int32_t argc, const int32_t *argv);

/* Makes the module, or takes the one of that name (registering again is allowed), and gives its handle. `name` is
 * copied, not empty and up to 127 characters. 0, EINVAL, ENOMEM. */
int32_t ssat_lib_init(const char *name, ssat_module **module);
/* Registers a command; one of the same name is replaced where it stands (the last one wins). `flags` must be 0, the
 * name not empty. Texts are copied. 0, EINVAL, ENOMEM. */
int32_t ssat_reg_mod_cmd(ssat_module *module, const char *command, uint32_t flags, const char *help,
                         ssat_handler handler);

/* Prints to whoever asked: to the client whose handler runs on this thread, or else to standard output. Returns the
 * number of characters, or a negative value when the client has gone (then, and for the rest of the handler's run) or
 * the text cannot be formatted. */
int32_t ssat_vprint(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

/* Server side, also for tests and tools: visits modules in the order of their names and commands in the order of their
 * registration, as they stood at the start. The walk ends at the first non-zero result, which is returned. EINVAL,
 * ENOMEM. */
typedef int32_t (*ssat_visitor)(const char *module, const char *command, const char *help, void *args);
int32_t ssat_for_each(ssat_visitor visitor, void *args);
/* Where the output of a handler goes, print by print. `size` bytes (never 0), perhaps not terminated; a non-zero result
 * means the client has gone: the sink is not called again. */
typedef int32_t (*ssat_sink)(const char *text, uint32_t size, void *args);
/* Runs a command on the calling thread as for a client: its prints go to `sink`. *result takes what the handler returned
 * (may be null). 0; ENOENT for an unknown module or command, EARGS for more arguments than the help text names, EINVAL,
 * ENOMEM: then nothing ran. */
int32_t ssat_exec(const char *module, const char *command, int32_t argc, const int32_t *argv, ssat_sink sink,
                  void *args, int32_t *result);

/* Server
 *
 * A process serves its modules on a unix socket of its own, "PROGRAM.PID" in ssat_directory(). Whoever may use the socket,
 * which are its owner and group, may run every command; others may go through the folder, where services of other accounts
 * have folders of their own. All happens on the thread of `master` (real clock), which has to run: handlers run there,
 * several clients take turns, a command at a time.
 *
 * A client that does not read what it has asked for makes the process wait, for half a second a command at most; then it is
 * dropped, and the handler goes on without it. Clients are 16 at most; the next one is told so and closed.
 *
 * The conversation is text. The server begins with a line "ebridge-shell 1". A request is a line of up to 4096 bytes, fields
 * between tabs:
 *   list                          all commands, one line each: MODULE, COMMAND, HELP between tabs, control characters in
 *                                 them as blanks
 *   run MODULE COMMAND ARG...     runs a command; arguments are decimal numbers of 32 bits
 * The answer is any number of pieces, each a line "+N" and N bytes of output, and at its end a line "=RESULT" with what the
 * handler returned (0 of a list), or "!TEXT" when nothing was run. After a request that is none of these, "!TEXT" and the
 * end of the connection. */
typedef struct ssat_server ssat_server;

/* Starts it, and takes away sockets in the folder that nobody serves any more. One server a process: EEXIST. EIO: the folder or the socket cannot be made; errno says why. EINVAL (also a
 * folder with too long a name), ENOMEM. *server is set on 0 only. */
int32_t ssat_serve(qz_thread_master *master, ssat_server **server);
/* Ends it, with its connections, and takes the socket away. On the thread of the master, or while it does not run, and not
 * from a handler. Null is allowed. */
void ssat_serve_stop(ssat_server *server);
/* The folder of the sockets: $EBRIDGE_SHELL_DIR; of root /run/ebridge-shell; $XDG_RUNTIME_DIR/ebridge-shell; or
 * /tmp/ebridge-shell-UID. Nothing is made. 0; EINVAL when it does not fit. */
int32_t ssat_directory(char *out, size_t size);

#ifdef __cplusplus
}
#endif
#endif
