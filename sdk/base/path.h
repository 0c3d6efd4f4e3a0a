#pragma once

#include <list>
#include <string>

typedef std::list<std::string> String_Array;

namespace scrt {

/// Joins components into a path. Writes one separator before each component, adds nothing for an empty component and
/// never touches a component's own bytes: "a" and "/b/" give "/a//b/".
template <typename C>
class Path_T {
public:
  explicit Path_T(C separator) : separator_(separator) {}

  Path_T& append(const std::basic_string<C>& component) {
    if (!component.empty()) {
      path_.push_back(separator_);
      path_.append(component);
    }
    return *this;
  }
  Path_T& operator/=(const std::basic_string<C>& component) { return append(component); }

  /// Stays valid while this object is neither changed nor destroyed.
  const std::basic_string<C>& str() const { return path_; }

private:
  C separator_;
  std::basic_string<C> path_;
};

/// The text behind the last separator; the whole text when there is none.
inline std::string basename(const std::string& path, char separator) {
  const std::string::size_type at = path.rfind(separator);
  return at == std::string::npos ? path : path.substr(at + 1);
}

/// The text before the last separator; empty when there is none.
inline std::string dirname(const std::string& path, char separator) {
  const std::string::size_type at = path.rfind(separator);
  return at == std::string::npos ? std::string() : path.substr(0, at);
}

} // namespace scrt
