// Native code for scripts: a library that every runtime opens ("geo", through
// lua::GlobalLib) and a host function given to one runtime as a global.
// Output:
//   distance 5, calls 2, error: expected 4 args
//   corvane/version.h agrees with itself: yes
#include <cmath>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include <corvane/corvane.h>

namespace {

using Args = std::vector<boost::shared_ptr<lua::ObjectRef>>;

// geo.distance(x1, y1, x2, y2). Checks raise script errors, which a script can
// catch with pcall; a C++ exception thrown here would reach it as "Cpp: ...".
int Distance(boost::shared_ptr<lua::RunTime>& rt, const Args& args) {
  rt->CheckArgsCount(args, 4);
  double v[4];
  for (size_t i = 0; i < 4; ++i) {
    rt->CheckType(args[i], LUA_TNUMBER, "geo.distance");
    v[i] = args[i]->AsReal();
  }
  rt->CreateAtStack(std::hypot(v[2] - v[0], v[3] - v[1]));
  return 1;  // the number of results left on the stack
}

}  // namespace

int main() {
  try {
    lua::RegisterAllLibs();
    // Before any runtime is created: a runtime opens the libraries registered then.
    lua::GlobalLib("geo", nullptr).AddFunc("distance", lua::WrapFunc<&Distance>);

    boost::shared_ptr<lua::RunTime> rt = lua::RunTime::Create();
    lua::RunTime::StackCleaner cleaner(rt);
    int calls = 0;
    // A host closure; it may capture state, since it lives as long as the runtime holds it.
    rt->SetGlobalObject("count_call", rt->CreateAtStack(lua::NativeFunction(
                                          [&calls](boost::shared_ptr<lua::RunTime>& r, const Args&) {
                                            r->CreateAtStack(static_cast<long long>(++calls));
                                            return 1;
                                          })));
    auto results = rt->RunString(
        "count_call() "
        "local ok, err = pcall(geo.distance, 1, 2) "
        "return geo.distance(0, 0, 3, 4), count_call(), err",
        false);
    std::cout << "distance " << results[0]->AsReal() << ", calls " << results[1]->AsInteger()
              << ", error: " << results[2]->AsString() << "\n";
    const std::string version = std::to_string(CORVANE_VERSION_MAJOR) + "." + std::to_string(CORVANE_VERSION_MINOR) +
                                "." + std::to_string(CORVANE_VERSION_PATCH);
    std::cout << "corvane/version.h agrees with itself: " << (version == CORVANE_VERSION_STRING ? "yes" : "no") << "\n";
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  return 0;
}
