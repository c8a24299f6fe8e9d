#include "utils/string_to_int.h"

#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Parses an exactly sized heap copy, so ASan flags any read past `end`, and
// checks result, value and stop offset.
template <typename T>
void Expect(const std::string& text, unsigned radix, bool strict, bool ok, T value, size_t stop) {
  SCOPED_TRACE(testing::Message() << '"' << text << "\" radix " << radix << " strict " << strict);
  const std::vector<char> buffer(text.begin(), text.end());
  const char* begin = buffer.data();
  T out = 42;
  const char* at = nullptr;
  bool result = radix == 10 ? utils::StringToInt(begin, begin + text.size(), &out, strict, &at)
                            : utils::HexStringToInt(begin, begin + text.size(), &out, strict, &at);
  EXPECT_EQ(result, ok);
  EXPECT_EQ(out, value);
  EXPECT_EQ(at, begin + stop);
}

std::string Format(__int128 value, unsigned radix) {
  bool negative = value < 0;
  std::string digits;
  do {
    digits.insert(digits.begin(), "0123456789abcdef"[negative ? -(value % radix) : value % radix]);
    value /= radix;
  } while (value != 0);
  return negative ? "-" + digits : digits;
}

template <typename T>
class IntegerLimits : public ::testing::Test {};
using AllTypes = ::testing::Types<signed char, unsigned char, short, unsigned short, int, unsigned int, long,
                                  unsigned long, long long, unsigned long long>;
TYPED_TEST_SUITE(IntegerLimits, AllTypes);

TYPED_TEST(IntegerLimits, BoundsParseAndOneBeyondSaturatesAtTheOverflowingDigit) {
  using T = TypeParam;
  const T max = std::numeric_limits<T>::max();
  const T min = std::numeric_limits<T>::min();
  for (unsigned radix : {10u, 16u}) {
    for (bool strict : {false, true}) {
      std::string text = Format(max, radix);
      Expect<T>(text, radix, strict, true, max, text.size());
      text = Format(__int128{max} + 1, radix);
      Expect<T>(text, radix, strict, false, max, text.size() - 1);
      text = Format(max, radix) + "00";
      Expect<T>(text, radix, strict, false, max, text.size() - 2);
      // Leading zeros beyond the type's digit count are no overflow.
      Expect<T>(std::string(40, '0') + "7", radix, strict, true, 7, 41);
      if (std::numeric_limits<T>::is_signed) {
        text = Format(min, radix);
        Expect<T>(text, radix, strict, true, min, text.size());
        text = Format(__int128{min} - 1, radix);
        Expect<T>(text, radix, strict, false, min, text.size() - 1);
      } else if (radix == 10) {
        Expect<T>("-000", radix, strict, true, 0, 4);
        Expect<T>("-001", radix, strict, false, 0, 3);
      } else {
        Expect<T>("-0", radix, strict, false, 0, 0);
      }
    }
  }
}

TEST(StringToInt, SignsWhiteSpaceStrictnessStopPositionsAndTerminators) {
  Expect<int>("  42", 10, false, true, 42, 4);
  Expect<int>("  42", 10, true, false, 0, 0);
  Expect<int>(" \t\n\v\f\r+7", 10, false, true, 7, 8);
  Expect<int>("", 10, false, false, 0, 0);
  Expect<int>("   ", 10, false, false, 0, 3);
  Expect<int>("-", 10, false, false, 0, 1);
  Expect<int>("- 5", 10, false, false, 0, 1);
  Expect<int>("12abc", 10, false, true, 12, 2);
  Expect<int>("12abc", 10, true, false, 12, 2);
  Expect<int>("12 ", 10, true, false, 12, 2);
  Expect<int>("1234567:89", 10, false, true, 1234567, 7);
  Expect<int>("-123456789", 10, true, true, -123456789, 10);
  Expect<long long>("12345678", 10, true, true, 12345678, 8);
  Expect<int>("0x1F", 16, false, true, 0, 1);
  Expect<int>("FfAa09", 16, true, true, 0xFFAA09, 6);
  Expect<int>("g", 16, false, false, 0, 0);
  Expect<unsigned>("+5", 10, true, true, 5, 2);
  Expect<unsigned>("+1", 16, false, false, 0, 0);
  // Without `end`, the text ends at its terminator.
  const char text[] = "12345";
  long long value = 0;
  const char* stop = nullptr;
  EXPECT_TRUE(utils::HexStringToInt(text, nullptr, &value, true, &stop));
  EXPECT_EQ(value, 0x12345);
  EXPECT_EQ(stop, text + 5);
  EXPECT_TRUE(utils::StringToInt(text, nullptr, static_cast<int*>(nullptr), true, nullptr));
}

}  // namespace
