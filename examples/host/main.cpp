// A host program that uses corvane through its installed package: it runs a
// script with arguments in init_data, then calls one of the script's functions.
// Output:
//   {"greeting":"hello, world"}
//   HELLO, WORLD! HELLO, WORLD! (12 letters)
#include <exception>
#include <iostream>

#include <corvane/corvane.h>

int main() {
  try {
    lua::RegisterAllLibs();  // cv, http, json, xml, base64 for every runtime made after this
    boost::shared_ptr<lua::RunTime> rt = lua::RunTime::Create();
    lua::RunTime::StackCleaner cleaner(rt);  // pops every value made below
    rt->RunString("greeting = 'hello, ' .. init_data[1] "
                  "function shout(text, times) return (text:upper() .. '! '):rep(times), #text end "
                  "print(json.encode({greeting = greeting}))",
                  {rt->CreateAtStack("world")}, false);
    auto results = rt->RunFunc("shout", {rt->GetGlobalObject("greeting"), rt->CreateAtStack(2)});
    std::cout << results[0]->AsString() << "(" << results[1]->AsInteger() << " letters)\n";
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  return 0;
}
