// The operations through which the engine moves a stream's bytes, one table per kind of stream.
//
// The set is closed: every class is declared here and defined in the source of its handler.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "core/fwd.h"

struct io_class {
    const char* name = nullptr;

    // Moves up to `length` bytes into `buffer`. Returns the count, 0 at the end, or -1 with errno
    // set; EAGAIN and EINTR mean that nothing happened. `length` is above 0.
    ssize_t (*read)(stream*, void* buffer, std::size_t length) = nullptr;

    // Moves up to `length` bytes out of `buffer`; results as for read. May be null.
    ssize_t (*write)(stream*, const void* buffer, std::size_t length) = nullptr;

    // Releases what the stream's channel holds. Called at most once per installation. May be null.
    void (*close)(stream*) = nullptr;

    // What the engine has to know besides. A class leaves out what does not concern it.

    // A client's class: says goodbye inside its channel and turns the stream over to io_socket, so
    // that what still arrives can be dropped undeciphered.
    void (*say_goodbye)(stream*) = nullptr;

    // A handler's class: its request is over and the connection goes on. True when it has put away
    // what serves the next request; false when the stream is to be stopped.
    bool (*keep)(stream*) = nullptr;

    // A handler's class: the reason of the 500 when the poll set knows its descriptor no more.
    const char* lost_descriptor = nullptr;

    bool takes_body_unpolled = false;  // its write never waits, so it needs no poll slot
    bool is_file = false;              // the descriptor is a file that holds the very reply
    bool is_plain_socket = false;      // the descriptor takes the very bytes of the stream
};

extern const io_class io_socket;    // a client's plain socket
extern const io_class io_molbat;    // a client's socket behind the authentication handshake
extern const io_class io_embedded;  // a handler function inside the daemon
extern const io_class io_file;      // a regular file, for reading or for a PUT
extern const io_class io_dir;       // a directory listing
extern const io_class io_cgi;       // a child process
extern const io_class io_ssi;       // a page with server-side includes
extern const io_class io_proxy;     // a target that the request is forwarded to
