// xml.sax.parseStr and xml.dom.parseStr on a generated 5 MB document, beside
// lua-expat doing the same work in the same runtime: no-op callbacks for the
// event parsers, a table tree for the builders. Two documents: a catalogue of
// records, and the same with escaped markup in every description (reference
// heavy). Compare bytes_per_second of each pair.
#include <exception>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/shared_ptr.hpp>

#include "lua/libs/libs.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace {

// Returns the two documents and the four workloads. lua-expat is asked to
// resolve namespaces, as our parser always does.
const char kWorkloads[] = R"(
local lxp = require("lxp")
local TARGET_BYTES = 5 * 1000 * 1000

local PLAIN = {
  "A plain description that runs long enough to look like prose in a catalogue entry.",
  "Another description, with a comma or two, and numbers like 42 and 3.14 in it.",
  "Short one.",
  "This one mentions &quot;quoted words&quot; and an em dash &#x2014; once.",
}
local MARKUP = {
  "&lt;p&gt;Escaped &lt;b&gt;markup&lt;/b&gt; as feeds carry it, "
    .. "with &amp;amp; and &#x2014;&lt;/p&gt;",
  "&lt;p&gt;A second paragraph &lt;i&gt;of&lt;/i&gt; escaped text.&lt;/p&gt;",
}

-- Attributes in both quote styles, references, a prefixed element, now and
-- then a comment and a CDATA section, indented so that white-space text is
-- part of the load.
local function makeDocument(descriptions)
  local parts = { '<?xml version="1.0" encoding="UTF-8"?>\n'
                  .. '<catalog xmlns="urn:example:catalog" xmlns:x="urn:example:extra">\n' }
  local size, i = #parts[1], 0
  while size < TARGET_BYTES do
    i = i + 1
    local extra = i % 10 == 0
      and "\n    <!-- reviewed -->\n    <notes><![CDATA[raw <b>markup</b> & more]]></notes>" or ""
    local record = string.format([[
  <book id="bk%d" lang="en" available='yes'>
    <author>Author number %d &amp; co-authors</author>
    <title>A title of some length for record %d</title>
    <price currency="EUR">%d.%02d</price>
    <x:isbn>978-3-16-%06d-0</x:isbn>
    <description>%s</description>
    <tags><tag>fiction</tag><tag>novel</tag><tag>series %d</tag></tags>%s
    <empty/>
  </book>
]], i, i, i, i % 100, i % 97, i, descriptions[i % #descriptions + 1], i % 7, extra)
    parts[#parts + 1] = record
    size = size + #record
  end
  parts[#parts + 1] = "</catalog>\n"
  return table.concat(parts)
end

local function noop() end

local function ourSax(doc)
  xml.sax.parseStr(doc, {
    startElement = noop, attribute = noop, closeElement = noop,
    text = noop, comment = noop, pi = noop,
  })
end

local function expatParse(doc, callbacks)
  local parser = lxp.new(callbacks, "|")
  assert(parser:parse(doc))
  assert(parser:parse())
  parser:close()
end

local function expatSax(doc)
  expatParse(doc, {
    StartElement = noop, EndElement = noop, CharacterData = noop, Comment = noop,
    ProcessingInstruction = noop,
  })
end

local function ourDom(doc)
  xml.dom.parseStr(doc)
end

-- Children in an array, attributes as expat hands them over, text joined
-- from a buffer per element: about the work the DOM builder does.
local function expatTree(doc)
  local root = { children = {} }
  local stack, buffers, depth = { root }, { {} }, 1
  expatParse(doc, {
    StartElement = function(_, name, attributes)
      local node = { name = name, attr = attributes, children = {} }
      local siblings = stack[depth].children
      siblings[#siblings + 1] = node
      depth = depth + 1
      stack[depth], buffers[depth] = node, {}
    end,
    EndElement = function()
      stack[depth].text = table.concat(buffers[depth])
      depth = depth - 1
    end,
    CharacterData = function(_, text)
      local buffer = buffers[depth]
      buffer[#buffer + 1] = text
    end,
  })
end

return makeDocument(PLAIN), makeDocument(MARKUP), ourSax, expatSax, ourDom, expatTree
)";

enum Workload { kOurSax, kExpatSax, kOurDom, kExpatTree };

// One runtime for every benchmark; the chunk's results stay at the bottom of
// its stack: [plain, markup, ourSax, expatSax, ourDom, expatTree].
struct Setup {
  boost::shared_ptr<lua::RunTime> rt;
  std::vector<boost::shared_ptr<lua::ObjectRef>> values;
  std::string error;
};

const Setup& GetSetup() {
  static const Setup setup = [] {
    Setup made;
    try {
      lua::RegisterXmlLib();
      made.rt = lua::RunTime::Create();
      made.values = made.rt->RunString(kWorkloads, false);
    } catch (const std::exception& e) {
      made.error = e.what();
    }
    return made;
  }();
  return setup;
}

void Run(benchmark::State& state, Workload workload) {
  const Setup& setup = GetSetup();
  if (!setup.error.empty()) {
    state.SkipWithError(setup.error.c_str());
    return;
  }
  const boost::shared_ptr<lua::ObjectRef>& doc = setup.values.at(state.range(0));
  const boost::shared_ptr<lua::ObjectRef>& function = setup.values.at(2 + workload);
  state.SetLabel(state.range(0) == 0 ? "catalogue" : "escaped markup");
  for (auto _ : state) {
    // Each run starts without the previous run's garbage. Twice: a lua-expat
    // parser has a finalizer, which keeps its callbacks, and the tree they
    // reach, alive until the cycle after the one that finds it dead.
    state.PauseTiming();
    setup.rt->CollectGarbage();
    setup.rt->CollectGarbage();
    state.ResumeTiming();
    lua::RunTime::StackCleaner cleaner(setup.rt);
    setup.rt->RunFunc(function, {doc});
  }
  state.SetBytesProcessed(state.iterations() * doc->Len());
}

void BM_XmlSaxParseStr(benchmark::State& state) { Run(state, kOurSax); }
void BM_LuaExpatNoOpCallbacks(benchmark::State& state) { Run(state, kExpatSax); }
void BM_XmlDomParseStr(benchmark::State& state) { Run(state, kOurDom); }
void BM_LuaExpatTableTree(benchmark::State& state) { Run(state, kExpatTree); }

BENCHMARK(BM_XmlSaxParseStr)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LuaExpatNoOpCallbacks)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_XmlDomParseStr)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LuaExpatTableTree)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
