// The json library beside lua-cjson, both loaded into the same runtime and fed
// the same texts and values: decode and encode of a 20 MB API-like document
// and of a 2 KB one, and decode of a 9.4 MB array of short records whose
// strings carry \u escapes, in bytes of JSON text per second (each
// "/corvane" row sits above its "/cjson" row); below those, the same values
// made without any text, the floor of every decoder. Also the host conversions on the 20 MB
// document beside jsoncpp's own parse of it, and module-context use
// (lock, call, unlock) per second from one and two threads.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <json/reader.h>
#include <json/value.h>
#include <lua.hpp>

#include "lua/json.h"
#include "lua/libs/libs.h"
#include "lua/module_context.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace {

using lua::RunTime;

constexpr size_t kLargeBytes = 20u << 20;
constexpr size_t kSmallBytes = 2u << 10;
constexpr size_t kEscapedBytes = 9400000;

class Random {
 public:
  uint32_t Next() {
    state_ = state_ * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state_ >> 33);
  }
  uint32_t Below(uint32_t n) { return Next() % n; }

 private:
  uint64_t state_ = 42;
};

const char* const kWords[] = {"alpha", "beta", "gamma", "delta", "Zürich", "naïve", "東京", "omega", "data", "api"};

std::string Word(Random& random) {
  return kWords[random.Below(sizeof kWords / sizeof kWords[0])];
}

// One record of a typical REST answer: ids, names, flags, money, nested
// address and geo position, tags, a text with escapes, and null members.
void AppendRecord(std::string* out, Random& random, uint32_t id) {
  char number[64];
  *out += "{\"id\":" + std::to_string(id);
  *out += ",\"uuid\":\"";
  for (int i = 0; i < 4; ++i) {
    std::snprintf(number, sizeof number, "%08x", random.Next());
    *out += number;
  }
  *out += "\",\"name\":\"" + Word(random) + " " + Word(random) + "\"";
  *out += ",\"email\":\"user" + std::to_string(id) + "@example.com\"";
  *out += random.Below(2) ? ",\"active\":true" : ",\"active\":false";
  std::snprintf(number, sizeof number, ",\"score\":%.2f,\"balance\":%.2f", random.Below(10000) / 100.0,
                (static_cast<double>(random.Below(2000000)) - 1000000.0) / 100.0);
  *out += number;
  *out += ",\"tags\":[";
  const uint32_t tags = random.Below(5);
  for (uint32_t i = 0; i < tags; ++i) *out += (i ? ",\"" : "\"") + Word(random) + "\"";
  *out += "],\"created_at\":\"2024-01-02T03:04:05Z\",\"manager_id\":null";
  std::snprintf(number, sizeof number, "\"geo\":{\"lat\":%.6f,\"lng\":%.6f}", random.Below(180000000) / 1e6 - 90,
                random.Below(360000000) / 1e6 - 180);
  *out += ",\"address\":{\"street\":\"" + std::to_string(random.Below(999)) + " " + Word(random) +
          " Street\",\"city\":\"" + Word(random) + "\",\"zip\":\"" + std::to_string(10000 + random.Below(89999)) +
          "\"," + number + "}";
  *out += ",\"bio\":\"Line one\\nLine \\\"two\\\"\\twith a tab and a \\u00e9.\"";
  *out += ",\"history\":[" + std::to_string(random.Below(100)) + "," + std::to_string(random.Below(100)) + "," +
          std::to_string(random.Below(100)) + "]}";
}

std::string MakeDocument(size_t targetBytes) {
  Random random;
  std::string out = "{\"meta\":{\"page\":1,\"per_page\":100,\"next\":null},\"data\":[";
  for (uint32_t id = 1; out.size() < targetBytes; ++id) {
    if (id > 1) out += ',';
    AppendRecord(&out, random, id);
  }
  out += "]}";
  return out;
}

// One short record whose strings mostly carry \u escapes, as text written by
// an encoder that escapes everything beyond ASCII: short strings, integers and
// decimals, a flag, tags, and nested objects two levels deep.
void AppendEscapedRecord(std::string* out, Random& random, uint32_t id) {
  static const char* const kEscapedWords[] = {"caf\\u00e9", "\\u4e2d\\u6587", "na\\u00efve", "plain",
                                              "r\\u00e9sum\\u00e9", "\\u00e9t\\u00e9", "x\\u4e2dy", "ok"};
  const auto word = [&random] { return std::string(kEscapedWords[random.Below(8)]); };
  char number[96];
  std::snprintf(number, sizeof number, "{\"id\":%u,\"qty\":%u,\"price\":%.2f,", id, random.Below(1000),
                random.Below(100000) / 100.0);
  *out += number;
  *out += "\"name\":\"" + word() + " " + word() + "\",\"code\":\"" + word() + "\",";
  *out += random.Below(2) ? "\"ok\":true," : "\"ok\":false,";
  *out += "\"tags\":[\"" + word() + "\",\"" + word() + "\"],";
  std::snprintf(number, sizeof number, "\"dims\":{\"w\":%.1f,\"h\":%u,\"unit\":\"", random.Below(1000) / 10.0,
                random.Below(500));
  *out += number;
  *out += word() + "\"},\"owner\":{\"id\":" + std::to_string(random.Below(100000)) + ",\"name\":\"" + word() +
          "\",\"place\":{\"city\":\"" + word() + "\",\"zip\":\"" + std::to_string(10000 + random.Below(89999)) +
          "\"}}}";
}

std::string MakeEscapedDocument(size_t targetBytes) {
  Random random;
  std::string out = "[";
  for (uint32_t id = 1; out.size() < targetBytes; ++id) {
    if (id > 1) out += ',';
    AppendEscapedRecord(&out, random, id);
  }
  out += "]";
  return out;
}

const std::string& EscapedDocument() {
  static const std::string text = MakeEscapedDocument(kEscapedBytes);
  return text;
}

const std::string& LargeDocument() {
  static const std::string text = MakeDocument(kLargeBytes);
  return text;
}

const std::string& SmallDocument() {
  static const std::string text = MakeDocument(kSmallBytes);
  return text;
}

// A runtime with both libraries and the document's text in the global "text";
// with `decoded`, also its value (made by our decoder, fed to both encoders)
// in "value". Each benchmark has its own, so that no other document's values
// stay alive to slow the collector down.
class Fixture {
 public:
  Fixture(const std::string& text, bool decoded) : rt_(RunTime::Create()) {
    lua_State* L = rt_->State();
    lua_pushlstring(L, text.data(), text.size());
    lua_setglobal(L, "text");
    if (luaL_dostring(L, "package.cpath = '/usr/lib/x86_64-linux-gnu/lua/5.3/?.so;' .. package.cpath "
                         "cjson = require 'cjson'") != LUA_OK) {
      error_ = lua_tostring(L, -1);
    } else if (decoded && luaL_dostring(L, "value = json.decode(text)") != LUA_OK) {
      error_ = lua_tostring(L, -1);
    }
    lua_settop(L, 0);
  }

  lua_State* L() const { return rt_->State(); }
  const boost::shared_ptr<RunTime>& Runtime() const { return rt_; }
  const std::string& Error() const { return error_; }

 private:
  boost::shared_ptr<RunTime> rt_;
  std::string error_;
};

// Calls lib.function(global) in a loop; bytes are those of the JSON text.
void CallLoop(benchmark::State& state, const char* lib, const char* function, const std::string& text,
              bool encode) {
  lua::RegisterJsonLib();
  Fixture fixture(text, encode);
  if (!fixture.Error().empty()) {
    state.SkipWithError(fixture.Error().c_str());
    return;
  }
  lua_State* L = fixture.L();
  lua_getglobal(L, lib);
  lua_getfield(L, -1, function);
  const int func = lua_gettop(L);
  lua_getglobal(L, encode ? "value" : "text");
  const int arg = lua_gettop(L);
  for (auto _ : state) {
    lua_pushvalue(L, func);
    lua_pushvalue(L, arg);
    if (lua_pcall(L, 1, 1, 0) != LUA_OK) {
      state.SkipWithError(lua_tostring(L, -1));
      break;
    }
    lua_pop(L, 1);
  }
  lua_settop(L, 0);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}

void BM_Decode20MB(benchmark::State& state, const char* lib) {
  CallLoop(state, lib, "decode", LargeDocument(), false);
}
void BM_Decode2KB(benchmark::State& state, const char* lib) {
  CallLoop(state, lib, "decode", SmallDocument(), false);
}
void BM_DecodeEscaped9MB(benchmark::State& state, const char* lib) {
  CallLoop(state, lib, "decode", EscapedDocument(), false);
}
// Makes a copy of the value at `index` as a decoder must make its values:
// tables at their final sizes, strings through lua_pushlstring.
void CopyValue(lua_State* L, int index) {
  if (lua_type(L, index) == LUA_TSTRING) {
    size_t size = 0;
    const char* text = lua_tolstring(L, index, &size);
    lua_pushlstring(L, text, size);
    return;
  }
  if (lua_type(L, index) != LUA_TTABLE) {
    lua_pushvalue(L, index);
    return;
  }
  luaL_checkstack(L, 8, "copy");
  int elements = 0;
  int members = 0;
  lua_pushnil(L);
  while (lua_next(L, index) != 0) {
    lua_pop(L, 1);
    ++(lua_isinteger(L, -1) ? elements : members);
  }
  lua_createtable(L, elements, members);
  const int copy = lua_gettop(L);
  lua_pushnil(L);
  while (lua_next(L, index) != 0) {  // [key, value]
    const int value = lua_gettop(L);
    CopyValue(L, value - 1);
    CopyValue(L, value);
    lua_rawset(L, copy);
    lua_pop(L, 1);
  }
}

// Not a decoder: the values of the 9.4 MB document made from a decoded copy
// of them, with no text to read. Any decoder's figure includes this work;
// no parser can go below it.
void BM_DecodeEscaped9MBValuesOnly(benchmark::State& state) {
  lua::RegisterJsonLib();
  Fixture fixture(EscapedDocument(), true);
  if (!fixture.Error().empty()) {
    state.SkipWithError(fixture.Error().c_str());
    return;
  }
  lua_State* L = fixture.L();
  lua_getglobal(L, "value");
  const int source = lua_gettop(L);
  for (auto _ : state) {
    CopyValue(L, source);
    lua_pop(L, 1);
  }
  lua_settop(L, 0);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(EscapedDocument().size()));
}

void BM_Encode20MB(benchmark::State& state, const char* lib) {
  CallLoop(state, lib, "encode", LargeDocument(), true);
}
void BM_Encode2KB(benchmark::State& state, const char* lib) {
  CallLoop(state, lib, "encode", SmallDocument(), true);
}

BENCHMARK_CAPTURE(BM_Decode20MB, corvane, "json")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode20MB, cjson, "cjson")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode20MB, corvane, "json")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode20MB, cjson, "cjson")->Unit(benchmark::kMillisecond);
// Two seconds each: a decode is about 100 ms, and where the collector's
// cycles fall among a handful of them moves the figure by a fifth.
BENCHMARK_CAPTURE(BM_DecodeEscaped9MB, corvane, "json")->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK_CAPTURE(BM_DecodeEscaped9MB, cjson, "cjson")->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_DecodeEscaped9MBValuesOnly)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK_CAPTURE(BM_Decode2KB, corvane, "json");
BENCHMARK_CAPTURE(BM_Decode2KB, cjson, "cjson");
BENCHMARK_CAPTURE(BM_Encode2KB, corvane, "json");
BENCHMARK_CAPTURE(BM_Encode2KB, cjson, "cjson");

// Host side on the 20 MB document: jsoncpp's parse is the reference for what
// a Json::Value costs to build at all.
void BM_HostJsoncppParse20MB(benchmark::State& state) {
  const std::string& text = LargeDocument();
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  for (auto _ : state) {
    Json::Value value;
    std::string error;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &error)) {
      state.SkipWithError(error.c_str());
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}

void BM_HostCreateAtStack20MB(benchmark::State& state) {
  const std::string& text = LargeDocument();
  Json::Value value;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  lua::RegisterJsonLib();
  const boost::shared_ptr<RunTime> rt = RunTime::Create();
  for (auto _ : state) {
    RunTime::StackCleaner cleaner(rt);
    rt->CreateAtStack(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}

void BM_HostAsJsonValue20MB(benchmark::State& state) {
  lua::RegisterJsonLib();
  Fixture fixture(LargeDocument(), true);
  const boost::shared_ptr<RunTime>& rt = fixture.Runtime();
  RunTime::StackCleaner cleaner(rt);
  const boost::shared_ptr<lua::ObjectRef> table = rt->GetGlobalObject("value");
  for (auto _ : state) benchmark::DoNotOptimize(table->AsJsonValue());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(LargeDocument().size()));
}

BENCHMARK(BM_HostJsoncppParse20MB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HostCreateAtStack20MB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HostAsJsonValue20MB)->Unit(benchmark::kMillisecond);

// The module's file, removed when the program ends.
struct ModuleFile {
  ModuleFile() : path("/tmp/corvane_json_bench_" + std::to_string(::getpid()) + ".lua") {
    std::ofstream(path) << "function add(a, b) return a + b end\n";
  }
  ~ModuleFile() { std::remove(path.c_str()); }
  std::string path;
};

// A module that every thread calls through its own Lock; reloading on change
// is on, so each Lock also checks the file.
std::shared_ptr<lua::LuaModuleContext> SharedModule() {
  static const ModuleFile file;
  static const std::shared_ptr<lua::LuaModuleContext> context = [] {
    std::shared_ptr<lua::LuaModuleContext> created = lua::LuaModuleContext::Create(file.path, true);
    std::string error;
    if (!created->Load(&error)) std::fprintf(stderr, "%s\n", error.c_str());
    return created;
  }();
  return context;
}

void BM_ModuleContextLockCallUnlock(benchmark::State& state) {
  const std::shared_ptr<lua::LuaModuleContext> context = SharedModule();
  long long sum = 0;
  for (auto _ : state) {
    lua::LuaModuleContext::Lock lock(context);
    const boost::shared_ptr<RunTime> rt = lock.GetRuntime();
    sum += rt->RunFunc("add", {rt->CreateAtStack(1), rt->CreateAtStack(2)}).front()->AsInteger();
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// Wall time: with two threads the figure is the calls both together manage.
BENCHMARK(BM_ModuleContextLockCallUnlock)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
