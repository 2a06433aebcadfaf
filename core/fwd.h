// Forward declarations of the structures that cross folders, so that headers need not include each
// other. Each is defined in the header of the folder that owns it: conn and its parts in core/, the
// containers in lib/, listings and pages in the sources of their handlers.
#pragma once

struct conn;
struct stream;
struct io_class;
struct shttpd_ctx;
struct shttpd_call_arg;
struct namespace_record;
struct role_entry;
struct relay_record;
struct target;
struct name_lookup;
struct security_info;
struct dir_listing;
struct ssi_descriptor;
struct process_record;
struct qz_map;
struct qz_vector;
struct qz_stream;
