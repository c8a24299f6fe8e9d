// The json script library beyond the examples of docs/json.md, which run too.
#include <pthread.h>
#include <unistd.h>  // truncate

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "lua/json.h"
#include "lua/libs/libs.h"
#include "lua/script_test_util.h"
#include "utils/files.h"
#include "utils/json_storage.h"

namespace {

using lua::RunTime;
using Cases = std::vector<std::pair<std::string, std::string>>;

class JsonLib : public lua_test::ScriptTest {
 protected:
  static void SetUpTestSuite() { lua::RegisterJsonLib(); }
  void SetUp() override {
    // same(a, b): deep equality that tells 2 from 2.0.
    Run("function same(a, b) "
        "  if type(a) ~= 'table' or type(b) ~= 'table' then return a == b and math.type(a) == math.type(b) end "
        "  for k, v in pairs(a) do if not same(v, b[k]) then return false end end "
        "  for k in pairs(b) do if a[k] == nil then return false end end "
        "  return true end");
  }

 public:
  // The results of `code` joined by " | ", with `arg` in the global ARG.
  std::string Run(const std::string& code, const std::string& arg = std::string()) {
    lua_pushlstring(rt_->State(), arg.data(), arg.size());
    lua_setglobal(rt_->State(), "ARG");
    return Eval(code);
  }
  void ExpectAll(const Cases& cases, const std::string& arg = std::string()) {
    for (const auto& [code, result] : cases) EXPECT_EQ(Run(code, arg), result) << code;
  }
  std::string DecodeError(const std::string& text) {
    const std::string result = Run("return json.decode(ARG)", text);
    return lua_test::StartsWith(result, "nil | ") ? result.substr(6) : "<decoded>";
  }
};

TEST_F(JsonLib, CorpusValidTextsDecodeAndInvalidOnesReportWhere) {
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(CORVANE_SOURCE_DIR "/tests/libs/json_corpus")) {
    ++files;
    const std::string name = entry.path().filename().string();
    std::string text;
    ASSERT_TRUE(utils::ReadFile(entry.path().string(), &text));
    if (name[0] == 'y') {
      // What it writes decodes to the same thing again (1e400 included).
      EXPECT_EQ(Run("local v, err = json.decode(ARG) if v == nil then return 'failed: ' .. err end "
                    "local ok, text = pcall(json.encode, v) if not ok then return text end "
                    "return same(v, json.decode(text)) and 'stable' or 'unstable: ' .. text",
                    text),
                "stable")
          << name;
    } else {
      const std::string error = DecodeError(text);
      const size_t at = error.rfind(" at byte offset ");
      ASSERT_NE(at, std::string::npos) << name << ": " << error;
      EXPECT_LE(std::stoul(error.substr(at + 16)), text.size()) << name;
    }
  }
  EXPECT_GT(files, 75);
}

// Each text decoded and written again, or the error naming cause and offset.
TEST_F(JsonLib, DecodingKeepsKindsAndValuesOrNamesTheCauseAndTheOffset) {
  const Cases cases = {
      {"", "unexpected end of text at byte offset 0"},
      {"{\"a\" 1}", "unexpected character '1' where ':' should follow a member name at byte offset 5"},
      {"[1][2]", "unexpected character '[' after the value at byte offset 3"},
      {"[\"a\tb\"]", "control character in a string (it must be escaped) at byte offset 3"},
      {"[\"\\ud800\"]", "lone surrogate in \\u escape at byte offset 2"},
      {"[\"\xC3\"]", "invalid UTF-8 at byte offset 2"},
      {"{\"a\":[1}", "unexpected character '}' where ',' or ']' should follow an element at byte offset 7"},
      {"[1.]", "invalid number at byte offset 1"},
      {"[\"abc", "unterminated string at byte offset 1"},
      {"\xEF\xBB\xBF[]", "unexpected byte 0xEF at byte offset 0"},
      {std::string(1001, '[') + std::string(1001, ']'), "nesting deeper than 1000 levels at byte offset 1000"},
      {"[{},[],{\"a\":[]}]", "[{},[],{\"a\":[]}]"},
      {"{\"a\":null}", "{}"},
      {"[9223372036854775807,-9223372036854775808]", "[9223372036854775807,-9223372036854775808]"},
      {"[9223372036854775808]", "[9223372036854775808.0]"},  // beyond the integers: a float, as in Lua
      {"[2.0,2,-0.0,0.1,1e-7,5e-324,1.7976931348623157e308]", "[2.0,2,-0.0,0.1,1e-07,5e-324,1.7976931348623157e+308]"},
      {"\"\\u00e9\\ud83d\\ude00 \\u0000\\u001f\\\"\\\\/\"", "\"\xC3\xA9\xF0\x9F\x98\x80 \\u0000\\u001f\\\"\\\\/\""},
      {"\"\\b\\f\\n\\r\\t\x7f\"", "\"\\b\\f\\n\\r\\t\x7f\""},
      {"{\"a\":1,\"a\":2}", "{\"a\":2}"},
  };
  const char* const decodeThenWrite =
      "local v, e = json.decode(ARG) if v == nil then return e end return json.encode(v)";
  for (const auto& [text, result] : cases) EXPECT_EQ(Run(decodeThenWrite, text), result) << text;

  // Every cut of a valid text fails cleanly (and the whole one decodes).
  const std::string text = "{\"a\":[1,2.5,\"x\\u00e9\",{\"b\":null}],\"c\":true}";
  for (size_t n = 0; n < text.size(); ++n) EXPECT_NE(DecodeError(text.substr(0, n)), "<decoded>") << n;
  EXPECT_EQ(DecodeError(text), "<decoded>");
}

// Long containers are stored in parts; positions must survive that.
TEST_F(JsonLib, LongContainersKeepEveryPosition) {
  EXPECT_EQ(Run("local t = {} for i = 1, 10000 do t[i] = (i % 3 == 0) and json.null or i end "
                "local d = json.decode(json.encode(t)) "
                "local ok = #json.encode(d) == #json.encode(t) and d[9998] == 9998 and d[9999] == nil "
                "local o = {} for i = 1, 10000 do o['k' .. i] = i end "
                "return ok and same(o, json.decode(json.encode(o)))"),
            "true");
}

// Random tables are written without losing a key, or refused saying why; many,
// as the hash-part key order changes with the string hash seed.
TEST_F(JsonLib, RandomMixedTablesKeepEveryKey) {
  EXPECT_EQ(Run("local keys = {1, 2, 3, 4, 7, 40, 1000000000, 0, -1, 1.5, 'x', 'y', ''} "
                "local values = {0, -7, 2.5, 'v', true, json.null} "
                "local function random(depth) "
                "  local t = {} "
                "  for i = 1, math.random(0, 6) do "
                "    t[keys[math.random(#keys)]] = depth < 3 and math.random(4) == 1 and random(depth + 1) "
                "                                  or values[math.random(#values)] end "
                "  local kind = math.random(4) "
                "  return kind == 1 and json.array(t) or kind == 2 and json.object(t) or t end "
                // Keys by their text, without the nulls that a decode leaves out.
                "local function plain(v) "
                "  if type(v) ~= 'table' then return v end "
                "  local keyed = {} "
                "  for k, x in pairs(v) do if x ~= json.null then keyed[tostring(k)] = plain(x) end end "
                "  return keyed end "
                "math.randomseed(12) "
                "local cases = {{[1] = 1, x = 2}, {[1] = 1, [1000000000] = 2}} "
                "for i = 1, 5000 do cases[#cases + 1] = random(0) end "
                "for _, t in ipairs(cases) do "
                "  local ok, text = pcall(json.encode, t) "
                "  if ok and not same(plain(t), plain(json.decode(text))) then return 'lost a key: ' .. text end "
                "  if not ok and not (text:find('has the key') or text:find('too sparse')) then return text end "
                "end "
                "return 'kept'"),
            "kept");
}

TEST_F(JsonLib, ScriptTablesAreWrittenByTheirAnnotationOrTheirKeys) {
  ExpectAll({
      {"return json.encode({[40] = 1}), json.encode({[3] = 1, [1] = 1})", "{\"40\":1} | [1,null,1]"},
      {"return json.encode({json.null, false}), #json.encode(json.array({[100] = 1}))", "[null,false] | 498"},
      {"return select(2, pcall(json.save, 'unused', json.array({[0] = 1})))",
       "json.save: a table annotated as an array has the key '0'"},
      // A member name that two keys would write (a number key and a string
      // key, or two floats alike to 14 digits) is refused, not written twice.
      {"return select(2, pcall(json.encode, {[1] = 'a', ['1'] = 'b'})), "
       "select(2, pcall(json.encode, {x = {[0.1] = 1, [0.10000000000000002] = 2}})), "
       "json.decode(json.encode({[1.5] = 1, ['1.25'] = 2}))['1.5']",
       "json.encode: two keys of a table are written as the member name '1' | "
       "json.encode: two keys of a table are written as the member name '0.1' | 1"},
      {"return select(2, pcall(json.encode, json.array({[1 << 22] = 1})))",
       "json.encode: array too sparse (index 4194304 with 1 elements)"},
      {"return select(2, pcall(json.decode)), select(2, pcall(json.decode, 5))",
       "Bad arguments, expected: (text) | Bad argument: text must be a string"},
      {"return select(2, pcall(json.encode)), select(2, pcall(json.array, 5))",
       "Bad arguments, expected: (value[, {pretty = bool}]) | Bad argument: expected a table"},
      {"return select(2, pcall(json.encode, {}, {prety = true}))", "Bad argument: unknown option 'prety'"},
      {"return select(2, pcall(json.encode, {}, {pretty = 1}))", "Bad argument: pretty must be a boolean"},
      // Deep but legal nesting is fine; one level more is refused.
      {"local t = {} for i = 1, 999 do t = {t} end return #json.encode(t)", "2000"},
      {"local t = {} for i = 1, 1000 do t = {t} end return select(2, pcall(json.encode, t))",
       "json.encode: tables nested deeper than 1000 levels"},
  });
}

// Decoded tables are recorded in the metadata when it is read; every reader sees them.
TEST_F(JsonLib, DecodedTablesAreAnnotatedForEveryReader) {
  ExpectAll({
      {"local t = json.decode('[[],{}]') local m = json['_$meta'] return m[t].type .. m[t[1]].type .. m[t[2]].type",
       "110"},
      {"local t = json.decode('{}') json['_$meta'][t] = {type = 1} return json.encode(t)", "[]"},
      // Unread documents leave nothing behind, nor do documents that one table
      // is kept of; the kept ones stay annotated. A leak costs 10 MB over two
      // rounds; lists that the next decode would prune may hold about 1 MB.
      {"local text = json.encode((function() local t = {} for i = 1, 1000 do t[i] = {i} end return t end)()) "
       "local keep = {} "
       "local function round() for i = 1, 200 do keep[#keep + 1] = json.decode(text)[i] end "
       "  collectgarbage() collectgarbage() return collectgarbage('count') end "
       "local first = round() round() local third = round() local m = json['_$meta'] "
       "for _, t in ipairs(keep) do if m[t].type ~= 1 then return 'lost' end end "
       "return third - first < 3072",
       "true"},
      // A script that rewrites the lists through the registry breaks nothing:
      // no count sends a loop past their entries, no value is taken for a list.
      {"local text = json.encode((function() local t = {} for i = 1, 3000 do t[i] = {i} end return t end)()) "
       "for i = 1, 3 do json.decode(text) end "
       "for k, v in pairs(debug.getregistry()) do "
       "  if type(k) == 'userdata' and type(v) == 'table' and rawget(v, -3) then "
       "    for slot, bad in pairs({[0] = 1e12, [-2] = 1e12, [1] = 5, [2] = 0/0}) do rawset(v, slot, bad) end "
       "    rawset(rawget(v, -1), 1, 0/0) end end "
       "local t = json.decode('[[],{}]') local m = json['_$meta'] "
       "for i = 1, 5 do json.decode(text) end "
       "return m[t].type .. m[t[1]].type .. m[t[2]].type, json.encode(json.decode('{\"a\":[]}'))",
       "110 | {\"a\":[]}"},
      // Finalizers run mid-decode decode too; neither decode loses a table.
      {"local text = json.encode((function() local t = {} for i = 1, 3000 do t[i] = {x = {i}} end return t end)()) "
       "local decoding, during, ok = false, 0, true "
       "local function arm() setmetatable({}, {__gc = function() "
       "  local v = json.decode('[{}]') local m = json['_$meta'] "
       "  ok = ok and m[v].type == 1 and m[v[1]].type == 0 "
       "  if decoding then during = during + 1 end arm() end}) end "
       "arm() "
       "for r = 1, 20 do "
       "  decoding = true local t = json.decode(text) decoding = false "
       "  local m = json['_$meta'] "
       "  for i = 1, #t, 7 do ok = ok and m[t[i]].type == 0 and m[t[i].x].type == 1 end "
       "end "
       "return ok, during > 0",
       "true | true"},
  });
}

TEST_F(JsonLib, FilesAndStorage) {
  testsupport::ScratchDir dir;
  const std::string path = dir.File("data.json");
  // A value that cannot be written leaves the old file alone.
  EXPECT_EQ(Run("return json.save(ARG, {list = {1, 2}})", path), "true");
  EXPECT_EQ(Run("return select(2, pcall(json.save, ARG, {print}))", path), "json.save: cannot encode a function");
  EXPECT_EQ(Run("return json.load(ARG).list[2]", path), "2");
  ASSERT_TRUE(utils::WriteFileAtomically(path, "{\"a\": tru}"));
  EXPECT_EQ(Run("return json.load(ARG)", path), "nil | " + path + ": unexpected character '}' at byte offset 9");
  ASSERT_EQ(::truncate(path.c_str(), utils::kMaxJsonFileBytes + 1), 0);  // sparse: costs no disk
  ExpectAll(
      {
          {"return json.load(ARG)",
           "nil | read(" + path + ") failed: file too large (268435457 bytes, at most 268435456)"},
          {"return json.storage('/dev/zero')",
           "nil | cannot load /dev/zero: read(/dev/zero) failed: not a regular file"},
          {"return select(2, pcall(json.storage, ARG .. '\\0x'))", "Bad argument: path contains a NUL byte"},
          {"return select(2, pcall(json.storage(ARG .. '.s').set, 'f', 1))",
           "Bad argument: expected a json storage handle (call the method with ':')"},
          // The store's file is written by the host writer, which has no infinities.
          {"local s = json.storage(ARG .. '.s') return select(2, pcall(s.set, s, 'f', -math.huge))",
           "json.storage: cannot encode NaN or infinity"},
      },
      path);
  // A handle released by hand refuses its methods and is never destroyed again.
  EXPECT_EQ(Run("local s = json.storage(ARG) local keys, gc = s.keys, debug.getmetatable(s).__gc "
                "gc(s) gc(s) gc(io.stdout) collectgarbage() return select(2, pcall(keys, s))",
                dir.File("released.json")),
            "Bad argument: the json storage handle was already released");
}

// Deep nesting on a small thread stack: a clear error, never a crash.
TEST_F(JsonLib, NestingFollowsTheThreadStack) {
  std::pair<JsonLib*, std::string> work{this, ""};
  const auto body = [](void* data) -> void* {
    auto* work = static_cast<std::pair<JsonLib*, std::string>*>(data);
    work->second = work->first->Run(
        "local results = {} "
        "for _, parts in ipairs({{'[', '', ']'}, {'{\"k\":', '1', '}'}}) do "
        "  local text = parts[1]:rep(999) .. parts[2] .. parts[3]:rep(999) "
        "  local decoded, error = json.decode(text) "
        "  results[#results + 1] = tostring(decoded and json.encode(decoded) == text or error) "
        "end "
        "local t = {} for i = 1, 998 do t = {k = t} end "
        "local ok, text = pcall(json.encode, t) "
        "results[#results + 1] = tostring(ok and #text == 998 * 6 + 2 or text) "
        "return table.concat(results, ',')");
    return nullptr;
  };
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 96 << 10);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attr, body, &work), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  EXPECT_THAT(work.second, ::testing::MatchesRegex("((true|.*too deep for the thread's stack.*),?){3}"));
}

}  // namespace
