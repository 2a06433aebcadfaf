// Proves the choice of a content type and the reading of a types file.
#include "core/mime_type.h"

#include "tests/support/engine_fixture.h"

namespace {

struct types_context {
    shttpd_ctx ctx;
    ~types_context() { ctx.mime_records.free_all(mime_type_destructor); }

    std::string type_of(const std::string& name) {
        return get_mime_type(&ctx, name.c_str(), name.size());
    }
    // "extension=type" of every added record, in order.
    std::vector<std::string> added() {
        std::vector<std::string> all;
        for (const mime_type_record& record : ctx.mime_records) {
            all.push_back(record.extension + "=" + record.type);
        }
        return all;
    }
};

TEST(MimeType, IsChosenByTheEndOfTheName) {
    types_context types;
    const std::pair<const char*, const char*> rows[] = {
        {"archive.tar.gz", "application/x-tar-gz"},
        {"x.GZ", "application/x-gunzip"},
        {".html", "text/html"},
        {"html", "text/plain"},
        {"a.b.JpEg", "image/jpeg"},
        {"a.rar", "application/x-arj-compressed"},
    };
    for (const auto& [name, type] : rows) {
        EXPECT_EQ(types.type_of(name), type) << name;
    }
    EXPECT_STREQ(get_mime_type(&types.ctx, "a.html.css", 4), "text/css");
    EXPECT_STREQ(get_mime_type(&types.ctx, "a.css", 3), "text/plain");  // "css": no dot in view
}

TEST(MimeType, AddedTypesWinInTheirOrder) {
    types_context types;
    shttpd_add_mime_type(&types.ctx, "html", "text/x-mine");
    shttpd_add_mime_type(&types.ctx, "html", "text/x-later");
    shttpd_add_mime_type(&types.ctx, "b.c", "x/bc");
    EXPECT_EQ(types.type_of("a.HTML"), "text/x-mine");
    EXPECT_EQ(types.type_of("a.b.C"), "x/bc");
    EXPECT_EQ(types.type_of("a.htm"), "text/html");
}

TEST(MimeTypes, TheScanAdvancesByTheLengthOfTheType) {
    const std::pair<std::string, std::vector<std::string>> rows[] = {
        {"text/html html htm\n", {"html=text/html"}},
        {"text/html a bravo charlie\n", {"a=text/html", "charlie=text/html"}},
        {"text/html alph b charlie\n", {"alph=text/html", "harlie=text/html"}},
        {"t/h a bb cccc\n", {"a=t/h", "bb=t/h", "cccc=t/h", "c=t/h"}},
        {"  text/html   html\n", {"html=text/html"}},
        {"text/html\n# text/html html\n", {}},
        {" \t \n", {}},
        {"\n\ntext/x x\n#\ntext/y y\n", {"x=text/x", "y=text/y"}},
    };
    const temporary_folder folder;
    for (const auto& [line, added] : rows) {
        types_context types;
        set_mime_types(&types.ctx, folder.write("types", line).c_str());
        EXPECT_EQ(types.added(), added) << line;
    }
}

}  // namespace
