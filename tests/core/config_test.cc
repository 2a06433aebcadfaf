// Proves the options: the file's grammar, what becomes of every value, and the fatal errors with
// their texts. Contexts start the supplied authentication library.
#include "core/config.h"

#include "core/options.h"
#include "core/paths.h"
#include "tests/support/engine_fixture.h"

// This program's own fixed paths, in the build folder: the library's first use happens once.
const system_paths paths = {.config_file = "",
                            .pid_file = "",
                            .var_directory = CONFIG_TEST_ROOT "/var",
                            .resolver_file = CONFIG_TEST_ROOT "/plx_resolv.conf",
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
    static void SetUpTestSuite() {
        const std::filesystem::path library = CONFIG_TEST_ROOT "/lib/libmolbat4L_t.so";
        std::filesystem::create_directories(library.parent_path());
        std::filesystem::create_directories(paths.var_directory);
        std::filesystem::remove(library);
        std::filesystem::create_symlink(CONFIG_TEST_LIBRARY, library);
        (void)read(temporary_folder(), "");
    }
    // A context of a file with these lines behind the ones that every file needs.
    static context_ptr read(const temporary_folder& folder, const std::string& lines) {
        const auto path = folder.write("conf", "zel_home " CONFIG_TEST_ROOT "\nnoauth 1\n" + lines);
        return context_ptr(init_from_argc_argv(path.c_str(), 0, nullptr));
    }
    context_ptr read(const std::string& lines) { return read(folder_, lines); }

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
    EXPECT_STREQ(getenv("ZEL_HOME_DIR"), CONFIG_TEST_ROOT);
    EXPECT_STREQ(getenv("PLX_VAR_DIR"), paths.var_directory);
    EXPECT_EQ(getenv("ZEL_DATA_DIR"), std::string(paths.var_directory) + "/sec");
}

TEST_F(Configuration, ValuesRunToTheCommentAndTheLastCharacterIsCut) {
    const auto ports = [](const shttpd_ctx& c) { return c.listen_ports; };
    const auto mode = [](const shttpd_ctx& c) { return std::to_string(c.daemon_mode); };
    const auto size = [](const shttpd_ctx& c) { return std::to_string(c.io_buf_size); };
    const std::tuple<std::string, std::function<std::string(const shttpd_ctx&)>, std::string>
        rows[] = {
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
    for (const auto& [lines, field, expected] : rows) {
        testing::internal::CaptureStderr();
        const context_ptr ctx = read(lines);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(field(*ctx), expected) << lines;
        const bool adjusted = lines.starts_with("io_buf") && !lines.ends_with(expected + "\n");
        EXPECT_EQ(!said.empty(), adjusted) << said;
    }
}

TEST_F(Configuration, BadFilesAreFatalWithTheirText) {
    const std::pair<std::string, std::string> rows[] = {
        {"foo 1\n", ".*conf:3:\nset_option: unknown variable \\[foo\\]\n"},
        {"#\nport " + std::string(3000, '1') + "\n\nfoo 1\n",
         ".*conf:4:\nset_option: unknown variable \\[port\\]\n"},
        {"listen_ports " + std::string(2034, '1') + "pid_file x\nfoo 1\n",
         ".*conf:4:\nset_option: unknown variable \\[foo\\]\n"},
        {"Listen_ports 1\n", ".*conf:3:\nset_option: unknown variable \\[Listen_ports\\]\n"},
        {"noauth\n", ".*conf:3:\ninit_ctx: bad line: \\[noauth\\]\n"},
        {"noauth #1\n", ".*conf:3:\ninit_ctx: bad line: \\[noauth #1\\]\n"},
        {std::string("\0\n", 2), ".*conf:3:\ninit_ctx: bad line: \\[\\]\n"},
        {"error_log /no/such/dir/log\n",
         "cannot open log file /no/such/dir/log: No such file or directory\n"},
        {"mime_types /no/such/types\n",
         "set_mime_types: fopen\\(/no/such/types\\): No such file or directory\n"},
    };
    for (const auto& [lines, text] : rows) {
        EXPECT_EXIT((void)read(lines), testing::ExitedWithCode(1), "^" + text + "$");
    }
}

TEST_F(Configuration, ALibraryWithoutTheServicesIdentityIsFatal) {
    const context_ptr ctx = read("");
    void* handle = std::exchange(ctx->at_handle, nullptr);
    EXPECT_EXIT(set_security_info(ctx.get()), testing::ExitedWithCode(1),
                "^Cannot get credential for service\n$");
    ctx->at_handle = handle;
}

TEST_F(Configuration, EmbeddersGivePairs) {
    const auto file = folder_.write("conf", "listen_ports 1\nzel_home " CONFIG_TEST_ROOT "\n");
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
    const std::pair<std::string, bool> rows[] = {
        {file, true}, {link, true}, {dangling, false}, {folder_.path() / "none", true}};
    for (const auto& [path, taken] : rows) {
        shttpd_ctx ctx;
        const option_row* option = find_option('\0', "domain_file");
        EXPECT_EQ(option->setter(&ctx, option->field, path.c_str()), taken ? 0 : -1);
        EXPECT_EQ(ctx.domain_file, taken ? path : "");
    }
}

TEST(Options, AreFoundByLetterOrKeyword) {
    EXPECT_STREQ(find_option('s', nullptr)->keyword, "zel_home");  // the first of two
    EXPECT_STREQ(find_option('\0', "scheduler_file")->keyword, "scheduler_file");
    EXPECT_EQ(find_option('z', "ZEL_HOME"), nullptr);
}

}  // namespace
