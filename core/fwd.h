// Forward declarations of the engine's structures, so that headers need not include each other.
#pragma once

struct conn;
struct stream;
struct io_class;
struct shttpd_ctx;
struct shttpd_call_arg;
struct namespace_record;
struct role_entry;
struct proxy_record;
struct security_info;
struct dir_listing;
struct ssi_descriptor;
struct process_record;
struct qz_map;
struct qz_vector;
struct qz_stream;
