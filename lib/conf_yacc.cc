#include "lib/conf_yacc.h"

#include <string>

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
        while (token_ == conf_token::text) {
            if (!statement()) {
                return false;
            }
        }
        return true;
    }

    // The last token is only looked at before the statement is added, so that conflineno still
    // names its line when the store refuses it.
    bool statement() {
        std::string key;
        std::string value;
        if (!expect_text(&key) || !expect(conf_token::equals) || !expect_text(&value) ||
            token_ != conf_token::semicolon) {
            return false;
        }
        if (add_statement(handle_, confstrdup(key.c_str()), confstrdup(value.c_str())) != qz_ok) {
            return false;
        }
        advance();
        return true;
    }

    conf_scanner* scanner_;
    parse_handle* handle_;
    conf_token token_ = conf_token::end;
    std::string text_;
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
