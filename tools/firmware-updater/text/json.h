// A JSON value: what a command reports to a program. Built as it reads, an absent fact is null:
//
//   const Json document{{"version", 1}, {"deviceId", report.deviceId}, {"names", names}};
//   machine.out << document.Text(2) << '\n';
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tavo::tool {

class Json {
 public:
  using Member = std::pair<std::string, Json>;
  using Array = std::vector<Json>;
  using Object = std::vector<Member>;  // in the order in which they are written

  Json() = default;  // null
  // Implicit, so that a document is written down as it will look.
  // NOLINTBEGIN(google-explicit-constructor)
  Json(bool value) : m_value(value) {}
  Json(std::integral auto value) : m_value(static_cast<std::int64_t>(value)) {}
  Json(double value) : m_value(value) {}
  Json(const char* text) : m_value(std::string(text)) {}
  Json(std::string_view text) : m_value(std::string(text)) {}
  Json(std::string text) : m_value(std::move(text)) {}
  Json(Array items) : m_value(std::move(items)) {}
  Json(Object members) : m_value(std::move(members)) {}
  Json(std::initializer_list<Member> members) : m_value(Object(members)) {}
  template <typename Value>
  Json(const std::vector<Value>& items) : m_value(Array(items.begin(), items.end())) {}
  template <typename Value>
  Json(const std::optional<Value>& value) : Json(value ? Json(*value) : Json()) {}
  // NOLINTEND(google-explicit-constructor)

  // Throws std::exception when the text is none.
  static Json Parse(const std::string& text);
  // Null when the text is none.
  static Json ParseOrNull(std::string_view text);
  // In one line, or indented by that many blanks. Bytes that are not UTF-8 are replaced.
  std::string Text(int indent = -1) const;

  // An object gets one member, or all of another object; an array gets the item.
  void Set(std::string name, Json value);
  void Append(const Json& members);
  void Add(Json item);

  bool IsNull() const { return std::holds_alternative<std::monostate>(m_value); }
  std::size_t Size() const;  // of an array or object; else 0
  // Empty and 0 for a value of another type.
  const std::string& String() const;
  double Number() const;
  // Null for a member or an item that does not exist.
  const Json& operator[](std::string_view name) const;
  const Json& operator[](std::size_t index) const;
  bool operator==(const Json& other) const;

 private:
  std::variant<std::monostate, bool, std::int64_t, double, std::string, Array, Object> m_value{};

  friend struct JsonLibrary;
};

}  // namespace tavo::tool
