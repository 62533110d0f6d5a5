// Overflow-checked sums, products and differences for the kill action's
// memory figures (KB, pages, model terms) of mixed types.
//
// Every figure the action handles is meant to fit a signed 32-bit value, so
// every check uses those limits whatever the argument types, 64-bit ones
// included. An overflow yields -1 (all bits set for unsigned types) so that it
// can travel through further checked operations: any argument after the first
// that equals -1 is taken as an earlier overflow. The checkOverflow* flavours
// turn that marker into 0 for the place where a figure is finally consumed.
//
// The result always has the type of the first argument; sums and products of
// more than two arguments are formed from the last argument towards the first.
#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>

class VorakCheckedArithmetic {
 public:
  template <typename T, typename... Rest>
  static T checkAndAdd(T a, Rest... rest) {
    if constexpr (sizeof...(Rest) == 0) {
      return a;
    } else {
      return fold<true>(a, rest...);
    }
  }

  template <typename T, typename... Rest>
  static T checkAndMult(T a, Rest... rest) {
    if constexpr (sizeof...(Rest) == 0) {
      return a;
    } else {
      return fold<false>(a, rest...);
    }
  }

  template <typename T, typename... Rest>
  static T checkOverflowAndAdd(T a, Rest... rest) {
    return markerToZero(checkAndAdd(a, rest...));
  }

  template <typename T, typename... Rest>
  static T checkOverflowAndMult(T a, Rest... rest) {
    return markerToZero(checkAndMult(a, rest...));
  }

  // a - b, or 0 when the difference would leave the 32-bit range. A -1
  // operand is an ordinary value here: differences may well be negative.
  static float checkAndDiff(float a, float b) {
    if (b < 0 && a > b + kFloatMax) return 0;
    if (b > 0 && a < b - kFloatMax) return 0;
    return a - b;
  }

 private:
  static constexpr int64_t kIntMax = 2147483647;
  static constexpr int64_t kIntMin = -2147483648LL;
  static constexpr float kFloatMax = 2147483648.0f;
  static constexpr float kFloatMin = -2147483648.0f;

  template <typename T>
  static constexpr T marker() {
    return static_cast<T>(-1);
  }
  template <typename T>
  static constexpr bool isMarker(T v) {
    return v == static_cast<T>(-1);
  }
  template <typename T>
  static constexpr T markerToZero(T v) {
    return isMarker(v) ? T(0) : v;
  }

  // Sign tests that stay quiet for unsigned types.
  template <typename X>
  static constexpr bool negative(X x) {
    if constexpr (std::is_unsigned_v<X>) {
      return false;
    } else {
      return x < 0;
    }
  }
  template <typename X>
  static constexpr bool positive(X x) {
    return x > X(0);
  }

  // x < y on the mathematical values of two integers of any signedness.
  template <typename X, typename Y>
  static constexpr bool intLess(X x, Y y) {
    if constexpr (std::is_signed_v<X> == std::is_signed_v<Y>) {
      return x < y;
    } else if constexpr (std::is_signed_v<X>) {
      return x < 0 || static_cast<std::make_unsigned_t<X>>(x) < y;
    } else {
      return !negative(y) && x < static_cast<std::make_unsigned_t<Y>>(y);
    }
  }

  // x < y for any two arithmetic values: exact for integers, in double as
  // soon as a floating-point value takes part.
  template <typename X, typename Y>
  static constexpr bool less(X x, Y y) {
    if constexpr (std::is_integral_v<X> && std::is_integral_v<Y>) {
      return intLess(x, y);
    } else {
      return static_cast<double>(x) < static_cast<double>(y);
    }
  }

  // Truncation toward zero into T. Out-of-range values saturate and NaN gives
  // 0, as the target's conversion instruction does, instead of being
  // undefined.
  template <typename T, typename F>
  static T truncateTo(F v) {
    if constexpr (std::is_floating_point_v<T>) {
      return static_cast<T>(v);
    } else {
      if (v != v) return 0;
      if (v <= static_cast<F>(std::numeric_limits<T>::min())) return std::numeric_limits<T>::min();
      if (v >= static_cast<F>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
      return static_cast<T>(v);
    }
  }

  template <bool kAdd, typename T, typename B, typename... Rest>
  static T fold(T a, B b, Rest... rest) {
    if constexpr (sizeof...(Rest) == 0) {
      if constexpr (kAdd) {
        return addPair(a, b);
      } else {
        return multPair(a, b);
      }
    } else {
      // b heads the tail, whose own fold does not test its first argument.
      if (isMarker(b)) return marker<T>();
      const B tail = fold<kAdd>(b, rest...);
      if (isMarker(tail)) return marker<T>();
      if constexpr (kAdd) {
        return addPair(a, tail);
      } else {
        return multPair(a, tail);
      }
    }
  }

  template <typename T, typename B>
  static T addPair(T a, B b) {
    if (isMarker(b)) return marker<T>();
    if constexpr (std::is_floating_point_v<T>) {
      const T bt = static_cast<T>(b);
      if (a > 0 && bt > static_cast<T>(kFloatMax) - a) return marker<T>();
      if (a < 0 && bt < static_cast<T>(kFloatMin) - a) return marker<T>();
      return a + bt;
    } else {
      if constexpr (std::is_signed_v<T>) {
        if (positive(a) && less(kIntMax - static_cast<int64_t>(a), b)) return marker<T>();
        if (negative(a) && less(b, kIntMin - static_cast<int64_t>(a))) return marker<T>();
      } else {
        // The headroom is taken in unsigned 64-bit arithmetic: for a first
        // argument above the limit it wraps to a huge value and the sum is
        // let through. Kept as it is; the figures never get there.
        const uint64_t room = static_cast<uint64_t>(kIntMax) - static_cast<uint64_t>(a);
        if (a != 0 && less(room, b)) return marker<T>();
      }
      if constexpr (std::is_floating_point_v<B>) {
        return truncateTo<T>(a + b);
      } else {
        // Modular sum: defined for every pairing of signedness and width.
        return static_cast<T>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
      }
    }
  }

  template <typename T, typename B>
  static T multPair(T a, B b) {
    if (isMarker(b)) return marker<T>();
    if constexpr (std::is_floating_point_v<T> || std::is_floating_point_v<B>) {
      // Limits and product in single precision.
      const float af = static_cast<float>(a);
      const float bf = static_cast<float>(b);
      const float hi = std::is_floating_point_v<T> ? kFloatMax : static_cast<float>(kIntMax);
      const float lo = kFloatMin;
      if (af > 0 && bf > 0 && hi / bf < af) return marker<T>();
      if (af > 0 && bf < 0 && lo / af > bf) return marker<T>();
      if (af < 0 && bf > 0 && lo / bf > af) return marker<T>();
      if (af < 0 && bf < 0 && hi / af > bf) return marker<T>();
      return truncateTo<T>(af * bf);
    } else {
      // Quadrant tests by truncating division on the exact values, never by
      // multiplying first.
      constexpr uint64_t kMinMagnitude = 2147483648ULL;
      if (positive(a) && positive(b)) {
        if (intLess(static_cast<uint64_t>(kIntMax) / static_cast<uint64_t>(b), a)) return marker<T>();
      } else if (positive(a) && negative(b)) {
        const int64_t q = intLess(kMinMagnitude, a) ? 0 : kIntMin / static_cast<int64_t>(a);
        if (intLess(b, q)) return marker<T>();
      } else if (negative(a) && positive(b)) {
        const int64_t q = intLess(kMinMagnitude, b) ? 0 : kIntMin / static_cast<int64_t>(b);
        if (intLess(a, q)) return marker<T>();
      } else if (negative(a) && negative(b)) {
        if (intLess(b, kIntMax / static_cast<int64_t>(a))) return marker<T>();
      }
      // The product is formed in single precision: beyond 2^24 its low digits
      // are lost, which the figures tolerate. A 64-bit unsigned factor is
      // below 2^32 here (larger ones failed the tests above unless a is 0),
      // so it is its own low 32 bits.
      return truncateTo<T>(static_cast<float>(a) * static_cast<float>(b));
    }
  }
};
