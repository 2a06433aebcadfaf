#include "lib/conf_yacc.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "lib/conf_lex.h"
#include "lib/ini.h"
#include "lib/plat.h"
#include "lib/qz_result.h"

namespace {

// One token of look-ahead; the text belongs to it when it is a text token.
class parser {
  public:
    parser(conf_scanner* scanner, parse_handle* handle) : scanner_(scanner), handle_(handle) {
        advance();
    }

    bool file() {
        while (token_ != conf_token::end) {
            if (!section()) {
                return false;
            }
        }
        return true;
    }

  private:
    void advance() { token_ = conflex(scanner_, &text_); }

    // Consumes one token when it is the wanted one.
    bool expect(conf_token token) {
        if (token_ != token) {
            return false;
        }
        advance();
        return true;
    }

    bool expect_text(std::string* text) {
        if (token_ != conf_token::text) {
            return false;
        }
        text->swap(text_);
        advance();
        return true;
    }

    bool section() {
        std::string name;
        if (!expect(conf_token::open) || !expect_text(&name) || !expect(conf_token::close)) {
            return false;
        }
        qz_owned<char> kept(confstrdup(name.c_str()));
        if (start_section(handle_, kept.get()) != qz_ok) {
            return false;
        }
        (void)kept.release();  // the store's now
        statements_.clear();
        while (token_ == conf_token::text) {
            if (!statement()) {
                return false;
            }
        }
        return hand_over();
    }

    bool statement() {
        std::string key;
        std::string value;
        if (!expect_text(&key) || !expect(conf_token::equals) || !expect_text(&value)) {
            return false;
        }
        const int line = conflineno;  // of the value: the look-ahead moves on
        if (!expect(conf_token::semicolon)) {
            return false;
        }
        statements_.push_back({qz_owned<char>(confstrdup(key.c_str())),
                               qz_owned<char>(confstrdup(value.c_str())), line});
        return true;
    }

    // Adds the section's statements in order of their keys: each then goes to the end of the
    // property set, so that a load stays linear whatever the order in the file.
    bool hand_over() {
        const auto before = [](const statement_text& a, const statement_text& b) {
            return std::strcmp(a.key.get(), b.key.get()) < 0;
        };
        if (!std::is_sorted(statements_.begin(), statements_.end(), before)) {
            std::stable_sort(statements_.begin(), statements_.end(), before);
        }
        for (statement_text& statement : statements_) {
            if (add_statement(handle_, statement.key.release(), statement.value.release()) !=
                qz_ok) {
                conflineno = statement.line;  // the second of two equal keys
                return false;
            }
        }
        return true;
    }

    struct statement_text {
        qz_owned<char> key;
        qz_owned<char> value;
        int line;
    };

    conf_scanner* scanner_;
    parse_handle* handle_;
    conf_token token_ = conf_token::end;
    std::string text_;
    std::vector<statement_text> statements_;  // of the section that is being read
};

}  // namespace

int confparse(const char* text, std::size_t length, parse_handle* handle) noexcept {
    conflineno = 1;
    conf_scanner scanner{text, text + length};
    const bool accepted = parser(&scanner, handle).file();
    confcleanup(&scanner);
    if (!accepted) {
        conferror("syntax error");
        return qz_syntax_error;
    }
    return qz_ok;
}

void conferror(const char* /*message*/) noexcept {}
