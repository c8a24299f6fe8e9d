// The script library "xml": an event parser, a node-tree builder and a writer.
// It is all script code (xml.lua beside this file, embedded at build time) and
// has no native functions: its init function runs the text in each runtime,
// and the table the text returns becomes the library.
#include <mutex>
#include <string>

#include <boost/shared_ptr.hpp>

#include "lua/libs/libs.h"
#include "lua/libs/register.h"
#include "lua/libs/xml_text.h"
#include "lua/runtime.h"

namespace lua {

namespace {

// Built once when the shared library loads, so opening the library in a new
// runtime does not copy the text again.
const std::string kXmlSource(detail::kXmlLibText, sizeof(detail::kXmlLibText) - 1);

// Leaves the text's results on the stack on purpose: a library without
// functions takes them as its value.
void RunXmlText(boost::shared_ptr<RunTime>& rt, boost::shared_ptr<TableRef>&) {
  rt->RunString(kXmlSource, false);
}

}  // namespace

void RegisterXmlLib() {
  static std::once_flag once;
  detail::RegisterLibOnce(once, "xml", RunXmlText, nullptr, 0);
}

}  // namespace lua
