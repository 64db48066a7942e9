#pragma once

#include <algorithm>
#include <concepts>
#include <utility>
#include <vector>

namespace lumen {

/// Orders vectors of integers, and pairs that hold one, element by element: for the keys of ordered
/// containers. The vectors' own order is wrong on big-endian machines with libstdc++ before 12.4
/// and 13.3: it compares as many bytes as there are elements, and so takes [20, 1] for [20, 0] (GCC
/// bug 113960).
struct ElementOrder {
  template <std::integral T>
  bool operator()(T a, T b) const {
    return a < b;
  }
  template <std::integral T>
  bool operator()(const std::vector<T>& a, const std::vector<T>& b) const {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
  }
  template <typename First, typename Second>
  bool operator()(const std::pair<First, Second>& a, const std::pair<First, Second>& b) const {
    if ((*this)(a.first, b.first)) return true;
    if ((*this)(b.first, a.first)) return false;
    return (*this)(a.second, b.second);
  }
};

}  // namespace lumen
