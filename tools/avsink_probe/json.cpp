#include "json.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

namespace avsink_probe {

Json Json::boolean(bool b) {
    Json j;
    j.type_ = Type::Bool;
    j.b_ = b;
    return j;
}

Json Json::integer(long long n) {
    Json j;
    j.type_ = Type::Int;
    j.n_ = n;
    return j;
}

Json Json::real(double d) {
    Json j;
    j.type_ = Type::Real;
    j.d_ = d;
    return j;
}

Json Json::string(const std::string& s) {
    Json j;
    j.type_ = Type::String;
    j.s_ = s;
    return j;
}

Json Json::array() {
    Json j;
    j.type_ = Type::Array;
    return j;
}

Json Json::object() {
    Json j;
    j.type_ = Type::Object;
    return j;
}

Json& Json::push(Json v) {
    items_.push_back(std::move(v));
    return *this;
}

Json& Json::set(const std::string& key, Json v) {
    for (auto& m : members_)
        if (m.first == key) {
            m.second = std::move(v);
            return *this;
        }
    members_.emplace_back(key, std::move(v));
    return *this;
}

const Json* Json::get(const std::string& key) const {
    for (const auto& m : members_)
        if (m.first == key)
            return &m.second;
    return nullptr;
}

std::string json_quote(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string Json::compact() const {
    switch (type_) {
        case Type::Null:
            return "null";
        case Type::Bool:
            return b_ ? "true" : "false";
        case Type::Int:
            return std::to_string(n_);
        case Type::Real: {
            char buf[64];
            snprintf(buf, sizeof(buf), "%.6f", d_);
            return buf;
        }
        case Type::String:
            return json_quote(s_);
        case Type::Array: {
            std::string out = "[";
            for (size_t i = 0; i < items_.size(); ++i)
                out += (i ? ", " : "") + items_[i].compact();
            return out + "]";
        }
        case Type::Object: {
            std::string out = "{";
            for (size_t i = 0; i < members_.size(); ++i)
                out += (i ? ", " : "") + json_quote(members_[i].first) + ": " + members_[i].second.compact();
            return out + "}";
        }
    }
    return "null";
}

void Json::pretty_into(std::string* out, int depth) const {
    const std::string pad(2 * static_cast<size_t>(depth + 1), ' ');
    const std::string close_pad(2 * static_cast<size_t>(depth), ' ');
    if (type_ == Type::Object && depth <= 1 && !members_.empty()) {
        *out += "{\n";
        for (size_t i = 0; i < members_.size(); ++i) {
            *out += pad + json_quote(members_[i].first) + ": ";
            members_[i].second.pretty_into(out, depth + 1);
            *out += i + 1 < members_.size() ? ",\n" : "\n";
        }
        *out += close_pad + "}";
    } else if (type_ == Type::Array && depth == 2 && !items_.empty()) {
        *out += "[\n";
        for (size_t i = 0; i < items_.size(); ++i)
            *out += pad + items_[i].compact() + (i + 1 < items_.size() ? ",\n" : "\n");
        *out += close_pad + "]";
    } else {
        *out += compact();
    }
}

std::string Json::pretty() const {
    std::string out;
    pretty_into(&out, 0);
    return out + "\n";
}

namespace {

class Parser {
  public:
    explicit Parser(const std::string& t) : t_(t) {}

    bool document(Json* out, std::string* error) {
        bool ok = value(out);
        skip_space();
        if (ok && i_ != t_.size())
            ok = fail("text after the value");
        if (!ok && error)
            *error = error_ + " at offset " + std::to_string(i_);
        return ok;
    }

  private:
    bool fail(const char* what) {
        if (error_.empty())
            error_ = what;
        return false;
    }

    void skip_space() {
        while (i_ < t_.size() && isspace(static_cast<unsigned char>(t_[i_])))
            ++i_;
    }

    bool literal(const char* word) {
        size_t n = 0;
        while (word[n])
            ++n;
        if (t_.compare(i_, n, word) != 0)
            return fail("unknown word");
        i_ += n;
        return true;
    }

    bool string(std::string* s) {
        ++i_;  // opening quote
        while (i_ < t_.size() && t_[i_] != '"') {
            char c = t_[i_++];
            if (c != '\\') {
                *s += c;
                continue;
            }
            if (i_ >= t_.size())
                return fail("unterminated escape");
            char e = t_[i_++];
            if (e == 'u') {
                if (i_ + 4 > t_.size())
                    return fail("short \\u escape");
                *s += static_cast<char>(strtol(t_.substr(i_, 4).c_str(), nullptr, 16));
                i_ += 4;
            } else {
                *s += e == 'n' ? '\n' : e == 't' ? '\t' : e;
            }
        }
        if (i_ >= t_.size())
            return fail("unterminated string");
        ++i_;
        return true;
    }

    bool number(Json* out) {
        size_t start = i_;
        bool real = false;
        while (i_ < t_.size() && (isdigit(static_cast<unsigned char>(t_[i_])) || t_[i_] == '-' ||
                                  t_[i_] == '+' || t_[i_] == '.' || t_[i_] == 'e' || t_[i_] == 'E')) {
            real = real || t_[i_] == '.' || t_[i_] == 'e' || t_[i_] == 'E';
            ++i_;
        }
        std::string n = t_.substr(start, i_ - start);
        if (n.empty())
            return fail("unexpected character");
        *out = real ? Json::real(strtod(n.c_str(), nullptr)) : Json::integer(strtoll(n.c_str(), nullptr, 10));
        return true;
    }

    bool array(Json* out) {
        *out = Json::array();
        ++i_;
        skip_space();
        if (i_ < t_.size() && t_[i_] == ']') {
            ++i_;
            return true;
        }
        for (;;) {
            Json v;
            if (!value(&v))
                return false;
            out->push(std::move(v));
            skip_space();
            if (i_ < t_.size() && t_[i_] == ',') {
                ++i_;
                continue;
            }
            if (i_ < t_.size() && t_[i_] == ']') {
                ++i_;
                return true;
            }
            return fail("expected ',' or ']'");
        }
    }

    bool object(Json* out) {
        *out = Json::object();
        ++i_;
        skip_space();
        if (i_ < t_.size() && t_[i_] == '}') {
            ++i_;
            return true;
        }
        for (;;) {
            skip_space();
            std::string key;
            if (i_ >= t_.size() || t_[i_] != '"' || !string(&key))
                return fail("expected a member name");
            skip_space();
            if (i_ >= t_.size() || t_[i_] != ':')
                return fail("expected ':'");
            ++i_;
            Json v;
            if (!value(&v))
                return false;
            out->set(key, std::move(v));
            skip_space();
            if (i_ < t_.size() && t_[i_] == ',') {
                ++i_;
                continue;
            }
            if (i_ < t_.size() && t_[i_] == '}') {
                ++i_;
                return true;
            }
            return fail("expected ',' or '}'");
        }
    }

    bool value(Json* out) {
        skip_space();
        if (i_ >= t_.size())
            return fail("unexpected end");
        switch (t_[i_]) {
            case '{':
                return object(out);
            case '[':
                return array(out);
            case '"': {
                std::string s;
                if (!string(&s))
                    return false;
                *out = Json::string(s);
                return true;
            }
            case 't':
                *out = Json::boolean(true);
                return literal("true");
            case 'f':
                *out = Json::boolean(false);
                return literal("false");
            case 'n':
                *out = Json();
                return literal("null");
            default:
                return number(out);
        }
    }

    const std::string& t_;
    size_t i_ = 0;
    std::string error_;
};

}  // namespace

bool parse_json(const std::string& text, Json* out, std::string* error) {
    return Parser(text).document(out, error);
}

}  // namespace avsink_probe
