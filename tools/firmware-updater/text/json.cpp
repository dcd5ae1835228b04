#include "text/json.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace tavo::tool {

using Library = nlohmann::ordered_json;

struct JsonLibrary {
  static Library From(const Json& json) {
    return std::visit([](const auto& value) { return Convert(value); }, json.m_value);
  }

  // A text from outside may nest values as deep as it likes; the stack is not that deep.
  static Json To(const Library& json, int depth = 0) {
    constexpr int kDeepest = 100;
    if (depth > kDeepest) throw std::runtime_error("values nested too deeply");
    switch (json.type()) {
      case Library::value_t::boolean: return json.get<bool>();
      case Library::value_t::number_integer:
      case Library::value_t::number_unsigned: return json.get<std::int64_t>();
      case Library::value_t::number_float: return json.get<double>();
      case Library::value_t::string: return json.get<std::string>();
      case Library::value_t::array: {
        Json::Array items;
        for (const Library& item : json) items.push_back(To(item, depth + 1));
        return items;
      }
      case Library::value_t::object: {
        Json::Object members;
        for (const auto& [name, value] : json.items())
          members.emplace_back(name, To(value, depth + 1));
        return members;
      }
      default: return {};
    }
  }

 private:
  template <typename Scalar>
  static Library Convert(const Scalar& scalar) {
    return scalar;
  }
  static Library Convert(std::monostate) { return nullptr; }
  static Library Convert(const Json::Array& items) {
    Library list = Library::array();
    for (const Json& item : items) list.push_back(From(item));
    return list;
  }
  static Library Convert(const Json::Object& members) {
    Library object = Library::object();
    for (const auto& [name, value] : members) object[name] = From(value);
    return object;
  }
};

namespace {

const Json kNull;

}  // namespace

Json Json::Parse(const std::string& text) { return JsonLibrary::To(Library::parse(text)); }

Json Json::ParseOrNull(std::string_view text) try {
  return JsonLibrary::To(Library::parse(text));
} catch (const std::exception&) {
  return {};
}

std::string Json::Text(int indent) const {
  constexpr bool kAsciiAlone = true;  // no character in it can steer a terminal
  return JsonLibrary::From(*this).dump(indent, ' ', kAsciiAlone, Library::error_handler_t::replace);
}

void Json::Set(std::string name, Json value) {
  std::get<Object>(m_value).emplace_back(std::move(name), std::move(value));
}

void Json::Append(const Json& members) {
  const auto& others = std::get<Object>(members.m_value);
  auto& own = std::get<Object>(m_value);
  own.insert(own.end(), others.begin(), others.end());
}

void Json::Add(Json item) { std::get<Array>(m_value).push_back(std::move(item)); }

std::size_t Json::Size() const {
  if (const auto* const items = std::get_if<Array>(&m_value)) return items->size();
  const auto* const members = std::get_if<Object>(&m_value);
  return members == nullptr ? 0 : members->size();
}

const std::string& Json::String() const {
  static const std::string kEmpty;
  const auto* const text = std::get_if<std::string>(&m_value);
  return text == nullptr ? kEmpty : *text;
}

double Json::Number() const {
  if (const auto* const whole = std::get_if<std::int64_t>(&m_value)) {
    return static_cast<double>(*whole);
  }
  const auto* const number = std::get_if<double>(&m_value);
  return number == nullptr ? 0 : *number;
}

const Json& Json::operator[](std::string_view name) const {
  const auto* const members = std::get_if<Object>(&m_value);
  if (members == nullptr) return kNull;
  const auto found = std::ranges::find(*members, name, &Member::first);
  return found == members->end() ? kNull : found->second;
}

const Json& Json::operator[](std::size_t index) const {
  return index < Size() && std::holds_alternative<Array>(m_value) ? std::get<Array>(m_value)[index]
                                                                  : kNull;
}

bool Json::operator==(const Json& other) const { return m_value == other.m_value; }

}  // namespace tavo::tool
