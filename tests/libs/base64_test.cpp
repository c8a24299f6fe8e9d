// The "base64" library as scripts see it.
#include <string>
#include <utility>
#include <vector>

#include "lua/libs/libs.h"
#include "lua/script_test_util.h"

namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

class Base64Lib : public lua_test::ScriptTest {
 protected:
  static void SetUpTestSuite() { lua::RegisterBase64Lib(); }
};

// The encoding itself is checked in the utils tests and the docs examples.
TEST_F(Base64Lib, StringsAndByteArraysRoundTrip) {
  EXPECT_EQ(Eval("local data = '' for i = 0, 600 do data = data .. string.char((i * 37) % 256) end "
                 "for n = 1, #data, 31 do local d = data:sub(1, n) local s = base64.encode(d) "
                 "local t = {d:byte(1, -1)} local back = base64.decode(s, true) "
                 "if (base64.decode(s) ~= d or base64.encode(t) ~= s "
                 "or table.concat(back, ',') ~= table.concat(t, ',')) then return n end end return 'ok'"),
            "ok");
  // Long byte arrays must not exhaust the script stack.
  EXPECT_EQ(Eval("local t = {} for i = 1, 1100000 do t[i] = i end "
                 "local s = base64.encode(t) return #s, #base64.decode(s, true)"),
            "1466668 | 1100000");
  EXPECT_EQ(Eval("return base64.encode({}), base64.decode('', true), math.type(base64.decode('AP//', true)[3])"),
            "nil | nil | integer");
  EXPECT_EQ(Eval("for _, s in ipairs({'SGk*', 'S', 'SGk=SGk=', 'SG\\nk=', '====', 'SGk==='}) do "
                 "  if base64.decode(s) or base64.decode(s, true) then return s end end return 'all refused'"),
            "all refused");
}

TEST_F(Base64Lib, ArgumentErrorsUseTheirExactTexts) {
  for (const auto& c : Cases{
           {"base64.encode", "expected 1 args"},
           {"base64.encode, 12", "Invalid argument: expected type 'array' or 'string'"},
           {"base64.encode, {1.5}", "Invalid array value"},
           // A length metamethod claiming more than the table holds reserves nothing for it.
           {"base64.encode, setmetatable({1}, {__len = function() return 1 << 60 end})", "Invalid array value"},
           {"base64.encode, setmetatable({}, {__len = function() return math.maxinteger end})", "Invalid array value"},
           {"base64.decode", "Bad arguments, expected: (base64[, byte_array = false])"},
           {"base64.decode, 12", "Invalid argument: expected type 'string', got 'number'"},
           {"base64.decode, 'SGk=', 1", "Invalid argument: expected type 'boolean', got 'number'"}}) {
    EXPECT_EQ(Eval("return select(2, pcall(" + c.first + "))"), c.second) << c.first;
  }
}

}  // namespace
