#ifndef VXTOOL_JSON_H
#define VXTOOL_JSON_H

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vxtool {

// A parsed JSON value. Small and strict: RFC 8259 grammar, nesting limited to
// kMaxJsonDepth levels, no trailing garbage. Objects keep the last of duplicate keys.
struct JsonValue {
    enum class Kind { Null, Bool, Number, String, Array, Object };

    Kind kind = Kind::Null;
    bool boolean = false;
    double number = 0.0;
    std::string text;
    std::vector<JsonValue> items;
    std::map<std::string, JsonValue> members;

    bool IsNumber() const { return kind == Kind::Number; }
    bool IsString() const { return kind == Kind::String; }
    bool IsArray() const { return kind == Kind::Array; }
    bool IsObject() const { return kind == Kind::Object; }
    // The member named key of an object, or null when absent or not an object.
    JsonValue const* Find(std::string const& key) const;
};

constexpr int kMaxJsonDepth = 64;

// Parses the whole of text. On failure returns false and sets *error to one
// line such as "line 3, column 7: expected ',' or '}'".
bool ParseJson(std::string const& text, JsonValue* out, std::string* error);

}  // namespace vxtool

#endif
