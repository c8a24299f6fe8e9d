// The corvane runner run on script files: exit status, standard output and
// standard error.
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/shared.h"

namespace {

using Outcome = testsupport::ProcessOutcome;

class Runner : public ::testing::Test {
 protected:
  std::string Script(const std::string& name, const std::string& code) {
    std::ofstream(dir_.File(name)) << code;
    return dir_.File(name);
  }
  Outcome Run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), CORVANE_RUNNER);
    return testsupport::RunProcess(args, input, dir_.Path());
  }

  testsupport::ScratchDir dir_;
};

TEST_F(Runner, PrintsTheResultsAsOneJsonArray) {
  const std::string script = Script("greet.lua",
                                    "local name = init_data.name or 'nobody'\n"
                                    "function add(a, b) return a + b, {sum = a + b} end\n"
                                    "return 'hello ' .. name, 42, 0.5, {1, {}}, json.object(), nil\n");
  Outcome run = Run({"run", script, "--args", "{\"name\": \"corvane\"}"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "[\"hello corvane\",42,0.5,[1,[]],{},null]\n");
  EXPECT_EQ(run.err, "");

  run = Run({"run", script});
  EXPECT_EQ(run.out, "[\"hello nobody\",42,0.5,[1,[]],{},null]\n");

  run = Run({"run", script, "--call", "add", "--call-args", "[2, 3.5]"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "[5.5,{\"sum\":5.5}]\n");

  run = Run({"run", Script("args.lua", "return #init_data, init_data[2]"), "--args=[\"a\",\"b\"]"});
  EXPECT_EQ(run.out, "[2,\"b\"]\n");

  run = Run({"run", Script("none.lua", "local x = 1")});
  EXPECT_EQ(run.out, "[]\n");
}

TEST_F(Runner, EvaluatesCode) {
  Outcome eval = Run({"eval", "return init_data.x * 2, json.encode(init_data)", "--args", "{\"x\": 21}"});
  EXPECT_EQ(eval.status, 0) << eval.err;
  EXPECT_EQ(eval.out, "[42,\"{\\\"x\\\":21}\"]\n");
  eval = Run({"eval", "error('boom')"});
  EXPECT_EQ(eval.status, 1);
  EXPECT_EQ(eval.out, "");
  EXPECT_EQ(eval.err.rfind("Lua: eval:1: boom", 0), 0u) << eval.err;
}

TEST_F(Runner, TakesScriptsFromStdinAndArgumentsAfterDashes) {
  const std::string code = "print('noise') io.write('more\\n') return arg[0], arg[1], #arg, init_data.x";
  Outcome run = Run({"run", "-", "--args", "{\"x\": 1}", "--", "a", "--quiet"}, code);
  EXPECT_EQ(run.out, "noise\nmore\n[\"stdin\",\"a\",2,1]\n") << run.err;
  run = Run({"-e", code, "--json-only", "--", "b"});
  EXPECT_EQ(run.out, "[\"eval\",\"b\",1,null]\n");
  EXPECT_EQ(run.err, "noise\nmore\n");
  EXPECT_EQ(Run({"run", "-", "--call", "f", "--call-args", "[4]"}, "function f(n) return n * 2 end").out, "[8]\n");
  run = Run({"run", "-", "--quiet", "--json-only"}, "print(1) return 2");
  EXPECT_EQ(run.out + "|" + run.err, "|1\n");
  // The system store only when the environment names no CA location.
  if (::getenv("CORVANE_OPENSSL_CA_FILE") == nullptr && ::getenv("CORVANE_OPENSSL_CA_PATH") == nullptr) {
    EXPECT_EQ(Run({"-e", "return os.getenv('CORVANE_OPENSSL_CA_PATH')"}).out, "[\"/etc/ssl/certs\"]\n");
  }
}

TEST_F(Runner, ErrorsExitWithOne) {
  const std::string broken = Script("broken.lua", "return (");
  Outcome run = Run({"run", broken});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err.rfind("LuaModuleContext: runtime init error: Lua: ", 0), 0u) << run.err;
  EXPECT_NE(run.err.find("broken.lua:1:"), std::string::npos) << run.err;

  const std::string spin = Script("spin.lua", "function f() while true do end end");
  const std::pair<std::vector<std::string>, const char*> failures[] = {
      {{"run", Script("fails.lua", "error('script failed')")}, "script failed"},
      {{"run", dir_.File("missing.lua")}, "missing.lua"},
      {{"run", spin, "--call", "nothing"}, "RunFunc(): expected type: function, got type: nil"},
      {{"run", Script("cycle.lua", "local t = {} t[1] = t return t")}, "nested deeper"},
      // The containment options, on the loaded script and on a call alike.
      {{"-e", "while true do end", "--timeout", "100"}, ""},
      {{"run", spin, "--call", "f", "--timeout=100"}, ""},
      {{"-e", "return ('x'):rep(1 << 28)", "--memory", "1000000"}, ""},
      {{"-e", "return io.open('/etc/hostname')", "--sandbox"}, ""},
  };
  for (const auto& [args, text] : failures) {
    run = Run(args);
    EXPECT_EQ(run.status, 1) << args[1];
    EXPECT_EQ(run.out, "") << args[1];
    EXPECT_NE(run.err.find(text), std::string::npos) << run.err;
  }
}

TEST_F(Runner, BadUsageExitsWithTwo) {
  const std::string script = Script("ok.lua", "return 1");
  const std::string deep = std::string(1001, '[') + std::string(1001, ']');
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"walk", script},
      {"run"},
      {"run", script, "--args"},
      {"run", script, "--args", "{not json}"},
      {"run", script, "--args", "5"},
      {"run", script, "--call-args", "[]"},
      {"run", script, "--call", "f", "--call-args", "{}"},
      {"run", script, "--call", "f", "--call-args", deep},
      {"eval", "return 1", "--args", deep},
      {"eval", "return 1", "--args", "[18446744073709551615]"},
      {"run", script, "--verbose", "yes"},
      {"eval", "return 1", "--call", "f"},
      {"-e", "return 1", "--quiet=yes"},
      {"-e"},
      {"-e", "return 1", "--timeout", "-5"},
      {"-e", "return 1", "--memory", "1e9"},
  };
  for (const std::vector<std::string>& args : cases) {
    const Outcome run = Run(args);
    EXPECT_EQ(run.status, 2) << (args.empty() ? "" : args[0]) << " " << args.size();
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("Usage:"), std::string::npos);
  }
  const Outcome version = Run({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("corvane ", 0), 0u);
  const Outcome help = Run({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage:", 0), 0u);
}

}  // namespace
