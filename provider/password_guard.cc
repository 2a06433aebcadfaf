#include "provider/password_guard.h"

#include <crypt.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>

#include "provider/accounts.h"
#include "provider/clock.h"

namespace provider {
namespace {

// libxcrypt refuses more than 512 bytes; this is well above what a login can carry.
constexpr std::size_t longest_password = 128;
constexpr std::int64_t remembered_ms = 300'000;
constexpr int doubts_before_forgetting = 20;
constexpr int failures_before_lock = 5;
constexpr std::int64_t longest_lock_ms = 30'000;
// A refusal hashes twice, about 18 ms: 20 a second are at most 36 % of the thread of the daemon.
constexpr std::int64_t hashes_per_second = 20;
constexpr std::int64_t fullest_budget = 20'000;
// What invented names leave for the others.
constexpr std::int64_t reserved_budget = 10'000;

}  // namespace

// In pages of their own, so that they can be kept out of core dumps as a whole.
struct password_guard::secrets {
    std::array<unsigned char, 32> key;
    std::array<remembered, 64> right;
    failure_slots wrong;  // of names that exist
    failure_slots wrong_unknown;
    crypt_data work;
};

password_guard::~password_guard() {
    if (secrets_ != nullptr) {
        explicit_bzero(secrets_, sizeof *secrets_);
        (void)munmap(secrets_, sizeof *secrets_);
    }
}

bool password_guard::prepare() {
    void* pages =
        mmap(nullptr, sizeof(secrets), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        return false;
    }
    (void)madvise(pages, sizeof(secrets), MADV_DONTDUMP);  // best effort: old kernels lack it
    secrets_ = new (pages) secrets;                        // the pages are zero
    const openssl_ptr<EVP_MAC> mac{EVP_MAC_fetch(nullptr, "HMAC", nullptr)};
    mac_.reset(mac ? EVP_MAC_CTX_new(mac.get()) : nullptr);
    char name[] = "SHA256";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name, 0),
        OSSL_PARAM_construct_end()};
    yescrypt_stand_in_ = make_password_setting("$y$");
    sha512_stand_in_ = make_password_setting("$6$");
    budget_ = fullest_budget;
    budget_ms_ = monotonic_ms();
    return mac_ && EVP_MAC_CTX_set_params(mac_.get(), parameters) == 1 &&
           !yescrypt_stand_in_.empty() && !sha512_stand_in_.empty() &&
           RAND_bytes(secrets_->key.data(), static_cast<int>(secrets_->key.size())) == 1;
}

// Each text goes in with its terminator, so that no two lists run together.
bool password_guard::make_digest(std::initializer_list<std::string_view> texts, digest* result) {
    if (EVP_MAC_init(mac_.get(), secrets_->key.data(), secrets_->key.size(), nullptr) != 1) {
        return false;
    }
    for (const std::string_view text : texts) {
        const unsigned char end = 0;
        if (EVP_MAC_update(mac_.get(), reinterpret_cast<const unsigned char*>(text.data()),
                           text.size()) != 1 ||
            EVP_MAC_update(mac_.get(), &end, 1) != 1) {
            return false;
        }
    }
    std::size_t length = 0;
    return EVP_MAC_final(mac_.get(), result->data(), &length, result->size()) == 1;
}

// Keys are digests under a key that nobody outside knows, so comparing them may stop early.
bool password_guard::is_remembered(const digest& key, std::int64_t now_ms) const {
    return std::any_of(
        secrets_->right.begin(), secrets_->right.end(),
        [&](const remembered& entry) { return entry.until_ms > now_ms && entry.key == key; });
}

void password_guard::remember(const digest& key, const digest& name, std::int64_t now_ms) {
    const auto oldest = std::min_element(
        secrets_->right.begin(), secrets_->right.end(),
        [](const remembered& a, const remembered& b) { return a.until_ms < b.until_ms; });
    *oldest = {key, name, now_ms + remembered_ms, 0};
}

// A wrong password, heard or not. Whoever really forgot his own is only hashed for again.
void password_guard::doubt(const digest& name) {
    for (remembered& entry : secrets_->right) {
        if (entry.name == name && ++entry.doubts >= doubts_before_forgetting) {
            entry = {};
        }
    }
}

password_guard::failures* password_guard::slot_of(failure_slots* slots, const digest& key) {
    for (failures& slot : *slots) {
        if (slot.count > 0 && slot.key == key) {
            return &slot;
        }
    }
    return nullptr;
}

// A new name takes a free slot, else that of the name that has been quiet longest.
void password_guard::count_failure(failure_slots* slots, const digest& key, std::int64_t now_ms) {
    failures* slot = slot_of(slots, key);
    if (slot == nullptr) {
        slot = &*std::min_element(
            slots->begin(), slots->end(), [](const failures& a, const failures& b) {
                return a.count == 0 || b.count == 0 ? a.count < b.count : a.last_ms < b.last_ms;
            });
        *slot = {key, now_ms, 0, 0};
    }
    slot->last_ms = now_ms;
    slot->count = std::min(slot->count + 1, failures_before_lock + 5);
    if (slot->count >= failures_before_lock) {
        const std::int64_t lock_ms = std::int64_t{1000} << (slot->count - failures_before_lock);
        slot->locked_until_ms = now_ms + std::min(lock_ms, longest_lock_ms);
    }
}

bool password_guard::take_from_budget(std::int64_t now_ms, bool exists) {
    // An integer of thousandths: time passes in milliseconds and nothing is lost in rounding.
    const std::int64_t earned = (now_ms - budget_ms_) * hashes_per_second;
    budget_ = std::min(budget_ + earned, fullest_budget);
    budget_ms_ = now_ms;
    if (budget_ < 1000 + (exists ? 0 : reserved_budget)) {
        return false;
    }
    budget_ -= 1000;
    return true;
}

bool password_guard::has_hash(const char* password, const std::string& hash) {
    // Not crypt_r: sanitizers put a function of their own in its place, which fails in a library
    // that is loaded late.
    const char* result = crypt_rn(password, hash.c_str(), &secrets_->work, sizeof secrets_->work);
    const bool same = result != nullptr && result[0] != '*' && strlen(result) == hash.size() &&
                      CRYPTO_memcmp(result, hash.data(), hash.size()) == 0;
    explicit_bzero(&secrets_->work, sizeof secrets_->work);
    return same;
}

// How long a refusal takes does not tell whether the user exists, nor how his password is kept: the
// methods that his own hash has not used are used on the stand-ins.
bool password_guard::hash_fits(const char* password, const std::string& hash) {
    if (!hash.empty() && has_hash(password, hash)) {
        return true;
    }
    for (const std::string* stand_in : {&yescrypt_stand_in_, &sha512_stand_in_}) {
        if (hash.compare(0, 3, *stand_in, 0, 3) != 0) {
            (void)has_hash(password, *stand_in);
        }
    }
    return false;
}

bool password_guard::check(const login& who, const std::string& hash) {
    digest whole{};
    if (strlen(who.password) > longest_password ||
        !make_digest({who.domain, who.name, who.password, hash}, &whole)) {
        return false;
    }
    const std::int64_t now_ms = monotonic_ms();
    if (!hash.empty() && is_remembered(whole, now_ms)) {
        return true;  // other people's failures do not hurt whoever knows the password
    }
    digest name{};
    digest attempt{};
    if (!make_digest({who.domain, who.name}, &name) ||
        !make_digest({who.domain, who.name, who.peer}, &attempt)) {
        return false;
    }
    const bool exists = !hash.empty();
    failure_slots* slots = exists ? &secrets_->wrong : &secrets_->wrong_unknown;
    failures* slot = slot_of(slots, attempt);
    const bool heard =
        (slot == nullptr || slot->locked_until_ms <= now_ms) && take_from_budget(now_ms, exists);
    if (!heard || !hash_fits(who.password, hash)) {
        doubt(name);
        if (heard) {
            count_failure(slots, attempt, now_ms);
        }
        return false;
    }
    if (slot != nullptr) {
        slot->count = 0;
    }
    remember(whole, name, now_ms);
    return true;
}

}  // namespace provider
