#include "security/library_log.h"

#include <netinet/in.h>

#include <array>

#include "core/connection.h"
#include "core/context.h"
#include "core/log.h"
#include "core/v6socket.h"
#include "security/at_types.h"

namespace {

struct {
    const shttpd_ctx* ctx = nullptr;
    const conn* subject = nullptr;
    std::string* kept = nullptr;
    bool takes_peer = true;
} listener;

// Kept in one line: a library that speaks twice has more than one reason.
void note_message(int /*level*/, const char* text) {
    if (listener.ctx == nullptr || text == nullptr) {
        return;
    }
    if (listener.kept != nullptr) {
        listener.kept->append(listener.kept->empty() ? "" : "; ").append(text);
    } else if (listener.subject != nullptr) {
        log_trouble(listener.ctx, listener.subject, "authentication library: %s", text);
    } else {
        log_always(listener.ctx, nullptr, "authentication library: %s", text);
    }
}

}  // namespace

void offer_log_to_library(const shttpd_ctx* ctx) {
    listener.ctx = ctx;
    listener.takes_peer = true;
    if (ctx == nullptr) {
        return;
    }
    const molb_log_function function = note_message;
    (void)molbatLibraryControl("Log", reinterpret_cast<void*>(function));
}

void tell_peer_to_library(const conn* c) {
    if (!listener.takes_peer) {
        return;
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    const char* address =
        v6inet_ntop(reinterpret_cast<const sockaddr*>(&c->peer), text.data(), text.size());
    // A library that does not know the command is not asked again.
    listener.takes_peer = molbatLibraryControl("Peer", const_cast<char*>(address)) == at_ok;
}

library_subject::library_subject(const conn* c, std::string* kept) {
    listener.subject = c;
    listener.kept = kept;
}

library_subject::~library_subject() {
    listener.subject = nullptr;
    listener.kept = nullptr;
}
