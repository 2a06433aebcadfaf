// An authentication library that counts: instances, credentials and blocks handed out and given
// back. It replaces the shim's entry points in a test program.
#pragma once

#include <set>
#include <string>
#include <vector>

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

extern library_double library;
