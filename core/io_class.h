// The operations through which the engine moves a stream's bytes, one table per kind of stream.
//
// The set is closed: every class is declared here and defined in the source of its handler.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "core/fwd.h"

struct io_class {
    const char* name;

    // Moves up to `length` bytes into `buffer`. Returns the count, 0 at the end, or -1 with errno
    // set; EAGAIN and EINTR mean that nothing happened. `length` is above 0.
    ssize_t (*read)(stream*, void* buffer, std::size_t length);

    // Moves up to `length` bytes out of `buffer`; results as for read. May be null.
    ssize_t (*write)(stream*, const void* buffer, std::size_t length);

    // Releases what the stream's channel holds. Called at most once per installation. May be null.
    void (*close)(stream*);
};

extern const io_class io_socket;    // a client's plain socket
extern const io_class io_molbat;    // a client's socket behind the authentication handshake
extern const io_class io_embedded;  // a handler function inside the daemon
extern const io_class io_file;      // a regular file, for reading or for a PUT
extern const io_class io_dir;       // a directory listing
extern const io_class io_cgi;       // a child process
extern const io_class io_ssi;       // a page with server-side includes
extern const io_class io_proxy;     // a target that the request is forwarded to
