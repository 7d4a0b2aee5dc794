#pragma once

#include <cstdint>
#include <locale>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace netforge {

// Texts of failures and diagnostics are built here, so that every room prints alike: numbers without any
// locale's grouping, enumerations and 8-bit values in decimal, bools as 0 and 1, and lists as "[2,3]".

namespace detail {

template <class T>
struct IsList : std::false_type {};
template <class T, class A>
struct IsList<std::vector<T, A>> : std::true_type {};
template <class T, class C, class A>
struct IsList<std::set<T, C, A>> : std::true_type {};

template <class T>
void appendText(std::ostream& stream, const T& part) {
  if constexpr (IsList<T>::value) {
    stream << '[';
    const char* separator = "";
    for (const auto& entry : part) {
      stream << separator;
      appendText(stream, entry);
      separator = ",";
    }
    stream << ']';
  } else if constexpr (std::is_enum_v<T>) {
    appendText(stream, static_cast<std::underlying_type_t<T>>(part));
  } else if constexpr (std::is_same_v<T, std::uint8_t> || std::is_same_v<T, std::int8_t>) {
    stream << static_cast<int>(part);
  } else {
    stream << part;
  }
}

}  // namespace detail

/// Joins the parts into one text. A part is anything with an output operator, an enumeration, or a vector
/// or set of such.
template <class... Parts>
std::string concatText(const Parts&... parts) {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  (detail::appendText(stream, parts), ...);
  return std::move(stream).str();
}

/// The text of dims, orders and axis lists in messages: "[2,3]", no blanks, "[]" for none.
std::string dimsText(const std::vector<std::uint32_t>& values);

/// Throws `Exception` with the text "<function>: <parts joined>". `function` is the qualified name of the
/// function that fails, such as "netforge::IrTensor::elements".
template <class Exception, class... Parts>
[[noreturn]] void fail(std::string_view function, const Parts&... parts) {
  throw Exception(concatText(function, ": ", parts...));
}

}  // namespace netforge
