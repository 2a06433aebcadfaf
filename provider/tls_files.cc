#include "provider/tls_files.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <string.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <utility>

#include "provider/accounts.h"
#include "provider/result.h"

namespace provider {
namespace {

constexpr std::array file_names = {"tls",           "server.crt",     "server.key",
                                   "client_ca.pem", "client_crl.pem", "locked_certificates",
                                   "peer_ca.pem"};
constexpr mode_t owner_only = 077;

// Keys without a passphrase only: nobody sits in front of a daemon.
int no_passphrase(char*, int, int, void*) {
    return -1;
}

// Reads from the text itself, which has to live as long: no second copy of a key.
openssl_ptr<BIO> reader_of(const file_content& content) {
    return openssl_ptr<BIO>{
        BIO_new_mem_buf(content.text.data(), static_cast<int>(content.text.size()))};
}

// Null at the end of the file and at anything that is no certificate.
openssl_ptr<X509> next_certificate(BIO* reader) {
    return openssl_ptr<X509>{PEM_read_bio_X509(reader, nullptr, no_passphrase, nullptr)};
}

// What both directions share. Renegotiation, compression, tickets and session storage are off:
// every connection proves anew who it is. A peer that closes without saying so has closed all the
// same, and may still be sent the rest of its answer. What was decrypted, logins among it, does not
// stay behind in OpenSSL's buffers.
openssl_ptr<SSL_CTX> new_context(const SSL_METHOD* method, int minimum) {
    openssl_ptr<SSL_CTX> context{SSL_CTX_new(method)};
    if (!context) {
        return nullptr;
    }
    SSL_CTX* c = context.get();
    SSL_CTX_set_options(c, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET |
                               SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA |
                               SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_CLEANSE_PLAINTEXT);
    SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(c, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                            SSL_MODE_RELEASE_BUFFERS);
    // The channel reads ahead itself and knows what it has; OpenSSL would hide it.
    SSL_CTX_set_read_ahead(c, 0);
    const bool set = SSL_CTX_set_min_proto_version(c, minimum) == 1 &&
                     SSL_CTX_set_num_tickets(c, 0) == 1 &&
                     SSL_CTX_set_ciphersuites(c,
                                              "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:"
                                              "TLS_CHACHA20_POLY1305_SHA256") == 1 &&
                     SSL_CTX_set_cipher_list(c, "ECDHE+AESGCM:ECDHE+CHACHA20") == 1;
    return set ? std::move(context) : nullptr;
}

openssl_ptr<SSL_CTX> share(const openssl_ptr<SSL_CTX>& context) {
    if (context) {
        SSL_CTX_up_ref(context.get());
    }
    return openssl_ptr<SSL_CTX>{context.get()};
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos
               ? std::string_view()
               : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Hands every line that says something to `take`, until one is refused. What is wrong with that one
// begins with its number.
template <class Take>
std::string for_each_line(std::string_view text, Take take) {
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = next_line(&text);
        const std::string_view said = trimmed(line.substr(0, line.find('#')));
        const std::string problem = said.empty() ? std::string() : take(said);
        if (!problem.empty()) {
            return "line " + std::to_string(number) + ": " + problem;
        }
    }
    return {};
}

// Empty for what is no SHA-256 fingerprint.
std::string fingerprint_text(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if (c != ':') {
            digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    const bool good = digits.size() == std::size_t{2} * SHA256_DIGEST_LENGTH &&
                      digits.find_first_not_of("0123456789abcdef") == std::string::npos;
    return good ? digits : std::string();
}

std::string fingerprint_of(const X509* certificate) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    std::string text;
    if (X509_digest(certificate, EVP_sha256(), digest.data(), &length) == 1) {
        for (unsigned int i = 0; i < length; ++i) {
            char digits[3];
            (void)std::snprintf(digits, sizeof digits, "%02x", digest[i]);
            text += digits;
        }
    }
    return text;
}

// An authority without a revocation list here has revoked nobody; one whose list is too old may
// have, so its clients are refused.
int accept_without_list(int good, X509_STORE_CTX* context) {
    if (good == 0 && X509_STORE_CTX_get_error(context) == X509_V_ERR_UNABLE_TO_GET_CRL) {
        X509_STORE_CTX_set_error(context, X509_V_OK);
        return 1;
    }
    return good;
}

std::string date_text(const ASN1_TIME* time) {
    std::tm parts{};
    char text[32] = "?";
    if (ASN1_TIME_to_tm(time, &parts) == 1) {
        (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
    }
    return text;
}

// Empty while the two dates are on either side of now.
std::string date_problem(const ASN1_TIME* from, const ASN1_TIME* until) {
    if (X509_cmp_current_time(from) > 0) {
        return "is not valid before " + date_text(from);
    }
    return until != nullptr && X509_cmp_current_time(until) < 0
               ? "has expired on " + date_text(until)
               : std::string();
}

}  // namespace

std::string parse_tls_limits(std::string_view text, tls_limits* limits) {
    return for_each_line(text, [&](std::string_view line) -> std::string {
        const std::size_t equals = std::min(line.find('='), line.size());
        const std::string_view key = trimmed(line.substr(0, equals));
        const std::string_view value = trimmed(line.substr(std::min(equals + 1, line.size())));
        if (key == "minimum" && (value == "1.2" || value == "1.3")) {
            limits->minimum = value == "1.2" ? TLS1_2_VERSION : TLS1_3_VERSION;
            return {};
        }
        if (key == "groups" && !value.empty()) {
            limits->groups = value;
            return {};
        }
        return "neither \"minimum = 1.2\", \"minimum = 1.3\" nor \"groups = NAME:...\"";
    });
}

std::string parse_locked(std::string_view text, std::set<std::string, std::less<>>* locked) {
    return for_each_line(text, [&](std::string_view line) -> std::string {
        const std::string fingerprint = fingerprint_text(line);
        if (fingerprint.empty() && !is_user_name(line)) {
            return "neither a common name nor a SHA-256 fingerprint";
        }
        locked->insert(fingerprint.empty() ? std::string(line) : fingerprint);
        return {};
    });
}

pair_problem check_key_pair(const file_content& chain, const file_content& key) {
    const openssl_ptr<X509> leaf = next_certificate(reader_of(chain).get());
    const openssl_ptr<EVP_PKEY> pair{
        PEM_read_bio_PrivateKey(reader_of(key).get(), nullptr, no_passphrase, nullptr)};
    pair_problem problem;
    if (!leaf) {
        problem.what = "no usable certificate";
    } else if (!pair || X509_check_private_key(leaf.get(), pair.get()) != 1) {
        problem = {true, "no private key that fits the certificate"};
    }
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    if (!problem.what.empty() && reason != nullptr) {
        problem.what += std::string(" (") + reason + ")";
    }
    ERR_clear_error();
    return problem;
}

std::string tls_files::path_of(int index) const {
    return directory_ + "/" + file_names[static_cast<std::size_t>(index)];
}

void tls_files::note(int index, const char* what) {
    problem_ = path_of(index) + ": " + what;
}

// Adds OpenSSL's reason; always false.
bool tls_files::complain(int index, const char* what) {
    note(index, what);
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    if (reason != nullptr) {
        problem_ += std::string(" (") + reason + ")";
    }
    ERR_clear_error();
    return false;
}

// A missing optional file leaves the content empty.
std::uint32_t tls_files::load(int index, file_content* content) {
    const int error = read_file(path_of(index), content);
    const bool needed = index == certificate_file || index == key_file;
    if (error == ENOENT && !needed) {
        return at_ok;
    }
    if (error != 0) {
        note(index, strerror(error));
        return error == ENOENT ? at_not_available : result_of(error);
    }
    if (index == key_file && (content->mode & owner_only) != 0) {
        note(index, "others than the owner have access (chmod 600)");
        return at_permission_denied;
    }
    return at_ok;
}

// The first certificate is the host's, those behind it lead to its authority.
bool tls_files::use_key_pair(SSL_CTX* context, const file_set& files) {
    const file_content& key = files[key_file];
    const pair_problem problem = check_key_pair(files[certificate_file], key);
    if (!problem.what.empty()) {
        note(problem.is_key ? key_file : certificate_file, problem.what.c_str());
        return false;
    }
    const openssl_ptr<BIO> chain = reader_of(files[certificate_file]);
    const openssl_ptr<X509> leaf = next_certificate(chain.get());
    const openssl_ptr<EVP_PKEY> pair{
        PEM_read_bio_PrivateKey(reader_of(key).get(), nullptr, no_passphrase, nullptr)};
    if (SSL_CTX_use_certificate(context, leaf.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, pair.get()) != 1) {
        return complain(certificate_file, "no usable certificate");
    }
    for (;;) {
        openssl_ptr<X509> issuer = next_certificate(chain.get());
        if (!issuer) {
            break;
        }
        if (SSL_CTX_add0_chain_cert(context, issuer.get()) != 1) {
            return complain(certificate_file, "certificate chain");
        }
        (void)issuer.release();  // the context's now
    }
    ERR_clear_error();  // the end of a PEM file counts as an error
    return true;
}

// An intermediate authority, or a single certificate, may be an anchor of its own.
bool tls_files::trust(SSL_CTX* context, int index, const file_content& anchors, bool announce) {
    X509_STORE* store = SSL_CTX_get_cert_store(context);
    X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
    const openssl_ptr<BIO> reader = reader_of(anchors);
    int count = 0;
    for (;; ++count) {
        const openssl_ptr<X509> anchor = next_certificate(reader.get());
        if (!anchor) {
            break;
        }
        if (X509_STORE_add_cert(store, anchor.get()) != 1 ||
            (announce && SSL_CTX_add_client_CA(context, anchor.get()) != 1)) {
            return complain(index, "certificate not accepted");
        }
    }
    if (count == 0) {
        return complain(index, "no certificate");
    }
    ERR_clear_error();
    return true;
}

bool tls_files::revoke(SSL_CTX* context, const file_content& lists) {
    X509_STORE* store = SSL_CTX_get_cert_store(context);
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
    const openssl_ptr<BIO> reader = reader_of(lists);
    int count = 0;
    for (;; ++count) {
        const openssl_ptr<X509_CRL> list{
            PEM_read_bio_X509_CRL(reader.get(), nullptr, no_passphrase, nullptr)};
        if (!list) {
            break;
        }
        if (X509_STORE_add_crl(store, list.get()) != 1) {
            return complain(client_crl_file, "revocation list not accepted");
        }
    }
    if (count == 0) {
        return complain(client_crl_file, "no revocation list");
    }
    ERR_clear_error();
    return true;
}

bool tls_files::fill(SSL_CTX* server, SSL_CTX* client, const file_set& files) {
    const auto has = [&](file_index index) { return files[index].id != file_id{}; };
    if (!use_key_pair(server, files) || !use_key_pair(client, files) ||
        (has(client_ca_file) && !trust(server, client_ca_file, files[client_ca_file], true)) ||
        (has(client_crl_file) && !revoke(server, files[client_crl_file])) ||
        (has(peer_ca_file) && !trust(client, peer_ca_file, files[peer_ca_file], false))) {
        return false;
    }
    SSL_CTX_set_verify(server, has(client_ca_file) ? SSL_VERIFY_PEER : SSL_VERIFY_NONE,
                       accept_without_list);
    SSL_CTX_set_verify(client, SSL_VERIFY_PEER, nullptr);
    if (finish_ != nullptr) {
        finish_(server);
    }
    return true;
}

// Makes both contexts anew and keeps them only when everything fits: connections take a reference
// when they begin, so the former ones end with the last of those.
std::uint32_t tls_files::build() {
    file_set files;
    for (int index = 0; index < file_count; ++index) {
        const std::uint32_t result = load(index, &files[static_cast<std::size_t>(index)]);
        if (result != at_ok) {
            return result;
        }
    }
    tls_limits limits;
    std::set<std::string, std::less<>> locked;
    for (const auto& [index, problem] :
         {std::pair{limits_file, parse_tls_limits(files[limits_file].text, &limits)},
          std::pair{locked_file, parse_locked(files[locked_file].text, &locked)}}) {
        if (!problem.empty()) {
            note(index, problem.c_str());
            return at_file_error;
        }
    }
    openssl_ptr<SSL_CTX> server = new_context(TLS_server_method(), limits.minimum);
    openssl_ptr<SSL_CTX> client = new_context(TLS_client_method(), limits.minimum);
    if (!server || !client) {
        problem_ = directory_ + ": OpenSSL, as it is configured, has no TLS that fits";
        ERR_clear_error();
        return at_no_memory;
    }
    for (SSL_CTX* context : {server.get(), client.get()}) {
        if (SSL_CTX_set1_groups_list(context, limits.groups.c_str()) != 1) {
            (void)complain(limits_file, ("unknown group in " + limits.groups).c_str());
            return at_file_error;
        }
    }
    if (!fill(server.get(), client.get(), files)) {
        return at_file_error;
    }
    // What was read counts, not what was there before: a file that changed in between differs from
    // it at the next look.
    for (std::size_t index = 0; index < files.size(); ++index) {
        seen_[index] = files[index].id;
    }
    server_ = std::move(server);
    client_ = std::move(client);
    locked_ = std::move(locked);
    return at_ok;
}

std::uint32_t tls_files::refresh() {
    std::array<file_id, file_count> now;
    for (int index = 0; index < file_count; ++index) {
        const auto slot = static_cast<std::size_t>(index);
        const int error = look_at(path_of(index), &now[slot]);
        if (error != 0) {
            note(index, strerror(error));
            return result_of(error);
        }
    }
    return server_ && now == seen_ ? std::uint32_t{at_ok} : build();
}

// Read again, and not asked of the contexts: a store does not tell which file something came from.
std::vector<std::string> tls_files::warnings() const {
    std::vector<std::string> found;
    const auto add = [&](file_index index, const std::string& what) {
        if (!what.empty()) {
            found.push_back(path_of(index) + ": " + what);
        }
    };
    for (const file_index index :
         {certificate_file, client_ca_file, client_crl_file, peer_ca_file}) {
        file_content content;
        if (read_file(path_of(index), &content) != 0) {
            continue;
        }
        const openssl_ptr<BIO> reader = reader_of(content);
        while (index != client_crl_file) {
            const openssl_ptr<X509> certificate = next_certificate(reader.get());
            if (!certificate) {
                break;
            }
            add(index, date_problem(X509_get0_notBefore(certificate.get()),
                                    X509_get0_notAfter(certificate.get())));
        }
        while (index == client_crl_file) {
            const openssl_ptr<X509_CRL> list{
                PEM_read_bio_X509_CRL(reader.get(), nullptr, no_passphrase, nullptr)};
            if (!list) {
                break;
            }
            add(index, date_problem(X509_CRL_get0_lastUpdate(list.get()),
                                    X509_CRL_get0_nextUpdate(list.get())));
        }
    }
    ERR_clear_error();
    return found;
}

bool tls_files::is_locked(const X509* certificate, std::string_view common_name) const {
    return !locked_.empty() &&
           (locked_.contains(common_name) || locked_.contains(fingerprint_of(certificate)));
}

openssl_ptr<SSL_CTX> tls_files::server() const {
    return share(server_);
}

openssl_ptr<SSL_CTX> tls_files::client() const {
    return share(client_);
}

}  // namespace provider
