// 64-bit integer parsing, ours beside strtoll/strtoull and std::from_chars on
// the same inputs: 4096 values of mixed lengths, formatted once.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "utils/string_to_int.h"

namespace {

constexpr size_t kValues = 4096;

struct Inputs {
  std::string bytes;  // every value NUL-terminated, for strtoll
  std::vector<std::pair<size_t, size_t>> ranges;

  const char* Begin(size_t i) const { return bytes.data() + ranges[i].first; }
  const char* End(size_t i) const { return bytes.data() + ranges[i].second; }
};

// Widths spread evenly over 1..64 bits, so lengths run from one digit to full.
Inputs MakeInputs(bool hex) {
  std::mt19937_64 random(hex ? 16 : 10);
  Inputs inputs;
  char text[32];
  for (size_t i = 0; i < kValues; ++i) {
    int bits = static_cast<int>(random() % 64) + 1;
    uint64_t value = bits == 64 ? random() : random() & ((uint64_t{1} << bits) - 1);
    int length;
    if (hex) {
      length = std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
    } else {
      long long signedValue = static_cast<long long>(value >> 1);
      if (random() & 1) signedValue = -signedValue;
      length = std::snprintf(text, sizeof text, "%lld", signedValue);
    }
    size_t start = inputs.bytes.size();
    inputs.bytes.append(text, static_cast<size_t>(length));
    inputs.ranges.emplace_back(start, inputs.bytes.size());
    inputs.bytes.push_back('\0');
  }
  return inputs;
}

const Inputs& Decimal() {
  static const Inputs inputs = MakeInputs(false);
  return inputs;
}

const Inputs& Hexadecimal() {
  static const Inputs inputs = MakeInputs(true);
  return inputs;
}

template <typename Parse>
void Run(benchmark::State& state, const Inputs& inputs, Parse parse) {
  for (auto _ : state) {
    uint64_t sum = 0;
    for (size_t i = 0; i < kValues; ++i) {
      sum += static_cast<uint64_t>(parse(inputs.Begin(i), inputs.End(i)));
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kValues));
}

void DecimalOurs(benchmark::State& state) {
  Run(state, Decimal(), [](const char* begin, const char* end) {
    long long value;
    utils::StringToInt(begin, end, &value, true, nullptr);
    return value;
  });
}

void DecimalStrtoll(benchmark::State& state) {
  Run(state, Decimal(), [](const char* begin, const char*) {
    return std::strtoll(begin, nullptr, 10);
  });
}

void DecimalFromChars(benchmark::State& state) {
  Run(state, Decimal(), [](const char* begin, const char* end) {
    long long value = 0;
    std::from_chars(begin, end, value, 10);
    return value;
  });
}

void HexOurs(benchmark::State& state) {
  Run(state, Hexadecimal(), [](const char* begin, const char* end) {
    unsigned long long value;
    utils::HexStringToInt(begin, end, &value, true, nullptr);
    return value;
  });
}

void HexStrtoull(benchmark::State& state) {
  Run(state, Hexadecimal(), [](const char* begin, const char*) {
    return std::strtoull(begin, nullptr, 16);
  });
}

void HexFromChars(benchmark::State& state) {
  Run(state, Hexadecimal(), [](const char* begin, const char* end) {
    unsigned long long value = 0;
    std::from_chars(begin, end, value, 16);
    return value;
  });
}

BENCHMARK(DecimalOurs);
BENCHMARK(DecimalStrtoll);
BENCHMARK(DecimalFromChars);
BENCHMARK(HexOurs);
BENCHMARK(HexStrtoull);
BENCHMARK(HexFromChars);

}  // namespace
