// base64.encode / base64.decode called from the host on a 16 MiB string and on
// a 1-million-element byte table, beside utils::Base64Encode/Decode (the codec
// the library calls, so the gap to it is the script boundary) and OpenSSL's
// EVP_EncodeBlock/EVP_DecodeBlock on the same bytes. The byte-table figures
// come with a plain Lua loop reading or filling a table of the same size, the
// bound that no native code can beat. Throughput counts the unencoded bytes.
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <lua.hpp>
#include <openssl/evp.h>

#include "lua/libs/libs.h"
#include "lua/runtime.h"
#include "utils/base64.h"

namespace {

constexpr size_t kStringBytes = 16u << 20;
constexpr size_t kTableBytes = 1000000;

std::string RandomBytes(size_t size) {
  std::mt19937_64 rng(1);
  std::string bytes(size, '\0');
  for (size_t i = 0; i + 8 <= size; i += 8) {
    const uint64_t word = rng();
    std::memcpy(&bytes[i], &word, 8);
  }
  return bytes;
}

// One runtime for all the benchmarks, with the inputs as globals:
// data/text for strings, bytes/btext for the byte table.
struct Fixture {
  boost::shared_ptr<lua::RunTime> rt;
  std::string plain = RandomBytes(kStringBytes);
  std::string text = utils::Base64Encode(plain);
  std::string small = plain.substr(0, kTableBytes);
  std::string smallText = utils::Base64Encode(small);

  Fixture() {
    lua::RegisterBase64Lib();
    rt = lua::RunTime::Create();
    lua_State* L = rt->State();
    SetGlobal(L, "data", plain);
    SetGlobal(L, "text", text);
    SetGlobal(L, "btext", smallText);
    rt->RunString("bytes = base64.decode(btext, true)", true);
  }
  static void SetGlobal(lua_State* L, const char* name, const std::string& value) {
    lua_pushlstring(L, value.data(), value.size());
    lua_setglobal(L, name);
  }
};

Fixture& Data() {
  static Fixture fixture;
  return fixture;
}

// Calls a one-line script function per iteration; the call itself costs
// nothing beside megabytes of work. Results are left to the collector, as in a
// real script. Each string call allocates two big blocks (the buffer and the
// interpreter's string) where the C++ peers allocate one, and glibc's default
// heap trimming hands the script fresh pages more often; running with
// MALLOC_TRIM_THRESHOLD_=1000000000 MALLOC_MMAP_THRESHOLD_=1000000000 takes
// the allocator out of the comparison.
void RunScript(benchmark::State& state, const char* body, size_t bytes) {
  lua_State* L = Data().rt->State();
  const std::string code = std::string("return function() ") + body + " end";
  if (luaL_dostring(L, code.c_str()) != LUA_OK) {
    state.SkipWithError(lua_tostring(L, -1));
    return;
  }
  const int function = lua_gettop(L);
  for (auto _ : state) {
    lua_pushvalue(L, function);
    if (lua_pcall(L, 0, 1, 0) != LUA_OK || lua_isnil(L, -1)) {
      state.SkipWithError(lua_isnil(L, -1) ? "nil result" : lua_tostring(L, -1));
      break;
    }
    lua_pop(L, 1);
  }
  lua_settop(L, function - 1);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void BM_ScriptEncodeString(benchmark::State& state) {
  RunScript(state, "return base64.encode(data)", kStringBytes);
}

void BM_ScriptDecodeString(benchmark::State& state) {
  RunScript(state, "return base64.decode(text)", kStringBytes);
}

void BM_UtilsEncodeString(benchmark::State& state) {
  const Fixture& d = Data();
  for (auto _ : state) benchmark::DoNotOptimize(utils::Base64Encode(d.plain));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStringBytes));
}

void BM_UtilsDecodeString(benchmark::State& state) {
  const Fixture& d = Data();
  std::string out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(utils::Base64Decode(d.text, &out));
    out = std::string();  // as the script's result, a fresh buffer each time
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStringBytes));
}

void OpenSslEncode(benchmark::State& state, const std::string& plain) {
  std::vector<unsigned char> out(utils::Base64EncodedSize(plain.size()) + 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(plain.data()),
                                             static_cast<int>(plain.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * plain.size()));
}

void OpenSslDecode(benchmark::State& state, const std::string& text, size_t plainSize) {
  std::vector<unsigned char> out(utils::Base64DecodedMaxSize(text.size()));
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                             static_cast<int>(text.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * plainSize));
}

void BM_OpenSslEncodeString(benchmark::State& state) { OpenSslEncode(state, Data().plain); }
void BM_OpenSslDecodeString(benchmark::State& state) { OpenSslDecode(state, Data().text, kStringBytes); }

void BM_ScriptEncodeByteTable(benchmark::State& state) {
  RunScript(state, "return base64.encode(bytes)", kTableBytes);
}

void BM_ScriptDecodeToByteTable(benchmark::State& state) {
  RunScript(state, "return base64.decode(btext, true)", kTableBytes);
}

void BM_LuaReadByteTable(benchmark::State& state) {
  RunScript(state, "local s, t = 0, bytes for i = 1, #t do s = s + t[i] end return s", kTableBytes);
}

void BM_LuaFillByteTable(benchmark::State& state) {
  RunScript(state, "local t = {} for i = 1, 1000000 do t[i] = i & 255 end return t", kTableBytes);
}

void BM_UtilsEncodeTableBytes(benchmark::State& state) {
  const Fixture& d = Data();
  for (auto _ : state) benchmark::DoNotOptimize(utils::Base64Encode(d.small));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTableBytes));
}

void BM_OpenSslEncodeTableBytes(benchmark::State& state) { OpenSslEncode(state, Data().small); }
void BM_OpenSslDecodeTableBytes(benchmark::State& state) {
  OpenSslDecode(state, Data().smallText, kTableBytes);
}

}  // namespace

BENCHMARK(BM_ScriptEncodeString)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UtilsEncodeString)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSslEncodeString)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScriptDecodeString)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UtilsDecodeString)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSslDecodeString)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScriptEncodeByteTable)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScriptDecodeToByteTable)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LuaReadByteTable)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LuaFillByteTable)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UtilsEncodeTableBytes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSslEncodeTableBytes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSslDecodeTableBytes)->Unit(benchmark::kMillisecond);
