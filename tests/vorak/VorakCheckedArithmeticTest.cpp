// Checked arithmetic of the kill action: 32-bit limits for every type, the -1
// overflow marker, right-to-left folding and the single-precision products.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "VorakCheckedArithmetic.h"

namespace {

using A = VorakCheckedArithmetic;
using u64 = uint64_t;
using i64 = int64_t;
constexpr u64 kU64Marker = std::numeric_limits<u64>::max();
constexpr int kIntMin = std::numeric_limits<int>::min();

// The result always takes the first argument's type.
static_assert(std::is_same_v<decltype(A::checkAndAdd(1, 2.0f, 3)), int>);
static_assert(std::is_same_v<decltype(A::checkOverflowAndMult(1.0f, 2)), float>);

template <typename T>
struct Case {
  const char* what;
  T a, b;
  T checked;   // checkAndX
  T overflow;  // checkOverflowAndX
};

// Each case as a sum (kAdd) or a product, in both flavours.
template <bool kAdd, typename T, size_t N>
void expectCases(const Case<T> (&cases)[N]) {
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(kAdd ? A::checkAndAdd(c.a, c.b) : A::checkAndMult(c.a, c.b), c.checked);
    EXPECT_EQ(kAdd ? A::checkOverflowAndAdd(c.a, c.b) : A::checkOverflowAndMult(c.a, c.b), c.overflow);
  }
}

TEST(VorakCheckedAdd, Pairs) {
  const Case<int> ints[] = {
      {"plain sum", 2, 3, 5, 5},
      {"reaches max exactly", 2147483000, 647, 2147483647, 2147483647},
      {"one past max", 2147483000, 648, -1, 0},
      {"reaches min exactly", -2147483000, -648, kIntMin, kIntMin},
      {"one past min", -2147483000, -649, -1, 0},
      {"zero first never overflows", 0, 2147483647, 2147483647, 2147483647},
      {"marker as second argument", 5, -1, -1, 0},
      {"marker after zero", 0, -1, -1, 0},
      {"first argument not tested for the marker", -1, 5, 4, 4},
      {"genuine -1 result", -3, 2, -1, 0},
  };
  expectCases<true>(ints);
  const Case<u64> u64s[] = {
      {"zero first is not checked", 0, 4000000000ULL, 4000000000ULL, 4000000000ULL},
      {"past the 32-bit limit", 1, 2147483647, kU64Marker, 0},
      {"up to the 32-bit limit", 1, 2147483646, 2147483647, 2147483647},
      // Headroom 2147483647 - a wraps for a first argument above the limit.
      {"first above limit wraps the headroom", 3000000000ULL, 5, 3000000005ULL, 3000000005ULL},
      {"wrapped headroom still bounds the second argument", 3000000000ULL, kU64Marker - 1, kU64Marker, 0},
      {"marker as second argument", 5, kU64Marker, kU64Marker, 0},
      {"marker as first argument passes through", kU64Marker, 0, kU64Marker, 0},
  };
  expectCases<true>(u64s);
  const Case<float> floats[] = {
      {"plain sum", 1.5f, 2.25f, 3.75f, 3.75f},
      {"past float max", 2e9f, 2e9f, -1.0f, 0.0f},
      {"float limit is 2^31, not 2^31-1", 2147483520.0f, 128.0f, 2147483648.0f, 2147483648.0f},
      {"past the limit from below one", 1.0f, 2147483904.0f, -1.0f, 0.0f},
      {"a positive first argument is never too low", 0.5f, -2147483904.0f, -2147483904.0f, -2147483904.0f},
      {"nor is zero", 0.0f, -3e9f, -3e9f, -3e9f},
      {"marker as second argument", 1.0f, -1.0f, -1.0f, 0.0f},
      {"genuine -1 result", 2.0f, -3.0f, -1.0f, 0.0f},
  };
  expectCases<true>(floats);
}

TEST(VorakCheckedAdd, MixedTypesAndLongerSums) {
  // float added to an int: summed in floating point, truncated toward zero.
  EXPECT_EQ(A::checkAndAdd(3, 2.9f), 5);
  EXPECT_EQ(A::checkAndAdd(-3, 0.5f), -2);
  EXPECT_EQ(A::checkAndAdd(2130706431, 16777216.0f), 2147483647) << "exactly the limit";
  EXPECT_EQ(A::checkAndAdd(1, NAN), 0);
  EXPECT_EQ(A::checkAndAdd(-5, u64{10}), 5);
  EXPECT_EQ(A::checkAndAdd(1, u64{2147483647}), -1);
  EXPECT_EQ(A::checkOverflowAndAdd(1, kU64Marker), 0);
  EXPECT_EQ(A::checkAndAdd(u64{10}, -3), u64{7});
  EXPECT_EQ(A::checkOverflowAndAdd(u64{10}, -1), u64{0});
  EXPECT_EQ(A::checkAndAdd(2147483647, u64{0}), 2147483647) << "an unsigned zero at the limit";
  EXPECT_EQ(A::checkAndAdd(u64{2147483000}, 648), kU64Marker);
  EXPECT_EQ(A::checkAndAdd(1.5f, i64{-1}), -1.0f);
  EXPECT_EQ(A::checkOverflowAndAdd(2147483000.0f, i64{1000}), 0.0f);
  EXPECT_EQ(A::checkAndAdd(kU64Marker), kU64Marker);

  // Left to right this would fit (-10 + 2147483647 + 5); the tail is summed first.
  EXPECT_EQ(A::checkAndAdd(-10, 2147483647, 5), -1);
  EXPECT_EQ(A::checkOverflowAndAdd(-10, 2147483647, 5), 0);
  EXPECT_EQ(A::checkAndAdd(-10, 2147483640, 5), 2147483635);
  // The float tail is summed before the int head truncates: 1 + (0.6 + 0.6).
  EXPECT_EQ(A::checkAndAdd(1, 0.6f, 0.6f), 2);
  EXPECT_EQ(A::checkAndAdd(1, 0.5f, 2), 3);
  // Inner int term truncates 1 + 0.5 to 1, then 0.25 + 0.25 + 1 + head 1.
  EXPECT_EQ(A::checkAndAdd(1, 0.25f, 0.25f, 1, 0.25f, 0.25f), 2);
  EXPECT_EQ(A::checkOverflowAndAdd(1, 0.25f, 0.25f, 1, 0.25f, 0.25f), 2);
  // The int in second place truncates its tail: 1 + (int)(2 + 0.75).
  EXPECT_EQ(A::checkAndAdd(1.0f, 2, 0.5f, 0.25f), 3.0f);
  EXPECT_EQ(A::checkAndAdd(1.0f, 0.5f, 2, 0.25f, 0.25f), 3.5f);
  EXPECT_EQ(A::checkAndAdd(1.0f, 2e9f, 2e9f), -1.0f);
  // A marker anywhere after the first argument.
  EXPECT_EQ(A::checkAndAdd(u64{1}, kU64Marker, u64{3}), kU64Marker);
  EXPECT_EQ(A::checkOverflowAndAdd(u64{1}, u64{2}, kU64Marker), u64{0});
  EXPECT_EQ(A::checkAndAdd(1.0f, 1.0f, 1, -1.0f, 1.0f), -1.0f);
  // Nine figures of 300 MB each exceed the 32-bit range together; seven do not.
  const u64 m = 300000000;
  EXPECT_EQ(A::checkAndAdd(u64{1}, u64{2}, u64{3}, u64{4}, u64{5}, u64{6}, u64{7}, u64{8}, u64{9}), u64{45});
  EXPECT_EQ(A::checkAndAdd(m, m, m, m, m, m, m, m, m), kU64Marker);
  EXPECT_EQ(A::checkOverflowAndAdd(m, m, m, m, m, m, m), u64{2100000000});
}

TEST(VorakCheckedAdd, IntFloatIntTriples) {
  // The float tail b + c is summed first, in float; the int head then takes
  // it in floating point and truncates toward zero.
  const struct {
    const char* what;
    int a;
    float b;
    int c, checked, overflow;
  } cases[] = {
      {"negative truncates toward zero", -3, -0.4f, -2, -5, -5},
      {"tail beyond the float limit", 1, 2e9f, 2000000000, -1, 0},
      {"head beyond the int limit", 2147483000, 1000.0f, 0, -1, 0},
      {"marker in the middle", 5, -1.0f, 3, -1, 0},
      {"marker at the end", 5, 1.0f, -1, -1, 0},
      {"first argument not tested for the marker", -1, 0.5f, 3, 2, 2},
      // -3 + 1.5 truncates to -1, which the consuming flavour reads as failure.
      {"genuine -1 result", -3, 0.5f, 1, -1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(A::checkAndAdd(c.a, c.b, c.c), c.checked);
    EXPECT_EQ(A::checkOverflowAndAdd(c.a, c.b, c.c), c.overflow);
  }
}

TEST(VorakCheckedMult, Products) {
  const Case<int> ints[] = {
      {"plain product", 6, 7, 42, 42},
      {"float-rounded product", 4097, 4097, 16785408, 16785408},
      {"largest square, rounded", 46340, 46340, 2147395584, 2147395584},
      {"square past max", 46341, 46341, -1, 0},
      {"positive by negative past min", 50000, -50000, -1, 0},
      {"negative by positive past min", -50000, 50000, -1, 0},
      {"both negative past max", -50000, -50000, -1, 0},
      {"reaches min exactly", 1, kIntMin, kIntMin, kIntMin},
      {"both negative just past max", -2, kIntMin / 2 - 1, -1, 0},
      {"max times one saturates back to max", 2147483647, 1, 2147483647, 2147483647},
      {"zero first", 0, -50000, 0, 0},
      {"marker as second argument", 5, -1, -1, 0},
      {"first argument not tested for the marker", -1, 5, -5, -5},
      {"genuine -1 result", -1, 1, -1, 0},
  };
  expectCases<false>(ints);
  const Case<float> floats[] = {
      {"plain product", 1.5f, 2.0f, 3.0f, 3.0f},
      {"just past float max", 46341.0f, 46341.0f, -1.0f, 0.0f},
      {"positive by negative past min", 65536.0f, -65536.0f, -1.0f, 0.0f},
      {"negative by positive past min", -65536.0f, 65536.0f, -1.0f, 0.0f},
      {"both negative past max", -65536.0f, -65536.0f, -1.0f, 0.0f},
      {"positive by negative reaches min exactly", 2.0f, -1073741824.0f, -2147483648.0f, -2147483648.0f},
      {"negative by positive reaches min exactly", -1073741824.0f, 2.0f, -2147483648.0f, -2147483648.0f},
      {"negative by a fraction past min", -5e9f, 0.5f, -1.0f, 0.0f},
      {"a fraction by negative past min", 0.5f, -5e9f, -1.0f, 0.0f},
      {"both negative reach the float limit exactly", -1.0f, -2147483648.0f, 2147483648.0f, 2147483648.0f},
      {"zero by negative", 0.0f, -2.0f, 0.0f, 0.0f},
      {"marker as second argument", 2.0f, -1.0f, -1.0f, 0.0f},
      {"genuine -1 result", -0.5f, 2.0f, -1.0f, 0.0f},
  };
  expectCases<false>(floats);
}

TEST(VorakCheckedMult, MixedTypesAndChains) {
  EXPECT_EQ(A::checkAndMult(2, u64{1} << 32), -1);
  EXPECT_EQ(A::checkAndMult(0, (u64{1} << 32) + 5), 0);
  // 2^31 passes the quadrant test against -1 and contributes its low 32 bits.
  EXPECT_EQ(A::checkAndMult(-1, u64{2147483648ULL}), kIntMin);
  EXPECT_EQ(A::checkAndMult(-2, u64{2147483648ULL}), -1);
  EXPECT_EQ(A::checkAndMult(7, kU64Marker), -1);
  EXPECT_EQ(A::checkOverflowAndMult(7, kU64Marker), 0);
  EXPECT_EQ(A::checkAndMult(65536.0f, 65536), -1.0f);
  EXPECT_EQ(A::checkOverflowAndMult(0.25f, -4), 0.0f);
  // A double factor is narrowed to float before the product: 1.00000003
  // becomes 1, whereas a double product would round up to 16777216.
  EXPECT_EQ(A::checkAndMult(16777215.0f, 1.00000003), 16777215.0f);
  EXPECT_EQ(A::checkOverflowAndMult(1e5f, 1e5), 0.0f);
  EXPECT_EQ(A::checkAndMult(-1.0f), -1.0f);
  EXPECT_EQ(A::checkAndMult(2, 3, 4), 24);
  EXPECT_EQ(A::checkAndMult(2, 50000, 50000), -1);
  EXPECT_EQ(A::checkAndMult(2, -1, 3), -1);
}

TEST(VorakCheckedDiff, LimitsAndSigns) {
  const struct {
    const char* what;
    float a, b, want;
  } cases[] = {
      {"plain difference", 3.0f, 1.0f, 2.0f},
      {"negative difference is kept", -5.0f, 3.0f, -8.0f},
      {"-1 is an ordinary operand", -1.0f, 5.0f, -6.0f},
      {"subtracting -1", 0.0f, -1.0f, 1.0f},
      {"above the upper limit", 1.0f, -2147483648.0f, 0.0f},
      {"at the upper limit", 0.0f, -2147483648.0f, 2147483648.0f},
      {"at the lower limit", 0.0f, 2147483648.0f, -2147483648.0f},
      {"below the lower limit", -2.1e9f, 1e8f, 0.0f},
      {"nothing subtracted is never out of range", -3e9f, 0.0f, -3e9f},
      {"near the upper limit but inside", 1e9f, -1e9f, 2e9f},
  };
  for (const auto& c : cases) EXPECT_EQ(A::checkAndDiff(c.a, c.b), c.want) << c.what;
}

}  // namespace
