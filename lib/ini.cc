#include "lib/ini.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "lib/alloc.h"
#include "lib/conf_lex.h"
#include "lib/conf_yacc.h"
#include "lib/file.h"
#include "lib/plat.h"
#include "lib/qz_result.h"

namespace {

// One lock for all stores of the process, created at first use and never destroyed.
critical_section* store_lock() {
    static critical_section* const section = [] {
        static critical_section lock;
        (void)init_critical_section(&lock);
        return &lock;
    }();
    return section;
}

// The frame of every public operation: enter hook, lock ... leave hook, unlock, on every path.
class store_call {
  public:
    store_call(const parse_hooks& hooks, const parse_call& call) : hooks_(hooks), call_(call) {
        if (hooks_.enter != nullptr) {
            hooks_.enter(&call_);
        }
        (void)parser_lock();  // fails only for an invalid mutex
    }
    ~store_call() {
        if (!finished_) {
            (void)finish();
        }
    }
    store_call(const store_call&) = delete;
    store_call& operator=(const store_call&) = delete;
    store_call(store_call&&) = delete;
    store_call& operator=(store_call&&) = delete;

    // Leaves early, for the operation that needs the unlock's result.
    int finish() {
        finished_ = true;
        if (hooks_.leave != nullptr) {
            hooks_.leave(&call_);
        }
        return parser_unlock();
    }

    // The handle is gone: the leave hook must not see it.
    void forget_handle() { call_.handle = nullptr; }

  private:
    parse_hooks hooks_;  // a copy: close frees the handle that they came from
    parse_call call_;
    bool finished_ = false;
};

constexpr parse_ops store_ops = {
    .get = parse_get,
    .put = parse_put,
    .enum_keys = parse_enum_keys,
    .enum_sections = parse_enum_sections,
    .delete_key = parse_delete_key,
    .delete_section = parse_delete_section,
    .close = parse_close,
};

parse_handle* new_handle(const char* path, const parse_hooks& hooks, time_t modified) {
    auto* handle = qz_need_new<parse_handle>();
    handle->sections = new_qz_map(compare_string, qzfree, propset_free);
    handle->hooks = hooks;
    handle->path = qzstrdup(path);
    handle->modified = modified;
    handle->ops = &store_ops;
    return handle;
}

// The time of the file that is open, not of whatever the path names by now.
time_t time_of(int fd, const char* path) {
    struct stat status = {};
    return ::fstat(fd, &status) == 0 ? status.st_mtime : get_m_time(path);
}

// The statements of a section, null when it does not exist.
propset* section_of(const parse_handle* handle, const char* section) {
    return static_cast<propset*>(qz_map_find(handle->sections, section));
}

const char* text_of(const kv* entry) {
    return static_cast<const char*>(entry->value->data);
}

// The length counts the terminator, as everywhere in a string value.
kv* new_statement(const char* key, const char* value) {
    return new_kv(key, 0, KV_STRING, static_cast<std::uint32_t>(std::strlen(value) + 1), value);
}

// Sets a value in memory.
void set_value(parse_handle* handle, const char* section, const char* key, const char* value) {
    propset* statements = section_of(handle, section);
    if (statements == nullptr) {
        statements = new_ps(0);
        (void)qz_map_insert(handle->sections, qzstrdup(section), statements);  // it was absent
    }
    kv* old_entry = ps_lookup(statements, key);
    if (old_entry == nullptr) {
        (void)insert_statement(statements, key, value);  // it was absent
        return;
    }
    kv* entry = new_statement(key, value);
    if (kv_update_fast(old_entry, &entry) != qz_ok) {
        kv_free(entry);
    }
}

qz_vector* copy_of_keys(const propset* statements) {
    qz_vector* keys = new_qz_vector(ps_getcount(statements), qzfree);
    for (void* word : qz_each(statements->entries)) {
        qz_vector_pushback(keys, qzstrdup(static_cast<kv*>(word)->name));
    }
    return keys;
}

qz_vector* copy_of_names(const qz_map* sections) {
    qz_vector* names = new_qz_vector(qz_map_size(sections), qzfree);
    for (const qz_pair& entry : qz_each(sections)) {
        qz_vector_pushback(names, qzstrdup(static_cast<char*>(entry.key)));
    }
    return names;
}

// The six ASCII characters, whatever the locale says.
bool has_white_space(std::string_view text) {
    return text.find_first_of(" \t\n\v\f\r") != std::string_view::npos;
}

// Writes every section and settles the file's time; false when anything did not reach the file.
bool write_sections(const parse_handle* handle, file_ptr file, time_t* modified) {
    // A file that only its owner may read stays so.
    struct stat status = {};
    if (::stat(handle->path, &status) == 0) {
        (void)::fchmod(::fileno(file.get()), status.st_mode & 07777);  // best effort
    }
    for (const qz_pair& entry : qz_each(handle->sections)) {
        if (write_section(file.get(), static_cast<char*>(entry.key),
                          static_cast<propset*>(entry.value)) != 0) {
            return false;
        }
    }
    if (std::fflush(file.get()) != 0) {
        return false;
    }
    *modified = time_of(::fileno(file.get()), handle->path);
    return std::fclose(file.release()) == 0;
}

}  // namespace

int conf_parse_init() noexcept {
    (void)store_lock();
    return qz_ok;
}

int parser_lock() noexcept {
    return enter_critical_section(store_lock());
}

int parser_unlock() noexcept {
    return leave_critical_section(store_lock());
}

time_t get_m_time(const char* path) noexcept {
    struct stat status = {};
    return ::stat(path, &status) == 0 ? status.st_mtime : ::time(nullptr);
}

int parse_open(const char* path, const parse_hooks* hooks, parse_handle** handle) noexcept {
    const parse_hooks called = hooks == nullptr ? parse_hooks{} : *hooks;
    const store_call call(called, {.op = parse_op::open, .path = path});
    const unique_fd file(::open(path, O_RDONLY | open_at_once));
    struct stat status = {};
    if (!file && ::stat(path, &status) == 0) {
        return qz_unreadable;
    }
    std::string content;
    if (file && read_all(file.get(), &content) != 0) {
        return qz_unreadable;  // a directory, or a failing disk
    }
    parse_handle* opened =
        new_handle(path, called, file ? time_of(file.get(), path) : get_m_time(path));
    const int result = confparse(content.data(), content.size(), opened);
    opened->current_section = nullptr;
    if (result != qz_ok) {
        // Runs the hooks a second time, inside this call's pair.
        (void)parse_close(opened);
        return result;
    }
    *handle = opened;
    return qz_ok;
}

int start_section(parse_handle* handle, char* name) noexcept {
    propset* statements = new_ps(0);
    if (qz_map_insert(handle->sections, name, statements) != qz_ok) {
        ps_free(statements);
        return qz_exists;
    }
    handle->current_section = name;
    return qz_ok;
}

int add_statement(parse_handle* handle, char* key, char* value) noexcept {
    const qz_owned<char> owned_key(key);
    const qz_owned<char> owned_value(value);
    propset* statements = section_of(handle, handle->current_section);
    return insert_statement(statements, key, value);
}

int insert_statement(propset* set, const char* key, const char* value) noexcept {
    kv* entry = new_statement(key, value);
    const int result = ps_add(set, entry);
    if (result != qz_ok) {
        kv_free(entry);
    }
    return result;
}

int parse_get(parse_handle* handle, const char* section, const char* key, char** value) noexcept {
    const store_call call(handle->hooks,
                          {.op = parse_op::get, .handle = handle, .section = section, .key = key});
    if (const int result = p_sync(handle); result != qz_ok) {
        return result;
    }
    const propset* statements = section_of(handle, section);
    const kv* entry = statements == nullptr ? nullptr : ps_lookup(statements, key);
    if (entry == nullptr) {
        return qz_not_found;
    }
    *value = qzstrdup(text_of(entry));
    return qz_ok;
}

int parse_put(parse_handle* handle, const char* section, const char* key,
              const char* value) noexcept {
    const store_call call(
        handle->hooks,
        {.op = parse_op::put, .handle = handle, .section = section, .key = key, .value = value});
    if (const int result = p_sync(handle); result != qz_ok) {
        return result;
    }
    set_value(handle, section, key, value);
    return p_write(handle);
}

int parse_enum_keys(parse_handle* handle, const char* section, qz_vector** keys) noexcept {
    const store_call call(handle->hooks,
                          {.op = parse_op::enum_keys, .handle = handle, .section = section});
    if (const int result = p_sync(handle); result != qz_ok) {
        return result;
    }
    const propset* statements = section_of(handle, section);
    if (statements == nullptr) {
        return qz_not_found;
    }
    *keys = copy_of_keys(statements);
    return qz_ok;
}

int parse_enum_sections(parse_handle* handle, qz_vector** sections) noexcept {
    const store_call call(handle->hooks, {.op = parse_op::enum_sections, .handle = handle});
    if (const int result = p_sync(handle); result != qz_ok) {
        return result;
    }
    *sections = copy_of_names(handle->sections);
    return qz_ok;
}

int parse_enum_domains(parse_handle* handle, qz_vector** names) noexcept {
    const int result = parse_enum_keys(handle, "domains", names);
    return result == qz_not_found ? parse_enum_sections(handle, names) : result;
}

int parse_delete_key(parse_handle* handle, const char* section, const char* key) noexcept {
    const store_call call(
        handle->hooks,
        {.op = parse_op::delete_key, .handle = handle, .section = section, .key = key});
    if (const int result = p_sync(handle); result != qz_ok) {
        return result;
    }
    propset* statements = section_of(handle, section);
    if (statements == nullptr || ps_delete(statements, key) != qz_ok) {
        return qz_ok;  // Kept: what is not there counts as deleted
    }
    return p_write(handle);
}

int parse_delete_section(parse_handle* handle, const char* section) noexcept {
    const store_call call(handle->hooks,
                          {.op = parse_op::delete_section, .handle = handle, .section = section});
    if (const int result = p_sync(handle); result != qz_ok) {
        return result;
    }
    if (const int result = qz_map_delete(handle->sections, section); result != qz_ok) {
        return result;
    }
    return p_write(handle);
}

int parse_close(parse_handle* handle) noexcept {
    if (handle == nullptr) {
        return qz_invalid;
    }
    store_call call(handle->hooks, {.op = parse_op::close, .handle = handle});
    qz_map_destroy(handle->sections);
    qzfree(handle->path);
    qzfree(handle);
    call.forget_handle();
    return call.finish();
}

int p_sync(parse_handle* handle) noexcept {
    if (get_m_time(handle->path) == handle->modified) {
        return qz_ok;
    }
    parse_handle* fresh = nullptr;
    if (const int result = parse_open(handle->path, nullptr, &fresh); result != qz_ok) {
        return result;
    }
    // The old contents leave with the temporary handle; hooks and path stay.
    std::swap(handle->sections, fresh->sections);
    handle->modified = fresh->modified;
    return parse_close(fresh);
}

int p_write(parse_handle* handle) noexcept {
    const std::string temporary = std::string(handle->path) + ".tmp";
    // Beside the file, so that the rename stays inside one file system.
    file_ptr file(std::fopen(temporary.c_str(), "we"));
    if (file == nullptr) {
        return qz_no_temporary;
    }
    time_t modified = 0;
    if (!write_sections(handle, std::move(file), &modified) ||
        std::rename(temporary.c_str(), handle->path) != 0) {
        (void)std::remove(temporary.c_str());  // the old file stands
        return -1;
    }
    handle->modified = modified;
    return qz_ok;
}

int write_section(FILE* file, const char* name, const propset* statements) noexcept {
    (void)std::fprintf(file, "[%s]\n", name);  // errors stay in the stream until the end
    for (void* word : qz_each(statements->entries)) {
        const auto* entry = static_cast<const kv*>(word);
        const std::string_view value = text_of(entry);
        const bool bare = !value.empty() && !has_white_space(value);
        (void)std::fprintf(file, bare ? "%s = %s;\n" : "%s = \"%s\";\n", entry->name, value.data());
    }
    (void)std::fputs("\n", file);
    return std::ferror(file) == 0 ? 0 : -1;
}
