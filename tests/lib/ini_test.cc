// Proves the INI store: its grammar against the table of an independent tokenizer, its writer
// against its parser, and its behaviour beside another process, a full disk and hooks.
#include "lib/ini.h"

#include <sys/un.h>

#include "lib/conf_lex.h"
#include "lib/plat.h"
#include "lib/qz_result.h"
#include "tests/lib/file_fixture.h"

namespace {

class ini_test : public file_test {
  protected:
    // Writes the file as another process would, `seconds` later than the test began.
    void put(const std::string& content, int seconds = 0) const {
        write(path_, content);
        const timespec time{start_ + seconds, 0};
        const timespec times[2] = {time, time};
        ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
    }
    parse_ptr open() const {
        parse_handle* handle = nullptr;
        EXPECT_EQ(parse_open(path_.c_str(), nullptr, &handle), 0);
        return parse_ptr(handle);
    }
    static std::string get(parse_handle* store, const char* section, const char* key) {
        char* value = nullptr;
        const int result = parse_get(store, section, key, &value);
        const qz_owned<char> owned(value);
        return result == 0 ? value : "#" + std::to_string(result);
    }

    const time_t start_ = ::time(nullptr);
    const std::string path_ = path("store.conf");
};

std::string list_of(qz_vector* owned) {
    const vector_ptr words(owned);
    std::string text;
    for (void* word : qz_each(owned)) {
        text += std::string(qz_as<char>(word)) + ",";
    }
    return text;
}

// "section{key:value,key:value,}section{}" in the store's order.
std::string summary(const parse_handle* store) {
    std::string text;
    for (const qz_pair& section : qz_each(store->sections)) {
        text += std::string(qz_as<char>(section.key)) + "{";
        for (void* word : qz_each(qz_as<propset>(section.value)->entries)) {
            const auto* entry = qz_as<kv>(word);
            text += std::string(entry->name) + ":" + qz_as<char>(entry->value->data) + ",";
        }
        text += "}";
    }
    return text;
}

TEST_F(ini_test, accepts_what_an_independent_tokenizer_accepts) {
    const struct {
        const char* content;
        const char* summary;  // null: syntax error
    } rows[] = {
        {"", ""},
        {"[s]", "s{}"},
        {"[ s ]\nk = v;\n", "s{k:v,}"},
        {"[s]\nk=v;\n", nullptr},
        {"[s]\nk = v\n", nullptr},
        {"k = v;\n", nullptr},
        {"[s]\nk = v;\nk = w;\n", nullptr},
        {"[s]\nk = \"\";\n", "s{k:,}"},
        {"[s]\nk = ;\n", nullptr},
        {"[s]\nk = \"a b\";\n", "s{k:a b,}"},
        {"[s] a = 1; b = 2; [t] a = 3;", "s{a:1,b:2,}t{a:3,}"},
        {"[s]\r\nk = v;\r\n", nullptr},
        {"[s]\nk\t= v;\n", nullptr},
        {"[s]\n\tk = v;\n", "s{\tk:v,}"},
        {"[s]\nk = \"abc;\n", "s{k:abc,}"},
        {"[s]\nk = \"abc\n\";\n", "s{k:abc,}"},
        {"[s]\nk = =x;\n", "s{k:=x,}"},
        {"[\"a b\"]\nk = v;\n", "a b{k:v,}"},
        {"[a b]\nk = v;\n", nullptr},
        {"[s]\nk = it's;\n", nullptr},
        {"[s]\n'k' = v;\n", "s{k:v,}"},
        {"[s]\n# note\nk = v;\n", nullptr},
        {"[s]\nk = a\"b\";\n", nullptr},
        {"[s]\nk = \"a;b]c[d\";\n", "s{k:a;b]c[d,}"},
        {"[s]\nk = v;;\n", nullptr},
        {"[s\nk = v;\n", nullptr},
        {"[]\n", nullptr},
        {"[b]\n[a]\nz = 1;\ny = 2;\n", "a{y:2,z:1,}b{}"},
        {"[s]\nk = v; [s]\n", nullptr},
        {"[s]\n\"=\" = v;\n", "s{=:v,}"},
        {"[s]k = v;\"", "s{k:v,}"},
        {"[s]\nk == v;\n", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.content);
        put(row.content);
        parse_handle* handle = nullptr;
        const int result = parse_open(path_.c_str(), nullptr, &handle);
        EXPECT_EQ(result, row.summary == nullptr ? qz_syntax_error : qz_ok);
        ASSERT_EQ(handle == nullptr, row.summary == nullptr);
        if (handle != nullptr) {
            EXPECT_EQ(summary(handle), row.summary);
            EXPECT_EQ(handle->current_section, nullptr);
            EXPECT_EQ(parse_close(handle), 0);
        }
    }
    put("[s]\nk = v;\n\nk = w;\n");
    parse_handle* handle = nullptr;
    EXPECT_EQ(parse_open(path_.c_str(), nullptr, &handle), qz_syntax_error);
    EXPECT_EQ(conflineno, 4);
}

TEST_F(ini_test, writes_sorted_sections_and_quotes_where_needed) {
    const parse_ptr store = open();  // the file is missing: an empty store
    EXPECT_EQ(summary(store.get()), "");
    EXPECT_EQ(parse_put(store.get(), "s", "k", "a b"), 0);
    EXPECT_EQ(parse_put(store.get(), "s", "e", ""), 0);
    EXPECT_EQ(parse_put(store.get(), "B", "t", "\t"), 0);
    EXPECT_EQ(parse_put(store.get(), "s", "k", "ab"), 0);
    EXPECT_EQ(read(path_), "[B]\nt = \"\t\";\n\n[s]\ne = \"\";\nk = ab;\n\n");
    EXPECT_EQ(summary(open().get()), "B{t:\t,}s{e:,k:ab,}");
    EXPECT_EQ(parse_delete_key(store.get(), "B", "t"), 0);
    EXPECT_EQ(read(path_), "[B]\n\n[s]\ne = \"\";\nk = ab;\n\n");
    EXPECT_EQ(parse_delete_section(store.get(), "s"), 0);
    EXPECT_EQ(read(path_), "[B]\n\n");
}

TEST_F(ini_test, answers_through_functions_and_table) {
    const char* const content = "[b]\nk   =   v;\na = \"\";\n[a]\n";
    put(content);
    const parse_ptr store = open();
    EXPECT_EQ(get(store.get(), "b", "k"), "v");
    EXPECT_EQ(get(store.get(), "b", "x"), "#2");
    EXPECT_EQ(get(store.get(), "x", "k"), "#2");
    EXPECT_EQ(parse_delete_key(store.get(), "b", "x"), 0);
    EXPECT_EQ(parse_delete_key(store.get(), "x", "k"), 0);
    EXPECT_EQ(parse_delete_section(store.get(), "x"), qz_not_found);
    EXPECT_EQ(read(path_), content);  // deleting what is missing writes nothing
    qz_vector* names = nullptr;
    EXPECT_EQ(store->ops->enum_keys(store.get(), "x", &names), qz_not_found);
    EXPECT_EQ(names, nullptr);
    EXPECT_EQ(store->ops->enum_keys(store.get(), "b", &names), 0);
    EXPECT_EQ(list_of(names), "a,k,");
    EXPECT_EQ(store->ops->enum_sections(store.get(), &names), 0);
    EXPECT_EQ(list_of(names), "a,b,");
    EXPECT_EQ(parse_enum_domains(store.get(), &names), 0);
    EXPECT_EQ(list_of(names), "a,b,");
    EXPECT_EQ(store->ops->put(store.get(), "domains", "z", ""), 0);
    EXPECT_EQ(store->ops->put(store.get(), "domains", "y", ""), 0);
    EXPECT_EQ(parse_enum_domains(store.get(), &names), 0);
    EXPECT_EQ(list_of(names), "y,z,");
    EXPECT_EQ(parse_close(nullptr), qz_invalid);
}

TEST_F(ini_test, sees_what_another_process_writes) {
    put("[s]\nk = old;\n");
    const parse_ptr store = open();
    put("[s]\nk = new;\n", 10);
    EXPECT_EQ(get(store.get(), "s", "k"), "new");
    put("[s]\nk = same second;\n", 10);  // goes unnoticed: times are whole seconds
    EXPECT_EQ(get(store.get(), "s", "k"), "new");

    put("[s]\nk = broken\n", 20);
    EXPECT_EQ(get(store.get(), "s", "k"), "#6");
    EXPECT_EQ(parse_put(store.get(), "s", "k", "x"), qz_syntax_error);
    EXPECT_EQ(summary(store.get()), "s{k:new,}");
    put("", 30);
    // The other process has the same store: neither loses what the other writes.
    EXPECT_TRUE(holds_in_child([&] { return parse_put(store.get(), "s", "other", "1") == 0; }));
    put(read(path_), 40);
    EXPECT_EQ(parse_put(store.get(), "s", "k", "mine"), 0);
    EXPECT_EQ(read(path_), "[s]\nk = mine;\nother = 1;\n\n");

    ASSERT_EQ(unlink(path_.c_str()), 0);
    store->modified = 1;  // as if a second had passed
    EXPECT_EQ(get(store.get(), "s", "k"), "#2");
}

TEST_F(ini_test, unreadable_files) {
    parse_handle* handle = nullptr;
    EXPECT_EQ(parse_open(folder_.c_str(), nullptr, &handle), qz_unreadable);
    const unique_fd socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path_.size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, path_.c_str());
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(parse_open(path_.c_str(), nullptr, &handle), qz_unreadable);
    EXPECT_EQ(handle, nullptr);

    ASSERT_EQ(unlink(path_.c_str()), 0);
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(get(open().get(), "s", "k"), "#2");  // nobody writes, and nobody waits
}

TEST_F(ini_test, failed_writes_leave_the_file_alone) {
    put("[s]\nk = old;\n");
    ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
    const parse_ptr store = open();
    const std::string temporary = path_ + ".tmp";
    ASSERT_EQ(mkdir(temporary.c_str(), 0700), 0);
    EXPECT_EQ(parse_put(store.get(), "s", "k", "x"), qz_no_temporary);
    ASSERT_EQ(rmdir(temporary.c_str()), 0);

    const std::string value(100'000, 'x');
    EXPECT_TRUE(holds_in_child([&] {
        limit_file_size();
        return parse_put(store.get(), "s", "k", value.c_str()) == -1 &&
               get(store.get(), "s", "k") == value;
    }));
    EXPECT_EQ(read(path_), "[s]\nk = old;\n");
    EXPECT_NE(access(temporary.c_str(), F_OK), 0);

    EXPECT_EQ(parse_put(store.get(), "s", "k", "new"), 0);
    struct stat after {};
    ASSERT_EQ(stat(path_.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode & 07777, 0600U);
}

// --- Hooks ---

std::vector<std::string> hook_log;

void note(const char* when, const parse_call* call) {
    hook_log.push_back(when + std::to_string(static_cast<int>(call->op)) +
                       (call->handle != nullptr ? "h" : "") + (call->path != nullptr ? "p" : "") +
                       (call->key != nullptr ? call->key : ""));
}

TEST_F(ini_test, hooks_frame_every_operation) {
    const parse_hooks hooks{[](const parse_call* call) { note("+", call); },
                            [](const parse_call* call) {
                                note("-", call);
                                EXPECT_EQ(parser_unlock(), 0);  // inside the lock
                                EXPECT_EQ(parser_lock(), 0);
                            }};
    parse_handle* store = nullptr;
    hook_log.clear();
    ASSERT_EQ(parse_open(path_.c_str(), &hooks, &store), 0);
    EXPECT_EQ(get(store, "s", "key"), "#2");
    EXPECT_EQ(parse_close(store), 0);
    EXPECT_EQ(hook_log, (std::vector<std::string>{"+0p", "-0p", "+1hkey", "-1hkey", "+7h", "-7"}));

    hook_log.clear();
    put("[s]\nk");
    EXPECT_EQ(parse_open(path_.c_str(), &hooks, &store), qz_syntax_error);
    EXPECT_EQ(hook_log, (std::vector<std::string>{"+0p", "+7h", "-7", "-0p"}));
    EXPECT_EQ(parser_unlock(), EPERM);  // everything that was entered has been left
}

}  // namespace
