// JSON annotations: a Lua table alone cannot tell an empty JSON array from an
// empty object, so each runtime remembers, for the tables that came from JSON
// or were declared as arrays or objects, which one they are. The record lives
// in a weak-keyed table that the json library creates ("_$meta" in its library
// table), so annotated tables stay collectable; a runtime without the json
// library treats every table as not annotated. Tables that json.decode makes
// are recorded when the table of metadata is next read through the functions
// below or indexed by a script; only a raw walk of it (next, rawget) may miss
// them until then.
//
// The conversions themselves are RunTime::CreateAtStack(const Json::Value&)
// and ObjectRef/TableRef::AsJsonValue. Like every handle operation they belong
// to the thread that uses the runtime.
#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include "object_ref.h"
#include "runtime.h"

namespace lua {

// Values as stored in a metadata table's field "type".
enum JsonAnnotatedType : int {
  JsonAnnotatedObject = 0,
  JsonAnnotatedArray = 1,
  JsonNotAnnotated = 2,  // decided from the keys
};

// Deeper nesting is refused by every conversion in either direction: it keeps
// recursion off the end of the C stack, and it is how a table that contains
// itself is caught.
constexpr int kMaxJsonDepth = 1000;

// "_$meta": the name of the table of metadata in the json library table.
const std::string& GetAllMetadatasTableName();

// Pushes the runtime's table of metadata and returns a handle to it; an empty
// pointer, with nothing pushed, when the json library is not open.
boost::shared_ptr<TableRef> GetAllMetadatasTable(const boost::shared_ptr<RunTime>& rt);

// Pushes the metadata table of `obj` and returns a handle to it; an empty
// pointer, with nothing pushed, when there is none. Tables annotated by a
// conversion share one metadata table per kind: read it, and change an
// annotation only through SetJsonAnnotatedType.
boost::shared_ptr<TableRef> GetMetadataTable(const boost::shared_ptr<ObjectRef>& obj);

// The integer at "type" of the metadata table; JsonNotAnnotated without one.
// Leaves the stack as it was.
JsonAnnotatedType GetJsonAnnotatedType(const boost::shared_ptr<ObjectRef>& obj);

// Records the annotation of a table; leaves the stack as it was. Throws
// RunTimeError for a value that is not a table and for a type outside the
// enumeration. Without the json library there is nowhere to record it, and
// the call does nothing.
void SetJsonAnnotatedType(const boost::shared_ptr<ObjectRef>& obj, JsonAnnotatedType type);

// The script value that stands for JSON null where a nil cannot (json.null):
// a light userdata with this address. Converts to JSON null.
void* JsonNullValue();

}  // namespace lua
