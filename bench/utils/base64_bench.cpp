// Base64 over 64 MiB: ours (best path and the portable scalar path) beside
// OpenSSL's EVP_EncodeBlock/EVP_DecodeBlock, with memcpy of the same buffer as
// the ceiling.
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "utils/base64.h"
#include "utils/internal/base64_codec.h"

namespace {

using utils::impl::Base64Path;

constexpr size_t kBytes = 64u << 20;

struct Buffers {
  std::vector<uint8_t> plain;
  std::vector<char> text;
  std::vector<uint8_t> decoded;
  Buffers()
      : plain(kBytes), text(utils::Base64EncodedSize(kBytes) + 1),
        decoded(utils::Base64DecodedMaxSize(text.size())) {
    std::mt19937_64 rng(1);
    for (size_t i = 0; i < plain.size(); i += 8) {
      uint64_t word = rng();
      std::memcpy(&plain[i], &word, 8);
    }
    utils::Base64EncodeTo(plain.data(), plain.size(), text.data());
  }
  size_t TextSize() const { return text.size() - 1; }
};

Buffers& Data() {
  static Buffers buffers;
  return buffers;
}

void BM_Base64Encode(benchmark::State& state) {
  Buffers& b = Data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(utils::Base64EncodeTo(b.plain.data(), kBytes, b.text.data()));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

void BM_Base64EncodeScalar(benchmark::State& state) {
  Buffers& b = Data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        utils::impl::Base64EncodeWith(Base64Path::kScalar, b.plain.data(), kBytes, b.text.data()));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

void BM_OpenSslEncodeBlock(benchmark::State& state) {
  Buffers& b = Data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(b.text.data()),
                                             b.plain.data(), static_cast<int>(kBytes)));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

// Decoding figures count the decoded bytes, so they compare with the encoders'.
void BM_Base64Decode(benchmark::State& state) {
  Buffers& b = Data();
  size_t size = 0;
  for (auto _ : state) {
    bool ok = utils::Base64DecodeTo(b.text.data(), b.TextSize(), b.decoded.data(), &size);
    benchmark::DoNotOptimize(ok);
    benchmark::ClobberMemory();
  }
  if (size != kBytes || std::memcmp(b.decoded.data(), b.plain.data(), kBytes) != 0) {
    state.SkipWithError("decoded bytes differ");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

void BM_Base64DecodeScalar(benchmark::State& state) {
  Buffers& b = Data();
  size_t size = 0;
  for (auto _ : state) {
    bool ok = utils::impl::Base64DecodeStrictWith(Base64Path::kScalar, b.text.data(), b.TextSize(),
                                                  b.decoded.data(), &size);
    benchmark::DoNotOptimize(ok);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

void BM_OpenSslDecodeBlock(benchmark::State& state) {
  Buffers& b = Data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_DecodeBlock(b.decoded.data(),
                                             reinterpret_cast<const unsigned char*>(b.text.data()),
                                             static_cast<int>(b.TextSize())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

void BM_Memcpy64MiB(benchmark::State& state) {
  Buffers& b = Data();
  for (auto _ : state) {
    std::memcpy(b.decoded.data(), b.plain.data(), kBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

}  // namespace

BENCHMARK(BM_Base64Encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64EncodeScalar)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSslEncodeBlock)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64DecodeScalar)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSslDecodeBlock)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Memcpy64MiB)->Unit(benchmark::kMillisecond);
