// What the authentication library has to say, in the daemon's error log.
//
// Runs on the main loop's thread, on which alone the library is called.
#pragma once

#include <string>

#include "core/fwd.h"

// Offers the library a place for its messages. Once, after it was loaded; a library that knows no
// such command goes on without. Lines go to the error log of `ctx`, which must outlive the
// library's use; null: none from now on.
void offer_log_to_library(const shttpd_ctx* ctx);

// Tells the library where the logins come from that it is asked about next.
void tell_peer_to_library(const conn* c);

// While one lives, what the library says concerns this connection, counts among the lines that
// clients cause, and is kept here instead of being logged when `kept` is not null.
class library_subject {
  public:
    explicit library_subject(const conn* c, std::string* kept = nullptr);
    ~library_subject();
    library_subject(const library_subject&) = delete;
    library_subject& operator=(const library_subject&) = delete;
    library_subject(library_subject&&) = delete;
    library_subject& operator=(library_subject&&) = delete;
};
