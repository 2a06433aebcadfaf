// A context with namespaces in a temporary folder and a connection built by hand.
#pragma once

#include "lib/plat.h"
#include "lib/qz_vector.h"
#include "security/authz.h"
#include "tests/support/engine_fixture.h"

class rights_test : public testing::Test {
  protected:
    rights_test() {
        ctx.document_root = folder.path() / "plx";
        c.ctx = &ctx;
    }

    ~rights_test() override {
        c.request.ns = nullptr;
        qz_vector_delete(c.granted);
        qz_vector_destroy(c.groups);
        free_auth_info(&ctx);
        ctx.registered_uris.free_all([](registered_uri* entry) { delete entry; });
    }

    void start() {
        init_auth_info(&ctx);
        select("plx");
    }

    void select(const char* name) { c.request.ns = find_namespace(&ctx, name); }

    // The path of an access file, whose folder exists from now on.
    [[nodiscard]] std::string file(const std::string& role, const char* name = "plx") const {
        std::filesystem::create_directories(folder.path() / name / role);
        return folder.path() / name / role / ".dovmaaccess";
    }

    // Writes an access file and gives it a modification time of its own.
    void put(const std::string& role, const std::string& text, const char* name = "plx") {
        const std::string path = file(role, name);
        folder.write(path, text);
        set_time(path, ++fake_time);
    }

    static void set_time(const std::string& path, time_t when) {
        const timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    // A caller of this name, and a new connection as far as rights are remembered.
    void caller(const std::string& name, std::initializer_list<const char*> groups = {}) {
        c.user_name = name;
        qz_vector_delete(c.granted);
        c.granted = nullptr;
        qz_vector_destroy(c.groups);
        c.groups = groups.size() == 0 ? nullptr : new_qz_vector(0, qzfree);
        for (const char* group : groups) {
            qz_vector_pushback(c.groups, qzstrdup(group));
        }
    }

    int may(const char* role) {
        c.request.role = role;
        return is_authorized(&c);
    }

    temporary_folder folder;
    shttpd_ctx ctx;
    conn c;
    time_t fake_time = 1000000000;
};
