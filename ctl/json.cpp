// ctl/json.cpp: JSON values over nlohmann-json (the one file that includes it)
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/json.h"

#include <nlohmann/json.hpp>

namespace ctl {

using Value = nlohmann::ordered_json;

struct Json::Body {
    Value value;
};

namespace {
std::string key_text(std::string_view key) {
    return std::string(key);
}
std::string dump(const Value &value, int indent) {
    return value.dump(indent, ' ', false, Value::error_handler_t::replace) + "\n";
}
}  // namespace

Json::Json(std::unique_ptr<Body> body) : body_(std::move(body)) {}
Json::Json(Json &&) noexcept = default;
Json &Json::operator=(Json &&) noexcept = default;
Json::~Json() = default;

Json Json::object() {
    return Json(std::make_unique<Body>(Body{Value::object()}));
}
Json Json::array() {
    return Json(std::make_unique<Body>(Body{Value::array()}));
}

Json &Json::number(std::string_view key, uint64_t value) {
    body_->value[key_text(key)] = value;
    return *this;
}

Json &Json::integer(std::string_view key, int64_t value) {
    body_->value[key_text(key)] = value;
    return *this;
}

Json &Json::real(std::string_view key, double value) {
    body_->value[key_text(key)] = value;
    return *this;
}

Json &Json::flag(std::string_view key, bool value) {
    body_->value[key_text(key)] = value;
    return *this;
}

Json &Json::text(std::string_view key, std::string_view value) {
    body_->value[key_text(key)] = std::string(value);
    return *this;
}

Json &Json::null(std::string_view key) {
    body_->value[key_text(key)] = nullptr;
    return *this;
}

Json &Json::value(std::string_view key, const Json &value) {
    body_->value[key_text(key)] = value.body_->value;
    return *this;
}

Json &Json::add(const Json &value) {
    body_->value.push_back(value.body_->value);
    return *this;
}

Json &Json::add_number(uint64_t value) {
    body_->value.push_back(value);
    return *this;
}

std::string Json::pretty() const {
    return dump(body_->value, 2);
}
std::string Json::line() const {
    return dump(body_->value, -1);
}

}  // namespace ctl
