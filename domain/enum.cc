// The hosts that this daemon knows: /agent/domain/enum.
//
// The whole answer is built on the first call, so a reply in progress depends on no record.
#include <memory>
#include <string>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "domain/domain_uris.h"
#include "domain/registry.h"

namespace {

constexpr int word_bytes = 32;
constexpr std::uint32_t reply_capacity = 1048576;

struct enum_request {
    bool all_namespaces = false;
    bool json = false;
    bool dr_only = false;
    std::string domain;
};

// Kept: only a GET has variables; other methods are answered as if they had asked without any.
enum_request read_request(const shttpd_call_arg* arg) {
    enum_request request;
    if (!method_is(arg, "GET")) {
        return request;
    }
    const std::string_view body = request_body(arg);
    const std::string_view variables = body.empty() ? query_text(arg) : body;
    request.all_namespaces = get_variable(variables, "scope", word_bytes) == "all";
    request.json = get_variable(variables, "format", word_bytes) == "json";
    request.dr_only = number_variable(variables, "dronly").value_or(0) != 0;
    request.domain = raw_variable(variables, "domain");
    return request;
}

// What stays the same for every record of one answer.
struct record_writer {
    qz_stream* stream = nullptr;
    const enum_request& request;
    bool short_form = false;
    std::int64_t now = get_current_time();
    bool first = true;

    void write(const agent_host* host) {
        print_domain_record(host, stream, request.json, now, short_form, request.all_namespaces,
                            &first);
    }
};

// The hosts that reported to a collector since the last enumeration, which are then forgotten.
void print_collected(domain_entry* entry, record_writer* writer) {
    for (const qz_pair& pair : qz_each(entry->hosts)) {
        writer->write(static_cast<const agent_host*>(pair.value));
    }
    qz_map_clear(entry->hosts);  // whether the reply arrives or not: the next pings refill it
    if (qz_set_size(entry->blacklist) == 0) {
        return;
    }
    // Kept: the counter is not reset with the list, so ids that arrive by report later on last
    // until the next enumeration only.
    ++entry->cycles;
    if (entry->cycles > entry->config.max_cycles_per_blist) {
        qz_set_clear(entry->blacklist);
    }
}

void print_registered(const shttpd_ctx* ctx, const std::string& namespace_name,
                      record_writer* writer) {
    for (const qz_pair& pair : qz_each(registry_hosts(ctx))) {
        const auto* host = static_cast<const agent_host*>(pair.value);
        if (writer->request.all_namespaces ||
            ns_exists(host->namespaces, namespace_name.c_str()) != 0) {
            writer->write(host);
        }
    }
}

// The hosts that reported to this server directly, which are then no longer listed.
void print_direct(shttpd_ctx* ctx, record_writer* writer) {
    if (ctx->drlist == nullptr) {
        return;
    }
    for (const qz_pair& pair : qz_each(ctx->drlist)) {
        writer->write(static_cast<const agent_host*>(pair.value));
    }
    qz_map_clear(ctx->drlist);
}

void write_text(qz_stream* stream, std::string_view text) {
    (void)qz_write_stream(stream, text.data(), static_cast<std::uint32_t>(text.size()));
}

stream_ptr build_answer(const conn* c, const enum_request& request, domain_entry* entry) {
    stream_ptr answer(new_qz_stream(reply_capacity));
    write_text(answer.get(), request.json
                                 ? "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n[\n"
                                 : "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n");
    const bool short_form = entry != nullptr || request.dr_only;
    record_writer writer{.stream = answer.get(), .request = request, .short_form = short_form};
    if (entry != nullptr) {
        print_collected(entry, &writer);
    } else if (request.dr_only) {
        print_direct(c->ctx, &writer);
    } else {
        print_registered(c->ctx, c->request.ns->name, &writer);
    }
    if (request.json) {
        write_text(answer.get(), "\n]");
    }
    return answer;
}

}  // namespace

void domain_enum(shttpd_call_arg* arg) {
    const conn* c = arg->connection;
    const enum_request request = read_request(arg);
    domain_entry* entry =
        request.domain.empty() ? nullptr : find_domain(c->ctx, request.domain.c_str());
    if (entry == nullptr && !in_domain_mode(c->ctx)) {
        show_error(arg, "400", "Bad Request");
        return;
    }
    const std::shared_ptr<qz_stream> answer = build_answer(c, request, entry);
    answer_shared(arg, {reinterpret_cast<const char*>(answer->data), answer->length}, answer);
}
