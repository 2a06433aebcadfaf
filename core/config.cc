#include "core/config.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "core/compat_unix.h"
#include "core/config_line.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/options.h"
#include "core/paths.h"
#include "core/resolver.h"
#include "core/shttpd.h"
#include "domain/domain.h"
#include "handlers/uri_handlers.h"
#include "lib/ini.h"
#include "lib/plat.h"
#include "sched/sched.h"
#include "security/at_types.h"
#include "security/authz.h"
#include "security/data_directory.h"
#include "security/library_log.h"
#include "security/sec_uri.h"
#include "security/tpk_make_path.h"

namespace {

constexpr int smallest_buffer = 1024;
constexpr int largest_buffer = 16 * 1024 * 1024;
constexpr int default_buffer = 16384;

// --- Values: defaults, the file, the setters ---

const option_row* known_option(const char* keyword) {
    const option_row* row = find_option('\0', keyword);
    if (row == nullptr) {
        fatal("set_option: unknown variable [%s]", keyword);
    }
    return row;
}

// Before the file is read, so that its lines win; pairs of an embedder are there already.
void fill_defaults(option_slots* slots) {
    for (const option_row* row = options.data(); row->letter != '\0'; ++row) {
        if (row->default_value != nullptr && option_slot(slots, row) == nullptr) {
            set_option(row, row->default_value, slots);
        }
    }
}

void read_file(const char* path, option_slots* slots) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "re"), std::fclose);
    if (file == nullptr) {
        // The daemon goes on without its file, but one that can't be read is worth a word.
        if (errno != ENOENT) {
            elog(elog_info, nullptr, "cannot read %s: %s", path, std::strerror(errno));
        }
        return;
    }
    config_line line;
    while (next_config_line(file.get(), &line)) {
        const option_row* row =
            line.keyword.empty() ? nullptr : find_option('\0', line.keyword.c_str());
        if (row == nullptr) {  // a fixed text follows, which can't tell the place
            (void)std::fprintf(stderr, "%s:%d:\n", path, line.number);
        }
        if (line.keyword.empty()) {
            fatal("init_ctx: bad line: [%s]", line.text.c_str());
        }
        set_option(row != nullptr ? row : known_option(line.keyword.c_str()), line.value.c_str(),
                   slots);
    }
}

// In the order of the table, whatever the order of the file: logs are open before types are read.
void apply(shttpd_ctx* ctx, option_slots* slots) {
    for (const option_row* row = options.data(); row->letter != '\0'; ++row) {
        std::unique_ptr<std::string>& slot = option_slot(slots, row);
        if (slot != nullptr) {
            (void)row->setter(ctx, row->field, slot->c_str());
            slot.reset();
        }
    }
}

void keep_buffer_size_sane(shttpd_ctx* ctx) {
    const int wanted = ctx->io_buf_size;
    if (wanted < smallest_buffer) {
        ctx->io_buf_size = default_buffer;
    } else if (wanted > largest_buffer) {
        ctx->io_buf_size = largest_buffer;
    } else {
        return;
    }
    elog(elog_info, nullptr, "io_buf_size %d is out of range, using %d", wanted, ctx->io_buf_size);
}

// Before the rights are set up: the root of the default namespace is taken from it.
void default_document_root(shttpd_ctx* ctx) {
    char directory[PATH_MAX];
    if (ctx->document_root.empty() && my_getcwd(directory, sizeof directory) != nullptr) {
        ctx->document_root = directory;
    }
}

// --- The authentication library ---

// The library, the CGI service and scheduled commands find their directories in the environment.
void export_directories(shttpd_ctx* ctx) {
    if (ctx->var_dir.empty()) {
        char directory[PATH_MAX];
        ctx->var_dir = get_default_var_directory(directory, sizeof directory);
    }
    // setenv copies the texts, so they need not live as long as the environment.
    (void)setenv("ZEL_HOME_DIR", ctx->zel_home.c_str(), 1);
    (void)setenv("PLX_VAR_DIR", ctx->var_dir.c_str(), 1);
    (void)setenv("ZEL_DATA_DIR", (ctx->var_dir + "/sec").c_str(), 1);
}

void start_library(shttpd_ctx* ctx, const char* config_path) {
    // An abort, not an exit: without the library nothing about this set-up can be right.
    if (ctx->zel_home.empty()) {
        if (config_path != nullptr && access(config_path, F_OK) != 0) {
            (void)std::fprintf(stderr, "no configuration file %s\n", config_path);
        }
        (void)std::fprintf(stderr, "zel home dir not specified\n");
        std::abort();
    }
    export_directories(ctx);
    prepare_data_directory(ctx->var_dir + "/sec", ctx->runtime_uid);
    const std::uint32_t code = molbAtInit(nullptr, &ctx->at_handle);
    if (code != at_ok) {
        if (!molbat_load_problem.empty()) {
            (void)std::fprintf(stderr, "%s\n", molbat_load_problem.c_str());
        }
        (void)std::fprintf(stderr, "Error initializing MOLB AT%d\n", static_cast<int>(code));
        std::abort();
    }
    offer_log_to_library(ctx);
}

// The identity of the service itself: everything but the host is absent.
constexpr molb_identity service_identity = {
    .host = "localhost", .domain = nullptr, .name = nullptr, .password = nullptr};

// A copy of the name of the library's first domain, null when it knows none.
char* first_domain(shttpd_ctx* ctx) {
    molb_domain_info* list = nullptr;
    std::int32_t count = 0;
    char* name = nullptr;
    if (molbAtGetDomainInfos(ctx->at_handle, 0, &list, &count) == at_ok && list != nullptr) {
        if (count > 0 && list->name != nullptr) {
            name = qzstrdup(list->name);
        }
        (void)molbAtFree(list);
    }
    return name;
}

// Each subsystem registers its URIs here, and the first registration of a pattern wins.
void start_subsystems(shttpd_ctx* ctx) {
    set_security_info(ctx);
    init_auth_info(ctx);
    init_domain_info(ctx);
    scheduler_init(ctx);
    init_world_uris(ctx);
}

shttpd_ctx* initialize_context(shttpd_ctx* ctx, const char* path, option_slots* slots) {
    (void)std::setlocale(LC_ALL, "");
    refresh_clocks();
    ctx->start_time = current_time;
    (void)init_critical_section(&ctx->lock);
    resolver_init();
    fill_defaults(slots);
    if (path != nullptr) {
        read_file(path, slots);
    }
    apply(ctx, slots);
    keep_buffer_size_sane(ctx);
    default_document_root(ctx);
    // The shim and the security URIs are below the engine and can't know the fixed paths.
    molbat_loc_path = paths.library_location;
    qz_resolver_file = paths.resolver_file;
    start_library(ctx, path);
    ctx->accept_params = {.enabled = 1, .reserved = 0, .callback = sni_callback, .user_data = ctx};
    init_broker_credentials(ctx);
    // When this fails, set_security_info fails the same way and reports it.
    (void)molbAtAuthenticate(ctx->at_handle, &service_identity, 0, &ctx->service_credential);
    start_subsystems(ctx);
    return ctx;
}

}  // namespace

shttpd_ctx* init_from_argc_argv(const char* path, int /*argc*/, char** /*argv*/) {
    auto* ctx = new (std::nothrow) shttpd_ctx;
    if (ctx == nullptr) {
        return nullptr;
    }
    option_slots slots;
    return initialize_context(ctx, path, &slots);
}

shttpd_ctx* shttpd_init(const char* path, const char* keyword, ...) {
    auto* ctx = new (std::nothrow) shttpd_ctx;
    if (ctx == nullptr) {
        return nullptr;
    }
    option_slots slots;
    va_list pairs;
    va_start(pairs, keyword);
    for (const char* key = keyword; key != nullptr && *key != '\0';
         key = va_arg(pairs, const char*)) {
        const char* value = va_arg(pairs, const char*);
        set_option(known_option(key), value != nullptr ? value : "", &slots);
    }
    va_end(pairs);
    return initialize_context(ctx, path, &slots);
}

void set_security_info(shttpd_ctx* ctx) {
    (void)conf_parse_init();
    auto* info = new (std::nothrow) security_info{};
    if (info == nullptr) {
        fatal("Out of memory");
    }
    info->identity = service_identity;
    if (molbAtAuthenticate(ctx->at_handle, &info->identity, 0, &info->credential) != at_ok) {
        fatal("Cannot get credential for service");
    }
    info->default_domain = first_domain(ctx);
    if (info->default_domain == nullptr) {
        fatal("Cannot get list of domains");
    }
    // The old information goes when the new one stands, so that nobody meets a gap.
    free_security_info(ctx->security);
    ctx->security = info;
}

void free_security_info(security_info* info) {
    if (info == nullptr) {
        return;
    }
    (void)molbAtFree(info->credential);
    safe_free(info->default_domain);
    delete info;
}

void safe_free(void* p) {
    if (p != nullptr) {
        std::free(p);
    }
}
