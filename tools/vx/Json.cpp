#include "Json.h"

#include <cstdlib>
#include <cstring>

namespace vxtool {

JsonValue const* JsonValue::Find(std::string const& key) const {
    if (kind != Kind::Object)
        return nullptr;
    auto it = members.find(key);
    return it == members.end() ? nullptr : &it->second;
}

namespace {

// Recursive descent over a byte string. Every read goes through peek(), which
// returns 0 past the end, so a truncated document fails as "unexpected end".
class Parser {
public:
    explicit Parser(std::string const& t) : text(t) {}

    bool Document(JsonValue* out) {
        skipSpace();
        if (!value(out, 0))
            return false;
        skipSpace();
        if (pos < text.size())
            return fail("unexpected text after the document");
        return true;
    }

    std::string error;

private:
    std::string const& text;
    size_t pos = 0;

    char peek() const { return pos < text.size() ? text[pos] : '\0'; }
    bool atEnd() const { return pos >= text.size(); }

    bool fail(char const* what) {
        size_t line = 1, col = 1;
        for (size_t i = 0; i < pos && i < text.size(); ++i) {
            if (text[i] == '\n') {
                ++line;
                col = 1;
            } else {
                ++col;
            }
        }
        error = "line " + std::to_string(line) + ", column " + std::to_string(col) + ": " +
                (atEnd() ? std::string("unexpected end of file") : std::string(what));
        return false;
    }

    void skipSpace() {
        while (!atEnd()) {
            char c = text[pos];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r')
                break;
            ++pos;
        }
    }

    bool literal(char const* word) {
        size_t n = std::strlen(word);
        if (text.compare(pos, n, word) != 0)
            return fail("invalid literal");
        pos += n;
        return true;
    }

    bool value(JsonValue* out, int depth) {
        if (depth >= kMaxJsonDepth)
            return fail("nesting too deep");
        switch (peek()) {
        case '{': return object(out, depth);
        case '[': return array(out, depth);
        case '"':
            out->kind = JsonValue::Kind::String;
            return string(&out->text);
        case 't':
            out->kind = JsonValue::Kind::Bool;
            out->boolean = true;
            return literal("true");
        case 'f':
            out->kind = JsonValue::Kind::Bool;
            out->boolean = false;
            return literal("false");
        case 'n':
            out->kind = JsonValue::Kind::Null;
            return literal("null");
        default:
            return number(out);
        }
    }

    // The elements of an object or array after its opening character, up to
    // `close`: element() reads one, then ',' continues and `close` ends.
    template <class Element>
    bool sequence(char close, Element element) {
        ++pos;  // '{' or '['
        skipSpace();
        if (peek() == close) {
            ++pos;
            return true;
        }
        for (;;) {
            skipSpace();
            if (!element())
                return false;
            skipSpace();
            if (peek() == ',') {
                ++pos;
                continue;
            }
            if (peek() == close) {
                ++pos;
                return true;
            }
            return fail(close == '}' ? "expected ',' or '}'" : "expected ',' or ']'");
        }
    }

    bool object(JsonValue* out, int depth) {
        out->kind = JsonValue::Kind::Object;
        return sequence('}', [&] {
            if (peek() != '"')
                return fail("expected a string key");
            std::string key;
            if (!string(&key))
                return false;
            skipSpace();
            if (peek() != ':')
                return fail("expected ':'");
            ++pos;
            skipSpace();
            JsonValue v;
            if (!value(&v, depth + 1))
                return false;
            out->members[key] = std::move(v);
            return true;
        });
    }

    bool array(JsonValue* out, int depth) {
        out->kind = JsonValue::Kind::Array;
        return sequence(']', [&] {
            JsonValue v;
            if (!value(&v, depth + 1))
                return false;
            out->items.push_back(std::move(v));
            return true;
        });
    }

    static int hexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    bool hex4(unsigned* out) {
        unsigned v = 0;
        for (int i = 0; i < 4; ++i) {
            int d = hexDigit(peek());
            if (d < 0)
                return fail("bad \\u escape");
            v = v * 16 + (unsigned)d;
            ++pos;
        }
        *out = v;
        return true;
    }

    static void appendUtf8(std::string* s, unsigned cp) {
        if (cp < 0x80) {
            s->push_back((char)cp);
        } else if (cp < 0x800) {
            s->push_back((char)(0xC0 | (cp >> 6)));
            s->push_back((char)(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            s->push_back((char)(0xE0 | (cp >> 12)));
            s->push_back((char)(0x80 | ((cp >> 6) & 0x3F)));
            s->push_back((char)(0x80 | (cp & 0x3F)));
        } else {
            s->push_back((char)(0xF0 | (cp >> 18)));
            s->push_back((char)(0x80 | ((cp >> 12) & 0x3F)));
            s->push_back((char)(0x80 | ((cp >> 6) & 0x3F)));
            s->push_back((char)(0x80 | (cp & 0x3F)));
        }
    }

    bool unicodeEscape(std::string* s) {
        unsigned cp = 0;
        if (!hex4(&cp))
            return false;
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (peek() != '\\' || pos + 1 >= text.size() || text[pos + 1] != 'u')
                return fail("unpaired surrogate in \\u escape");
            pos += 2;
            unsigned lo = 0;
            if (!hex4(&lo))
                return false;
            if (lo < 0xDC00 || lo > 0xDFFF)
                return fail("unpaired surrogate in \\u escape");
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return fail("unpaired surrogate in \\u escape");
        }
        appendUtf8(s, cp);
        return true;
    }

    bool string(std::string* s) {
        ++pos;  // opening quote
        for (;;) {
            if (atEnd())
                return fail("unterminated string");
            char c = text[pos];
            if (c == '"') {
                ++pos;
                return true;
            }
            if ((unsigned char)c < 0x20)
                return fail("control character in string");
            ++pos;
            if (c != '\\') {
                s->push_back(c);
                continue;
            }
            char e = peek();
            ++pos;
            switch (e) {
            case '"': s->push_back('"'); break;
            case '\\': s->push_back('\\'); break;
            case '/': s->push_back('/'); break;
            case 'b': s->push_back('\b'); break;
            case 'f': s->push_back('\f'); break;
            case 'n': s->push_back('\n'); break;
            case 'r': s->push_back('\r'); break;
            case 't': s->push_back('\t'); break;
            case 'u':
                if (!unicodeEscape(s))
                    return false;
                break;
            default:
                --pos;
                return fail("bad escape in string");
            }
        }
    }

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?, converted by strtod.
    bool number(JsonValue* out) {
        size_t start = pos;
        if (peek() == '-')
            ++pos;
        if (peek() == '0') {
            ++pos;
        } else if (isDigit(peek())) {
            while (isDigit(peek())) ++pos;
        } else {
            return fail("expected a value");
        }
        if (peek() == '.') {
            ++pos;
            if (!isDigit(peek()))
                return fail("expected a digit after '.'");
            while (isDigit(peek())) ++pos;
        }
        if (peek() == 'e' || peek() == 'E') {
            ++pos;
            if (peek() == '+' || peek() == '-')
                ++pos;
            if (!isDigit(peek()))
                return fail("expected a digit in the exponent");
            while (isDigit(peek())) ++pos;
        }
        std::string digits = text.substr(start, pos - start);
        out->kind = JsonValue::Kind::Number;
        out->number = std::strtod(digits.c_str(), nullptr);
        return true;
    }
};

}  // namespace

bool ParseJson(std::string const& text, JsonValue* out, std::string* error) {
    Parser p(text);
    JsonValue v;
    if (!p.Document(&v)) {
        if (error)
            *error = p.error;
        return false;
    }
    *out = std::move(v);
    return true;
}

}  // namespace vxtool
