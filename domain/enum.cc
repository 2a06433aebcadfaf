// The hosts that this daemon knows: /agent/domain/enum.
//
// A listing is of one moment: the first call takes the finished lines and the times of its hosts,
// and the reply is put together from them as the client reads. So it depends on no record, costs
// little however long it is, and can be shared by requests that would get the same one.
#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "domain/domain_uris.h"
#include "domain/registry.h"

namespace {

constexpr int word_bytes = 32;
constexpr std::size_t piece_rows = 64;

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

// --- Listings ---

struct listing {
    listing_form form = listing_form::text;
    std::int64_t now = 0;
    std::vector<listing_row> rows;

    listing(const enum_request& request, bool short_form)
        : form(form_of(request.json, short_form)), now(get_current_time()) {}

    void add_all(const qz_map* hosts) {
        rows.reserve(static_cast<std::size_t>(qz_map_size(hosts)));
        for (const qz_pair& pair : qz_each(hosts)) {
            rows.push_back(row_of(static_cast<const agent_host*>(pair.value)));
        }
    }
};
using shared_listing = std::shared_ptr<const listing>;

// A reply made of a listing.
class listing_reply : public endpoint_pieces {
  public:
    explicit listing_reply(shared_listing list)
        : list_(std::move(list)),
          json_(list_->form == listing_form::json || list_->form == listing_form::json_ids) {}

    std::string_view next() override {
        piece_.clear();
        if (!begun_) {
            begun_ = true;
            piece_ = json_ ? "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n[\n"
                           : "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n";
        }
        const std::size_t end = std::min(at_ + piece_rows, list_->rows.size());
        for (; at_ < end; ++at_) {
            append_row(&piece_, list_->rows[at_], list_->form, list_->now, at_ == 0);
        }
        if (at_ == list_->rows.size() && !std::exchange(ended_, true) && json_) {
            piece_ += "\n]";
        }
        return piece_;
    }

  private:
    shared_listing list_;
    bool json_;
    bool begun_ = false;
    bool ended_ = false;
    std::size_t at_ = 0;  // the next row
    std::string piece_;
};

// The hosts that reported to a collector since the last enumeration, which are then forgotten.
shared_listing list_collected(domain_entry* entry, const enum_request& request) {
    auto list = std::make_shared<listing>(request, true);
    list->add_all(entry->hosts);
    qz_map_clear(entry->hosts);  // whether the reply arrives or not: the next pings refill it
    if (qz_set_size(entry->blacklist) == 0) {
        return list;
    }
    // Kept: the counter is not reset with the list, so ids that arrive by report later on last
    // until the next enumeration only.
    ++entry->cycles;
    if (entry->cycles > entry->config.max_cycles_per_blist) {
        qz_set_clear(entry->blacklist);
    }
    return list;
}

// The hosts that reported to this server directly, which are then no longer listed.
shared_listing list_direct(shttpd_ctx* ctx, const enum_request& request) {
    auto list = std::make_shared<listing>(request, true);
    if (ctx->drlist != nullptr) {
        list->add_all(ctx->drlist);
        qz_map_clear(ctx->drlist);
    }
    return list;
}

shared_listing list_registered(const conn* c, const enum_request& request, std::int64_t now) {
    auto list = std::make_shared<listing>(request, false);
    list->now = now;
    const qz_map* hosts = registry_hosts(c->ctx);
    if (request.all_namespaces) {
        list->add_all(hosts);
        return list;
    }
    list->rows.reserve(static_cast<std::size_t>(qz_map_size(hosts)));
    for (const qz_pair& pair : qz_each(hosts)) {
        const auto* host = static_cast<const agent_host*>(pair.value);
        if (ns_exists(host->namespaces, c->request.ns->name.c_str()) != 0) {
            list->rows.push_back(row_of(host));
        }
    }
    return list;
}

// --- Sharing ---

// What a listing of registered hosts depends on.
struct listing_key {
    const shttpd_ctx* ctx;
    std::uint64_t generation;
    std::int64_t second;
    bool json;
    bool all_namespaces;
    std::string namespace_name;

    bool operator==(const listing_key&) const = default;
};

// A listing that somebody is still reading serves everybody who would get the same.
shared_listing shared_list(const conn* c, const enum_request& request) {
    static std::vector<std::pair<listing_key, std::weak_ptr<const listing>>> lists;
    const listing_key key = {.ctx = c->ctx,
                             .generation = listing_generation(),
                             .second = get_current_time(),
                             .json = request.json,
                             .all_namespaces = request.all_namespaces,
                             .namespace_name = request.all_namespaces ? "" : c->request.ns->name};
    std::erase_if(lists, [](const auto& entry) { return entry.second.expired(); });
    for (const auto& [known, list] : lists) {
        if (known == key) {
            return list.lock();
        }
    }
    shared_listing list = list_registered(c, request, key.second);
    lists.emplace_back(key, list);
    return list;
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
    shared_listing list = entry != nullptr  ? list_collected(entry, request)
                          : request.dr_only ? list_direct(c->ctx, request)
                                            : shared_list(c, request);
    answer_pieces(arg, std::make_unique<listing_reply>(std::move(list)));
}
