// Proves the options: the file's grammar, what becomes of every value, the fatal errors with their
// texts, what the authentication library is asked at start, and the credentials of brokers.
#include "core/config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/globals.h"
#include "core/options.h"
#include "core/paths.h"
#include "core/shttpd.h"
#include "security/api.h"
#include "tests/support/engine_fixture.h"

namespace {

// Deleted by main: a death test's child that calls exit() must not take it along.
const temporary_folder& fixed_root = *new temporary_folder;
const std::string var_directory = fixed_root.path() / "var";
const std::string resolver_file = fixed_root.path() / "plx_resolv.conf";

// An authentication library that counts what it hands out and gets back.
struct library_double {
    std::uint32_t init_result = 0;  // of molbAtInit and molbAtInitEx
    std::uint32_t authenticate_result = 0;
    std::vector<std::string> domains = {"EXAMPLE", "OTHER"};
    int credentials = 3;  // how many molbAtGetCredentials hands out; negative: it fails

    std::vector<std::string> data_dirs;  // of every molbAtInitEx
    std::vector<std::string> asked;      // "host|domain|name" of every molbAtGetCredentials
    std::set<void*> instances;           // alive
    std::set<void*> blocks;              // alive: credentials and lists
};

library_double library;

std::string text_of(const char* text) {
    return text != nullptr ? text : "(null)";
}

void* new_block(std::size_t size) {
    void* block = std::calloc(1, size);
    library.blocks.insert(block);
    return block;
}

void* new_instance() {
    void* instance = std::malloc(1);
    library.instances.insert(instance);
    return instance;
}

}  // namespace

// --- The entry points of the shim, in place of the real ones ---

std::uint32_t molbatLibraryControl(const char*, void*) {
    return at_not_available;
}
void* molbatGetSymbol(int, const char*) {
    return &library;
}
std::uint32_t molbAtInit(const molb_version*, void** handle) {
    *handle = library.init_result == at_ok ? new_instance() : nullptr;
    return library.init_result;
}
std::uint32_t molbAtInitEx(const molb_version* version, void** handle, const molb_init* init,
                           std::uintptr_t, std::uintptr_t, std::uintptr_t) {
    library.data_dirs.push_back(text_of(init->data_dir));
    return molbAtInit(version, handle);
}
std::uint32_t molbAtTerminate(void* handle) {
    if (library.instances.erase(handle) == 0) {
        return at_invalid_argument;
    }
    std::free(handle);
    return at_ok;
}
std::uint32_t molbAtAuthenticate(void*, const molb_identity* who, std::uint32_t,
                                 void** credential) {
    const bool service = std::strcmp(who->host, "localhost") == 0 && who->domain == nullptr &&
                         who->name == nullptr && who->password == nullptr;
    *credential = nullptr;
    if (!service || library.authenticate_result != at_ok) {
        return at_refused;
    }
    *credential = new_block(1);
    return at_ok;
}
std::uint32_t molbAtExtractInfo(void*, void*, molb_info**) {
    return at_not_available;
}
std::uint32_t molbAtGetCredentials(void*, const molb_identity* who, std::uint32_t, void*** list,
                                   std::int32_t* count) {
    library.asked.push_back(text_of(who->host) + "|" + text_of(who->domain) + "|" +
                            text_of(who->name));
    if (library.credentials < 0) {
        return at_not_available;
    }
    *count = library.credentials;
    *list = static_cast<void**>(new_block(sizeof(void*) * 8));
    for (int i = 0; i < *count; ++i) {
        (*list)[i] = new_block(1);
    }
    return at_ok;
}
std::uint32_t molbAtGetDomainInfos(void*, std::uint32_t, molb_domain_info** list,
                                   std::int32_t* count) {
    *count = static_cast<std::int32_t>(library.domains.size());
    *list = static_cast<molb_domain_info*>(new_block(sizeof(molb_domain_info) * 8));
    for (std::size_t i = 0; i < library.domains.size(); ++i) {
        (*list)[i].name = library.domains[i].data();
    }
    return at_ok;
}
std::uint32_t molbAtFree(void* block) {
    if (block != nullptr && library.blocks.erase(block) == 0) {
        std::abort();  // freed twice, or never handed out
    }
    std::free(block);
    return at_ok;
}
std::uint32_t molbAtSecConnConnect(int, void*, std::uint32_t, void**, char**) {
    return at_channel_failed;
}
std::uint32_t molbAtSecConnAcceptWithCommExtn(void*, int, void*, std::uint32_t, void*,
                                              std::uint32_t, std::uint32_t, void**, void**) {
    return at_channel_failed;
}
std::int32_t molbAtSecConnRead(void*, void*, std::int32_t) {
    errno = EAGAIN;
    return -1;
}
std::int32_t molbAtSecConnWrite(void*, const void*, std::int32_t) {
    errno = EAGAIN;
    return -1;
}
std::int32_t molbAtDataPending(void*) {
    return 0;
}
std::uint32_t molbAtSecConnClose(void**) {
    return at_ok;
}

// This program's own fixed paths.
const system_paths paths = {.config_file = "",
                            .pid_file = "",
                            .var_directory = var_directory.c_str(),
                            .resolver_file = resolver_file.c_str(),
                            .host_guid = "",
                            .os_uuid = "",
                            .tuvo_admin_socket = "",
                            .tuvo_query_socket = "",
                            .library_location = ""};
const char* config_file = "";

namespace {

struct context_deleter {
    void operator()(shttpd_ctx* ctx) const { shttpd_fini(ctx); }
};
using context_ptr = std::unique_ptr<shttpd_ctx, context_deleter>;

class Configuration : public testing::Test {
  protected:
    Configuration() {
        library = library_double();
        unsetenv("PLX_VAR_DIR");
    }
    ~Configuration() override {
        EXPECT_TRUE(library.instances.empty());
        EXPECT_TRUE(library.blocks.empty());
    }
    // A context of a file with these lines behind the ones that every file needs.
    context_ptr read(const std::string& lines) {
        const auto path = folder_.write("conf", "zel_home /home/of/at\nnoauth 1\n" + lines);
        char program[] = "dovmad";
        char* argv[] = {program, nullptr};
        return context_ptr(init_from_argc_argv(path.c_str(), 1, argv));
    }
    temporary_folder folder_;
};

TEST_F(Configuration, DefaultsOfAFileWithoutSettings) {
    const context_ptr ctx = read("# comment\n\n#another\n");
    EXPECT_EQ(ctx->listen_ports + "|" + ctx->index_files,
              "5634|index.html, index.htm, index.pl, index.cgi");
    EXPECT_EQ(ctx->cgi_extensions + "|" + ctx->ssi_extensions, ".cgi .pl .php|.shtml .shtm");
    EXPECT_EQ(ctx->list_directories, 1);
    EXPECT_EQ(ctx->document_root, std::filesystem::current_path().string());
    EXPECT_EQ(ctx->inetd_mode + ctx->daemon_mode, 0);
    EXPECT_EQ(ctx->pid_file + ctx->aliases + ctx->runtime_uid + ctx->cgi_interpreter, "");
    EXPECT_EQ(ctx->access_log, nullptr);
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(ctx->auth_realm, host);
    EXPECT_STREQ(getenv("ZEL_HOME_DIR"), "/home/of/at");
    EXPECT_EQ(ctx->var_dir, paths.var_directory);
    EXPECT_STREQ(getenv("PLX_VAR_DIR"), paths.var_directory);
    EXPECT_EQ(getenv("ZEL_DATA_DIR"), std::string(paths.var_directory) + "/sec");
    EXPECT_STREQ(ctx->security->default_domain, "EXAMPLE");
    EXPECT_NE(ctx->service_credential, nullptr);
    EXPECT_NE(ctx->service_credential, ctx->security->credential);
}

TEST_F(Configuration, ValuesRunToTheCommentAndTheLastCharacterIsCut) {
    const auto ports = [](const shttpd_ctx& c) { return c.listen_ports; };
    const auto mode = [](const shttpd_ctx& c) { return std::to_string(c.daemon_mode); };
    const auto size = [](const shttpd_ctx& c) { return std::to_string(c.io_buf_size); };
    const struct {
        std::string lines;
        std::function<std::string(const shttpd_ctx&)> field;
        std::string expected;
    } rows[] = {
        {"listen_ports 8080 # comment\n", ports, "8080 "},
        {"  listen_ports \t 8080,9000u\n", ports, "8080,9000u"},
        {"listen_ports 80801", ports, "8080"},
        {"listen_ports 1\nlisten_ports 2\n", ports, "2"},
        {"listen_ports 80\r\n", ports, "80\r"},
        {"index_files a, b c\n", [](auto& c) { return c.index_files; }, "a, b c"},
        {"auth_realm X\n", [](auto& c) { return c.auth_realm == "X" ? "X" : "host"; }, "host"},
        {"daemon_mode 12x\n", mode, "12"},
        {"daemon_mode -99999999999999999999\n", mode, "-2147483648"},
        {"listen_ports " + std::string(2032, '1') + "\n#\n", ports, std::string(2032, '1')},
        {"io_buf_size 1023\n", size, "16384"},
        {"io_buf_size 1024\n", size, "1024"},
        {"io_buf_size x\n", size, "16384"},
        {"io_buf_size 16777217\n", size, "16777216"},
    };
    for (const auto& row : rows) {
        testing::internal::CaptureStderr();
        const context_ptr ctx = read(row.lines);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(row.field(*ctx), row.expected) << row.lines;
        const bool adjusted =
            row.lines.starts_with("io_buf") && !row.lines.ends_with(row.expected + "\n");
        EXPECT_EQ(!said.empty(), adjusted) << said;
    }
}

TEST_F(Configuration, BadFilesAreFatalWithTheirText) {
    const struct {
        std::string lines;
        std::string text;
    } rows[] = {
        {"foo 1\n", "set_option: unknown variable \\[foo\\]\n"},
        {"Listen_ports 1\n", "set_option: unknown variable \\[Listen_ports\\]\n"},
        {"noauth\n", "init_ctx: bad line: \\[noauth\\]\n"},
        {"noauth #1\n", "init_ctx: bad line: \\[noauth #1\\]\n"},
        {std::string("\0\n", 2), "init_ctx: bad line: \\[\\]\n"},
        {"error_log /no/such/dir/log\n",
         "cannot open log file /no/such/dir/log: No such file or directory\n"},
        {"mime_types /no/such/types\n",
         "set_mime_types: fopen\\(/no/such/types\\): No such file or directory\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EXIT((void)read(row.lines), testing::ExitedWithCode(1), "^" + row.text + "$");
    }
}

TEST_F(Configuration, TheLibraryIsMandatory) {
    EXPECT_EXIT((void)init_from_argc_argv("/missing", 0, nullptr), testing::KilledBySignal(SIGABRT),
                "^zel home dir not specified\n$");
    library.authenticate_result = 1;
    EXPECT_EXIT((void)read(""), testing::ExitedWithCode(1),
                "^Cannot get credential for service\n$");
    library.authenticate_result = 0;
    library.domains.clear();
    EXPECT_EXIT((void)read(""), testing::ExitedWithCode(1), "^Cannot get list of domains\n$");
}

TEST_F(Configuration, EmbeddersGivePairs) {
    const auto file = folder_.write("conf", "listen_ports 1\nzel_home /z\n");
    const context_ptr ctx(
        shttpd_init(file.c_str(), "listen_ports", "2", "aliases", "a=b", "", "noauth"));
    EXPECT_EQ(ctx->listen_ports, "1");  // the file comes after the pairs
    EXPECT_EQ(ctx->aliases, "a=b");
    EXPECT_EXIT((void)shttpd_init(nullptr, "nonsense", "1", nullptr), testing::ExitedWithCode(1),
                "^set_option: unknown variable \\[nonsense\\]\n$");
}

TEST_F(Configuration, DanglingDomainFileLinksAreNotTaken) {
    const auto file = folder_.write("domain", "");
    const auto dangling = folder_.path() / "dangling";
    const auto link = folder_.path() / "link";
    std::filesystem::create_symlink("nowhere", dangling);
    std::filesystem::create_symlink(file, link);
    const struct {
        std::string path;
        bool taken;
    } rows[] = {{file, true}, {link, true}, {dangling, false}, {folder_.path() / "none", true}};
    for (const auto& row : rows) {
        shttpd_ctx ctx;
        const option_row* option = find_option('\0', "domain_file");
        EXPECT_EQ(option->setter(&ctx, option->field, row.path.c_str()), row.taken ? 0 : -1);
        EXPECT_EQ(ctx.domain_file, row.taken ? row.path : "");
    }
}

TEST_F(Configuration, ResetReplacesTheSecurityInformation) {
    const context_ptr ctx = read("");
    const void* before = ctx->security;
    const std::size_t blocks = library.blocks.size();
    library.domains = {"NEW"};
    set_security_info(ctx.get());
    EXPECT_NE(ctx->security, before);
    EXPECT_STREQ(ctx->security->default_domain, "NEW");
    EXPECT_EQ(library.blocks.size(), blocks);
}

TEST(Options, AreFoundByLetterOrKeyword) {
    EXPECT_STREQ(find_option('s', nullptr)->keyword, "zel_home");  // the first of two
    EXPECT_STREQ(find_option('\0', "scheduler_file")->keyword, "scheduler_file");
    EXPECT_EQ(find_option('z', "ZEL_HOME"), nullptr);
}

// --- Brokers ---

class Brokers : public Configuration {
  protected:
    struct answer {
        void* handle;
        void* credential;
        bool operator==(const answer&) const = default;
    };
    answer ask(const char* name) {
        const molb_sni_request request = {.host_name = name, .user_data = ctx_.get()};
        answer a{};
        EXPECT_EQ(ctx_->accept_params.callback(&request, &a.handle, &a.credential), 0U);
        return a;
    }
    [[nodiscard]] answer service() const { return {ctx_->at_handle, ctx_->service_credential}; }
    static void list_domains(const std::string& text) { fixed_root.write("plx_resolv.conf", text); }
    ~Brokers() override { unlink(paths.resolver_file); }

    context_ptr ctx_ = read("");
};

TEST_F(Brokers, OnlyListedNamesGetACredentialOfTheirOwn) {
    EXPECT_EQ(ctx_->accept_params.enabled, 1U);
    EXPECT_EQ(ask("broker"), service());  // no list at all
    list_domains(
        "[a]\nprimary_broker = broker.a;\nzel_data_dir = /data/a;\n"
        "[b]\nprimary_broker = \"kpr://broker.b:77/DOM/alice\";\nzel_data_dir = /data/b;\n"
        "[c]\nprimary_broker = broker.c;\n"
        "[d]\nprimary_broker = broker.a;\nzel_data_dir = /data/d;\n"
        "[e]\nadmin_url = x;\n");
    EXPECT_EQ(ask(nullptr), service());
    EXPECT_EQ(ask(""), service());
    EXPECT_EQ(ask("LOCALHOSTx"), service());
    EXPECT_EQ(ask("broker.A"), service());
    EXPECT_EQ(ask("broker.c"), service());
    EXPECT_TRUE(library.data_dirs.empty());

    const answer a = ask("broker.a");
    const answer b = ask("kpr://broker.b:77/DOM/alice");
    EXPECT_NE(a, service());
    EXPECT_NE(a, b);
    EXPECT_EQ(library.data_dirs, (std::vector<std::string>{"/data/a", "/data/b"}));
    EXPECT_EQ(library.asked,
              (std::vector<std::string>{"localhost|(null)|broker.a", "broker.b|DOM|alice"}));
    EXPECT_EQ(library.instances.count(a.handle), 1U);
    EXPECT_EQ(library.blocks.count(a.credential), 1U);
    unlink(paths.resolver_file);
    EXPECT_EQ(ask("broker.a"), a);  // remembered
    EXPECT_EQ(library.data_dirs.size(), 2U);
    EXPECT_EQ(library.instances.size(), 3U);
    // The service's two, and one per broker: the other credentials went back with their list.
    EXPECT_EQ(library.blocks.size(), 4U);
}

TEST_F(Brokers, FailuresAnswerTheServiceAndAreNotRemembered) {
    list_domains("[a]\nprimary_broker = broker.a;\nzel_data_dir = /data/a;\n");
    library.init_result = 24604;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ask("broker.a"), service());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "molbAtInitEx failed; err 24604\n");
    library.init_result = 0;
    for (const int count : {-1, 0}) {
        library.credentials = count;
        EXPECT_EQ(ask("broker.a"), service());
        EXPECT_EQ(library.instances.size(), 1U);
        EXPECT_EQ(library.blocks.size(), 2U);
    }
    list_domains("[a\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(ask("broker.a"), service());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Syntax error in " + std::string(paths.resolver_file) + "\n");
    list_domains(
        "[domains]\nz = \"\";\n[a]\nprimary_broker = broker.a;\nzel_data_dir = /a;\n"
        "[z]\nprimary_broker = broker.z;\nzel_data_dir = /z;\n");
    library.credentials = 1;
    EXPECT_EQ(ask("broker.a"), service());  // an index section leaves [a] out
    EXPECT_NE(ask("broker.z"), service());
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    delete &fixed_root;
    return result;
}
