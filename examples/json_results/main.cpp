// A host that hands a script a JSON document and reads the script's results
// back as JSON. Arrays and objects keep their kind on the way through, empty
// ones included; a table the script makes is an array when its keys are 1..n.
// Output:
//   {"extra":{},"id":42,"names":["tea","cake"],"notes":[],"tags":[],"total":10.0}
//   total as a number: 10
#include <exception>
#include <iostream>

#include <corvane/corvane.h>

int main() {
  try {
    lua::RegisterAllLibs();
    boost::shared_ptr<lua::RunTime> rt = lua::RunTime::Create();
    lua::RunTime::StackCleaner cleaner(rt);
    rt->RunString(
        "function summarize(order)\n"
        "  local total = 0\n"
        "  for _, item in ipairs(order.items) do total = total + item.price * item.count end\n"
        "  return {id = order.id, total = total, notes = order.notes, extra = order.extra,\n"
        "          names = {order.items[1].name, order.items[2].name}, tags = json.array()}\n"
        "end",
        false);

    Json::Value order(Json::objectValue);
    order["id"] = 42;
    order["notes"] = Json::Value(Json::arrayValue);   // stays []
    order["extra"] = Json::Value(Json::objectValue);  // stays {}
    for (const char* name : {"tea", "cake"}) {
      Json::Value item(Json::objectValue);
      item["name"] = name;
      item["price"] = 2.5;
      item["count"] = 2;
      order["items"].append(item);
    }

    auto results = rt->RunFunc("summarize", {rt->CreateAtStack(order)});
    const Json::Value summary = results[0]->AsJsonValue();
    std::cout << utils::WriteJson(summary, false) << "\n";
    std::cout << "total as a number: " << summary["total"].asDouble() << "\n";
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  return 0;
}
