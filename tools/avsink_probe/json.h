// A small JSON value for the probe's machine-readable report and for reading a report
// back (the emulated probe takes its DRM topology from one).
#pragma once

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

namespace avsink_probe {

class Json {
  public:
    enum class Type { Null, Bool, Int, Real, String, Array, Object };

    Json() = default;
    static Json boolean(bool b);
    static Json integer(long long n);
    static Json real(double d);
    static Json string(const std::string& s);
    static Json array();
    static Json object();

    Type type() const { return type_; }
    bool is_null() const { return type_ == Type::Null; }
    bool as_bool() const { return b_; }
    long long as_int() const { return type_ == Type::Real ? static_cast<long long>(d_) : n_; }
    const std::string& as_string() const { return s_; }
    const std::vector<Json>& items() const { return items_; }
    const std::vector<std::pair<std::string, Json>>& members() const { return members_; }

    // Appends to an array; returns the array.
    Json& push(Json v);
    // Adds or replaces a member of an object; returns the object.
    Json& set(const std::string& key, Json v);
    // The member named key, or null when there is none.
    const Json* get(const std::string& key) const;

    // One line, no spaces after separators other than ", " and ": ".
    std::string compact() const;
    // The report layout: the top object and its section objects one member per line, the
    // arrays inside a section one element per line, everything deeper on one line.
    std::string pretty() const;

  private:
    void pretty_into(std::string* out, int depth) const;

    Type type_ = Type::Null;
    bool b_ = false;
    long long n_ = 0;
    double d_ = 0;
    std::string s_;
    std::vector<Json> items_;
    std::vector<std::pair<std::string, Json>> members_;
};

// Parses text into *out; on failure returns false and describes the place in *error.
bool parse_json(const std::string& text, Json* out, std::string* error);

std::string json_quote(const std::string& s);

}  // namespace avsink_probe
