#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/shared.h"

namespace {

using Outcome = testsupport::ProcessOutcome;
using Args = std::vector<std::string>;

class Runner : public ::testing::Test {
 protected:
  std::string Script(const std::string& name, const std::string& code) {
    std::ofstream(dir_.File(name)) << code;
    return dir_.File(name);
  }
  Outcome Run(Args args, const std::string& input = "") {
    args.insert(args.begin(), CORVANE_RUNNER);
    return testsupport::RunProcess(args, input, dir_.Path());
  }

  testsupport::ScratchDir dir_;
};

TEST_F(Runner, PrintsResultsAsOneJsonArrayOrExitsWithOne) {
  const std::string greet = Script("greet.lua",
                                   "local name = init_data.name or 'nobody'\n"
                                   "function add(a, b) return a + b, {sum = a + b} end\n"
                                   "return 'hello ' .. name, 42, 0.5, {1, {}}, json.object(), nil\n");
  const std::string spin = Script("spin.lua", "function f() while true do end end");
  const char* noisy = "print('noise') io.write('more\\n') return arg[0], arg[1], #arg, init_data.x";
  struct Case {
    Args args;
    const char* input;
    int status;
    const char* out;
    const char* err;  // all of it on success, a part of it on failure
  };
  const Case cases[] = {
      {{"run", greet, "--args", "{\"name\": \"corvane\"}"}, "", 0, "[\"hello corvane\",42,0.5,[1,[]],{},null]\n", ""},
      {{"run", greet}, "", 0, "[\"hello nobody\",42,0.5,[1,[]],{},null]\n", ""},
      {{"run", greet, "--call", "add", "--call-args", "[2, 3.5]"}, "", 0, "[5.5,{\"sum\":5.5}]\n", ""},
      {{"eval", "return #init_data, init_data[2]", "--args=[\"a\",\"b\"]"}, "", 0, "[2,\"b\"]\n", ""},
      {{"eval", "return json.encode(init_data)", "--args={\"x\":21}"}, "", 0, "[\"{\\\"x\\\":21}\"]\n", ""},
      {{"eval", "local x = 1"}, "", 0, "[]\n", ""},
      {{"run", "-", "--args={\"x\":1}", "--", "a", "--quiet"}, noisy, 0, "noise\nmore\n[\"stdin\",\"a\",2,1]\n", ""},
      {{"-e", noisy, "--json-only", "--", "b"}, "", 0, "[\"eval\",\"b\",1,null]\n", "noise\nmore\n"},
      {{"run", "-", "--call", "f", "--call-args", "[4]"}, "function f(n) return n * 2 end", 0, "[8]\n", ""},
      {{"run", "-", "--quiet", "--json-only"}, "print(1) return 2", 0, "", "1\n"},
      {{"eval", "error('boom')"}, "", 1, "", "Lua: eval:1: boom"},
      {{"run", Script("broken.lua", "return (")}, "", 1, "", "runtime init error: Lua: "},
      {{"run", Script("fails.lua", "error('script failed')")}, "", 1, "", "script failed"},
      {{"run", dir_.File("missing.lua")}, "", 1, "", "missing.lua"},
      {{"run", spin, "--call", "nothing"}, "", 1, "", "RunFunc(): expected type: function, got type: nil"},
      {{"run", Script("cycle.lua", "local t = {} t[1] = t return t")}, "", 1, "", "nested deeper"},
      // The containment options, on the loaded script and on a call alike.
      {{"-e", "while true do end", "--timeout", "100"}, "", 1, "", ""},
      {{"run", spin, "--call", "f", "--timeout=100"}, "", 1, "", ""},
      {{"-e", "return ('x'):rep(1 << 28)", "--memory", "1000000"}, "", 1, "", ""},
      {{"-e", "return io.open('/etc/hostname')", "--sandbox"}, "", 1, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    const Outcome run = Run(c.args, c.input);
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_EQ(run.out, c.out);
    EXPECT_TRUE(c.status == 0 ? run.err == c.err : run.err.find(c.err) != std::string::npos) << run.err;
  }
  // The system store only when the environment names no CA location.
  if (::getenv("CORVANE_OPENSSL_CA_FILE") == nullptr && ::getenv("CORVANE_OPENSSL_CA_PATH") == nullptr) {
    EXPECT_EQ(Run({"-e", "return os.getenv('CORVANE_OPENSSL_CA_PATH')"}).out, "[\"/etc/ssl/certs\"]\n");
  }
}

TEST_F(Runner, BadUsageExitsWithTwo) {
  const std::string script = Script("ok.lua", "return 1");
  const std::string deep = std::string(1001, '[') + std::string(1001, ']');
  // Words split at spaces; S stands for a script, D for JSON nested too deep.
  for (const char* line : {"", "walk S", "run", "run S --args", "run S --args {not-json}", "run S --args 5",
                           "run S --call-args []", "run S --call f --call-args {}", "run S --call f --call-args D",
                           "eval 1 --args D", "eval 1 --args [18446744073709551615]", "run S --verbose yes",
                           "eval 1 --call f", "-e 1 --quiet=yes", "-e", "-e 1 --timeout -5", "-e 1 --memory 1e9"}) {
    Args args;
    std::istringstream words(line);
    for (std::string word; words >> word;) args.push_back(word == "S" ? script : word == "D" ? deep : word);
    const Outcome run = Run(args);
    EXPECT_EQ(run.status, 2) << line;
    EXPECT_EQ(run.out, "") << line;
    EXPECT_NE(run.err.find("Usage:"), std::string::npos) << line;
  }
  EXPECT_EQ(Run({"--version"}).out.rfind("corvane ", 0), 0u);
  EXPECT_EQ(Run({"--help"}).out.rfind("Usage:", 0), 0u);
}

}  // namespace
