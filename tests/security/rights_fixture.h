// A context with namespaces in a temporary folder and a connection built by hand.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>

#include "core/connection.h"
#include "core/context.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"
#include "security/authz.h"

class rights_test : public testing::Test {
  protected:
    rights_test() {
        std::string pattern = testing::TempDir() + "rights.XXXXXX";
        folder = mkdtemp(pattern.data());
        for (const char* name : {"plx", "one", "two"}) {
            for (const char* role : {"pub", "operator", "admin", "agent"}) {
                std::filesystem::create_directories(folder / name / role);
            }
        }
        ctx.document_root = (folder / "plx").string();
        c.ctx = &ctx;
    }

    ~rights_test() override {
        namespace_release(c.request.ns);
        qz_vector_delete(c.granted);
        qz_vector_destroy(c.groups);
        free_auth_info(&ctx);
        ctx.registered_uris.free_all([](registered_uri* entry) { delete entry; });
        std::filesystem::remove_all(folder);
    }

    void start() {
        init_auth_info(&ctx);
        select("plx");
    }

    void select(const char* name) {
        namespace_release(c.request.ns);
        c.request.ns = find_namespace(&ctx, name);
        namespace_retain(c.request.ns);
    }

    [[nodiscard]] std::string file(const char* role, const char* name = "plx") const {
        return (folder / name / role / ".dovmaaccess").string();
    }

    // Writes an access file and gives it a modification time of its own.
    void put(const char* role, const std::string& text, const char* name = "plx") {
        std::ofstream(file(role, name)) << text;
        set_time(role, ++fake_time, name);
    }

    void set_time(const char* role, time_t when, const char* name = "plx") const {
        const timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, file(role, name).c_str(), times, 0), 0);
    }

    [[nodiscard]] std::string get(const char* role, const char* name = "plx") const {
        std::ifstream in(file(role, name));
        return {std::istreambuf_iterator<char>(in), {}};
    }

    // A caller of this name, and a new connection as far as rights are remembered.
    void caller(const char* name, std::initializer_list<const char*> groups = {}) {
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

    std::filesystem::path folder;
    shttpd_ctx ctx;
    conn c;
    time_t fake_time = 1000000000;
};
