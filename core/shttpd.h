// The engine's public interface: life cycle, embedded URI handlers, and what handlers may call.
//
// A handler is called whenever its reply can make progress. It writes into `out`, consumes the
// request's body from `in`, keeps its progress in `state`, and ends by setting ARG_END_OF_OUTPUT;
// until then it is called again. Handlers run on the main loop's thread and must not block.
#pragma once

#include <cstdint>
#include <ctime>

#include "core/fwd.h"

// A view of a byte range inside a connection's buffer. Handlers count what they used.
struct shttpd_buf {
    char* ptr;
    std::int32_t len;   // bytes available (in) or room (out)
    std::int32_t used;  // bytes consumed (in) or produced (out) in this call; 0 on entry
};

enum shttpd_arg_flag : unsigned {
    ARG_END_OF_OUTPUT = 1,     // set by the handler: the reply is complete
    ARG_CONNECTION_ERROR = 2,  // last call: the connection goes away; free `state`, no side effects
    ARG_MORE_POST_DATA = 4,    // more of the request's body will arrive
    ARG_POST_BUFFER_FULL = 8,  // and the buffer has no room for it
    ARG_SSI_EVAL_TRUE = 16,    // set by an SSI function: the condition holds
};

struct shttpd_call_arg {
    conn* connection;
    void* state;      // owned by the handler, null on the first call of a request
    void* user_data;  // given when the handler was registered
    shttpd_buf in;    // body bytes that have arrived and are not consumed yet
    shttpd_buf out;   // free room of the reply buffer
    unsigned flags;   // shttpd_arg_flag bits
};

using shttpd_handler = void (*)(shttpd_call_arg* arg);

// --- Life cycle ---

// Builds a context from a configuration file (null: none) and keyword and value pairs, ended by a
// null or empty keyword; a line of the file wins over a pair. Configuration errors end the process.
// Null only when memory is short. Free the context with shttpd_fini.
shttpd_ctx* shttpd_init(const char* config_file, const char* keyword, ...);

// Closes every connection and frees the context and everything it owns.
void shttpd_fini(shttpd_ctx* ctx);

// Opens a listening handle of the dual-stack layer on `port`; -1 after a fatal log message.
int shttpd_listen(shttpd_ctx* ctx, int port, bool is_ssl, bool u_flag);

// Opens every port of the option listen_ports; failures are fatal.
void open_listening_ports(shttpd_ctx* ctx);

// Makes a connection of an accepted or inherited socket, which the engine then owns, also when it
// fails. `is_ssl` and `u_flag` connections start without the authentication handshake.
void shttpd_add_socket(shttpd_ctx* ctx, int fd, bool is_ssl, bool u_flag);

// Accepts one connection on a listening handle, waiting up to `timeout_ms` (0: for ever); the
// descriptor or -1.
int shttpd_accept(int listen_handle, int timeout_ms);

// Runs one pass of the main loop, waiting up to `timeout_ms` for something to do.
void shttpd_poll(shttpd_ctx* ctx, int timeout_ms);

// The number of open connections; may be called from another thread.
int shttpd_active(shttpd_ctx* ctx);

// The version of this interface, "1.0".
const char* shttpd_version();

// --- Registration; texts are copied ---

// Serves URIs that match `pattern` ("*" matches up to the first occurrence of the character behind
// it). The first registered pattern that matches wins.
void shttpd_register_uri(shttpd_ctx* ctx, const char* pattern, shttpd_handler handler,
                         void* user_data);

// Lets `handler` write the reply whenever the engine would answer with `status`.
void shttpd_handle_error(shttpd_ctx* ctx, int status, shttpd_handler handler, void* user_data);

// Records a password file for a URI prefix. Kept: nothing consults the record.
void shttpd_protect_uri(shttpd_ctx* ctx, const char* uri, const char* file);

// Offers `handler` to the "if", "elif" and "call" directives of server-side includes.
void shttpd_register_ssi_func(shttpd_ctx* ctx, const char* name, shttpd_handler handler,
                              void* user_data);

// Adds a content type for a file name extension (without the dot), before the built-in ones.
void shttpd_add_mime_type(shttpd_ctx* ctx, const char* extension, const char* type);

// --- For handlers ---

// Formats into `out` and returns the number of bytes counted as written.
// Kept: a text that fills the room exactly, or is longer, ends in a zero byte on the wire.
[[gnu::format(printf, 2, 3)]] int shttpd_printf(shttpd_call_arg* arg, const char* format, ...);

// Finds `name` in "name1=value1&name2=value2" of `buf_len` bytes, ignoring case, and writes the
// decoded value, cut to `value_len` - 1 bytes and terminated. Returns its length, -1 when absent.
int shttpd_get_var(const char* name, const char* buf, int buf_len, char* value, int value_len);

// The same search; *value points at the undecoded, unterminated value. Returns its length or -1.
int shttpd_get_var_nodecode_nocopy(const char* name, const char* buf, int buf_len,
                                   const char** value);

// The value of a request header, terminated in place, or null.
// Kept: `name` also finds a longer header name that begins with it.
const char* shttpd_get_header(shttpd_call_arg* arg, const char* name);

// REQUEST_METHOD, REQUEST_URI, QUERY_STRING, REMOTE_USER or REMOTE_ADDR of the request; null when
// there is none. REMOTE_ADDR stands in one static buffer that the next such call overwrites.
const char* shttpd_get_env(shttpd_call_arg* arg, const char* name);

void shttpd_get_http_version(shttpd_call_arg* arg, unsigned long* major, unsigned long* minor);
