// The "base64" library as scripts see it, against RFC 4648's vectors and
// OpenSSL's encoder.
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <openssl/evp.h>

#include "lua/libs/libs.h"
#include "lua/script_test_util.h"

namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

class Base64Lib : public lua_test::ScriptTest {
 protected:
  static void SetUpTestSuite() { lua::RegisterBase64Lib(); }
};

TEST_F(Base64Lib, Rfc4648VectorsAndByteArrays) {
  // RFC 4648's own vectors are among the examples of docs/base64.md.
  EXPECT_EQ(Eval("return base64.encode(''), base64.encode({}), base64.decode(''), base64.decode('', true)"),
            "nil | nil | nil | nil");
  // Array elements give their lowest eight bits.
  EXPECT_EQ(Eval("return base64.encode({72, 105}), base64.encode({256, -1, 511})"), "SGk= | AP//");
  EXPECT_EQ(Eval("local t = base64.decode('AP//', true) return #t, t[1], t[3], math.type(t[1])"),
            "3 | 0 | 255 | integer");
  for (const char* text : {"SGk*", "S", "SGk=SGk=", "SGk =", "SG\\nk=", "====", "SGk==="}) {
    EXPECT_EQ(Eval(std::string("return base64.decode('") + text + "'), base64.decode('" + text + "', true)"),
              "nil | nil")
        << text;
  }
}

TEST_F(Base64Lib, AgreesWithOpenSslOnRandomBytes) {
  std::mt19937 rng(7);
  for (size_t size : {1, 2, 3, 31, 32, 33, 95, 96, 97, 1000, 65537}) {
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    std::string expected(4 * ((size + 2) / 3) + 1, '\0');
    expected.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&expected[0]),
                                                        reinterpret_cast<const unsigned char*>(bytes.data()),
                                                        static_cast<int>(size))));
    {
      lua::RunTime::StackCleaner cleaner(rt_);
      lua_pushlstring(rt_->State(), bytes.data(), bytes.size());
      rt_->SetGlobalObject("data", rt_->ObjectAtStackTop());
    }
    EXPECT_EQ(Eval("return base64.encode(data)"), expected) << size;
    EXPECT_EQ(Eval("local t = {} for i = 1, #data do t[i] = data:byte(i) end "
                   "local s = base64.encode(data) local back = base64.decode(s, true) "
                   "for i = 1, #data do if back[i] ~= t[i] then return false end end "
                   "return base64.encode(t) == s, base64.decode(s) == data, #back == #data"),
              "true | true | true")
        << size;
  }
  // Long byte arrays must not exhaust the script stack.
  EXPECT_EQ(Eval("local t = {} for i = 1, 1100000 do t[i] = i end "
                 "local s = base64.encode(t) return #s, #base64.decode(s, true)"),
            "1466668 | 1100000");
}

TEST_F(Base64Lib, ArgumentErrorsUseTheirExactTexts) {
  for (const auto& c : Cases{
           {"base64.encode", "expected 1 args"},
           {"base64.encode, 'a', 'b'", "expected 1 args"},
           {"base64.encode, 12", "Invalid argument: expected type 'array' or 'string'"},
           {"base64.encode, {1.5}", "Invalid array value"},
           {"base64.encode, {1, '2'}", "Invalid array value"},
           // A length metamethod claiming more than the table holds reserves nothing for it.
           {"base64.encode, setmetatable({1}, {__len = function() return 1 << 60 end})", "Invalid array value"},
           {"base64.encode, setmetatable({}, {__len = function() return math.maxinteger end})",
            "Invalid array value"},
           {"base64.decode", "Bad arguments, expected: (base64[, byte_array = false])"},
           {"base64.decode, 'a', true, 1", "Bad arguments, expected: (base64[, byte_array = false])"},
           {"base64.decode, 12", "Invalid argument: expected type 'string', got 'number'"},
           {"base64.decode, 'SGk=', 1", "Invalid argument: expected type 'boolean', got 'number'"}}) {
    EXPECT_EQ(Eval("return select(2, pcall(" + c.first + "))"), c.second) << c.first;
  }
}

}  // namespace
