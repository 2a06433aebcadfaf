// Records and entry points shared by the daemon and an authentication library.
//
// The library is loaded at run time; both sides include this header, so the compiler checks that
// they agree. Layouts are those of a 64-bit host with natural alignment and are pinned below.
// Handles, credentials and channels are opaque pointers owned by the library.
#pragma once

#include <cstddef>
#include <cstdint>

// Results of every entry point that returns std::uint32_t.
enum at_result : std::uint32_t {
    at_ok = 0,
    at_invalid_argument = 24578,
    at_no_memory = 24579,
    at_not_available = 24598,
    at_file_error = 24604,
    at_permission_denied = 24665,
    at_no_space = 24681,
    at_stat_failed = 24683,
    at_rename_failed = 24700,
    at_refused = 28673,         // name, domain or password not accepted
    at_channel_failed = 28674,  // the secure channel cannot be set up
    at_again = 28675,           // handshake unfinished: call again when the socket is ready
    at_no_credential = 28676,   // handshake done, the client presented no credential
};

// Who is to be authenticated. The service itself is host "localhost" and three null pointers; an
// empty text is not the same as a null pointer.
struct molb_identity {
    const char* host;
    const char* domain;
    const char* name;
    const char* password;
};

// What a credential says about its holder. One allocation, released with molbAtFree.
struct molb_info {
    char* qualifier;  // "localhost" for users of the operating system, else the host of the domain
    char* domain;
    char* name;
};

// One entry of the domain list; the list is one contiguous array, released with molbAtFree.
// The first entry is the domain of logins that name none.
struct molb_domain_info {
    char* kind;  // how its users are known, such as by password; the daemon does not look at it
    char* name;
    std::uint32_t flags;
    std::uint32_t reserved;
};

// Instance parameters of molbAtInitEx. Any member may be null.
struct molb_init {
    const char* home;      // where the library is installed; null: ZEL_HOME_DIR
    const char* data_dir;  // keys, domains and users of this instance; null: ZEL_DATA_DIR
    const char* reserved;
    const char* library_path;  // when set, dlopen searches for the library by its name
};

// An interface version, see the table in api_loader.cc.
struct molb_version {
    std::int32_t major;
    std::int32_t minor;
};

// Passed to the credential-selection callback while a client's handshake runs.
struct molb_sni_request {
    const char* host_name;  // the name that the client asked for; may be null
    void* user_data;        // molb_accept_params::user_data
};

// Chooses handle and credential for a host name. Returns 0 when both outputs are set.
using molb_sni_callback = std::uint32_t (*)(const molb_sni_request* request, void** handle,
                                            void** credential);

struct molb_accept_params {
    std::uint32_t enabled;  // 0: the callback is not called
    std::uint32_t reserved;
    molb_sni_callback callback;
    void* user_data;
};

// Where a library puts what an administrator should know, one line a call: a handshake's failure, a
// file that it refuses. Offered by the command "Log" below; may be called during any call of the
// library, on the caller's thread. `text` has no line end and belongs to the library.
using molb_log_function = void (*)(int level, const char* text);
enum at_log_level : int {
    at_log_error = 1,  // a file, or a line of one, was refused, or something failed
    at_log_info = 2,   // a peer was turned away
};

static_assert(sizeof(void*) == 8, "the records are defined for 64-bit hosts");
static_assert(sizeof(molb_identity) == 32 && offsetof(molb_identity, password) == 24);
static_assert(sizeof(molb_info) == 24 && offsetof(molb_info, name) == 16);
static_assert(sizeof(molb_domain_info) == 24 && offsetof(molb_domain_info, name) == 8);
static_assert(sizeof(molb_init) == 32 && offsetof(molb_init, library_path) == 24);
static_assert(sizeof(molb_version) == 8);
static_assert(sizeof(molb_sni_request) == 16 && offsetof(molb_sni_request, user_data) == 8);
static_assert(sizeof(molb_accept_params) == 24 && offsetof(molb_accept_params, callback) == 8);

extern "C" {

// The loader entry of a library. `command` is "Load" (optionally "Load|HOME" or
// "Load|HOME|LIBRARY_PATH") with `arg` the address of a handle, "Unload" with the handle itself, or
// "Log" with a molb_log_function, null for none any more, or "Peer" with the address, as text, from
// which the logins come that the calling thread asks about next; null: unknown. A library may use
// it to count failures for each address apart. The daemon calls this for "Log" and "Peer" alone,
// once a library was loaded (else at_not_available), and does without where they are not known.
std::uint32_t molbatLibraryControl(const char* command, void* arg);

// Starts an instance. `version` may be null. *handle is null on failure.
std::uint32_t molbAtInit(const molb_version* version, void** handle);
std::uint32_t molbAtInitEx(const molb_version* version, void** handle, const molb_init* init,
                           std::uintptr_t a, std::uintptr_t b, std::uintptr_t c);
// Ends an instance; null is allowed. What came from it, such as channels and credentials, keeps
// what it needs and is released on its own, before or after.
std::uint32_t molbAtTerminate(void* handle);

// Checks an identity; on success *credential is owned by the caller (molbAtFree).
std::uint32_t molbAtAuthenticate(void* handle, const molb_identity* who, std::uint32_t flags,
                                 void** credential);
// Whose credential it is; *info is released with molbAtFree.
std::uint32_t molbAtExtractInfo(void* handle, void* credential, molb_info** info);

// The credentials of an instance: an array (molbAtFree) of credentials (molbAtFree each).
std::uint32_t molbAtGetCredentials(void* handle, const molb_identity* who, std::uint32_t flags,
                                   void*** list, std::int32_t* count);
// The domains that users may log in to, in the order of the library's own list.
std::uint32_t molbAtGetDomainInfos(void* handle, std::uint32_t flags, molb_domain_info** list,
                                   std::int32_t* count);

// Releases any block or credential that the library handed out. Null is allowed.
std::uint32_t molbAtFree(void* block);

// Client side of a secure channel on a connected socket. *channel is null before the first call. On
// a descriptor that does not block the answer is at_again until the handshake is over: call again,
// with the same *channel, when the descriptor is readable; whoever gives up ends the channel with
// molbAtSecConnClose. On one that blocks the call waits as long as the descriptor's own time-outs
// let it. On failure *channel is null and *error may hold a text (molbAtFree). The descriptor stays
// the caller's in every case.
std::uint32_t molbAtSecConnConnect(int fd, void* handle, std::uint32_t mode, void** channel,
                                   char** error);

// Server side, called until it returns something other than at_again. *channel is null before the
// first call. *client_credential is owned by the caller when the result is at_ok.
std::uint32_t molbAtSecConnAcceptWithCommExtn(void* handle, int fd, void* server_credential,
                                              std::uint32_t mode, void* params, std::uint32_t flags,
                                              std::uint32_t reserved, void** channel,
                                              void** client_credential);

// Move bytes: the count, 0 when the peer has closed, -1 with errno set (EAGAIN: try again later).
// A read that returns less than `length` leaves nothing decrypted behind. A write that returns n
// has handed n bytes to the kernel; a repeated write starts with the same bytes.
std::int32_t molbAtSecConnRead(void* channel, void* buffer, std::int32_t length);
std::int32_t molbAtSecConnWrite(void* channel, const void* data, std::int32_t length);
// Bytes that are decrypted and not yet read. The daemon does not ask: see molbAtSecConnRead.
std::int32_t molbAtDataPending(void* channel);

// Ends the channel and nulls *channel; never closes the descriptor.
std::uint32_t molbAtSecConnClose(void** channel);

}  // extern "C"
