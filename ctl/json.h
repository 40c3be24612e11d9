// ctl/json.h: a JSON value under construction, so that one file alone pays for the library
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace ctl {

class Json {
  public:
    static Json object();
    static Json array();
    Json(Json &&) noexcept;
    Json &operator=(Json &&) noexcept;
    ~Json();

    // Members of an object, in the order in which they are set. Text that is no UTF-8 has its bad
    // bytes replaced.
    Json &number(std::string_view key, uint64_t value);
    Json &integer(std::string_view key, int64_t value);
    Json &real(std::string_view key, double value);
    Json &flag(std::string_view key, bool value);
    Json &text(std::string_view key, std::string_view value);
    Json &null(std::string_view key);
    Json &value(std::string_view key, const Json &value);

    // Elements of an array.
    Json &add(const Json &value);
    Json &add_number(uint64_t value);

    std::string pretty() const;  // many lines, a newline at the end
    std::string line() const;    // one line, a newline at the end

  private:
    struct Body;
    explicit Json(std::unique_ptr<Body> body);
    std::unique_ptr<Body> body_;
};

}  // namespace ctl
