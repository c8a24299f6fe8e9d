-- Throughput of xml.sax.parseStr and xml.dom.parseStr on generated ~5 MB
-- documents, beside lua-expat doing the same work in the same interpreter:
-- no-op callbacks for the event parsers, a table tree for the builders.
--
--   lua5.3 bench/libs/xml_bench.lua [path/to/xml.lua]
--
-- Uses the global `xml` when a runtime has registered it, otherwise loads the
-- library text. Figures are MB/s (10^6 bytes), best of several runs.

local lxp = require("lxp")

local function scriptDir()
  return debug.getinfo(1, "S").source:match("^@(.*/)") or "./"
end

local xml = rawget(_G, "xml")
  or assert(loadfile((arg and arg[1]) or scriptDir() .. "../../lua/libs/xml.lua"))()

local TARGET_BYTES = 5 * 1000 * 1000
local RUNS = 5
-- Our parser always resolves namespaces, so expat is asked to as well.
local NAMESPACE_SEPARATOR = "|"

local PLAIN_DESCRIPTIONS = {
  "A plain description that runs long enough to look like prose in a catalogue entry.",
  "Another description, with a comma or two, and numbers like 42 and 3.14 in it.",
  "Short one.",
  "This one mentions &quot;quoted words&quot; and an em dash &#x2014; once.",
}
local MARKUP_DESCRIPTIONS = {
  "&lt;p&gt;Escaped &lt;b&gt;markup&lt;/b&gt; as feeds carry it, "
    .. "with &amp;amp; and &#x2014;&lt;/p&gt;",
  "&lt;p&gt;A second paragraph &lt;i&gt;of&lt;/i&gt; escaped text.&lt;/p&gt;",
}

-- A catalogue of records: attributes in both quote styles, text with
-- references, a namespaced element, now and then a comment and a CDATA
-- section, indented like typical hand-written documents so that white-space
-- text is part of the load.
local function makeDocument(descriptions)
  local parts = { '<?xml version="1.0" encoding="UTF-8"?>\n'
                  .. '<catalog xmlns="urn:example:catalog" xmlns:x="urn:example:extra">\n' }
  local size = #parts[1]
  local i = 0
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
]], i, i, i, i % 100, i % 97, i, descriptions[i % #descriptions + 1], i % 7,
      extra)
    parts[#parts + 1] = record
    size = size + #record
  end
  parts[#parts + 1] = "</catalog>\n"
  return table.concat(parts)
end

local function best(fn)
  local fastest = math.huge
  for _ = 1, RUNS do
    -- Twice: a lua-expat parser's finalizer keeps its callbacks, and the tree
    -- they reach, alive until the cycle after the one that finds it dead.
    collectgarbage("collect")
    collectgarbage("collect")
    local started = os.clock()
    fn()
    fastest = math.min(fastest, os.clock() - started)
  end
  return fastest
end

local function noop() end

local function ourSax(doc)
  xml.sax.parseStr(doc, {
    startElement = noop, attribute = noop, closeElement = noop,
    text = noop, comment = noop, pi = noop,
  })
end

local function expatParse(doc, callbacks)
  local parser = lxp.new(callbacks, NAMESPACE_SEPARATOR)
  assert(parser:parse(doc))
  assert(parser:parse())
  parser:close()
end

local function expatSax(doc)
  expatParse(doc, {
    StartElement = noop, EndElement = noop, CharacterData = noop,
    Comment = noop, ProcessingInstruction = noop,
  })
end

local function ourDom(doc)
  return xml.dom.parseStr(doc)
end

-- A plain tree from expat events: children in an array, attributes as
-- expat hands them over, text joined from a buffer per element.
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
  return root
end

print(string.format("MB/s, best of %d runs; lua-expat with namespace processing", RUNS))
for _, variant in ipairs({
  { "catalogue", PLAIN_DESCRIPTIONS },
  { "catalogue, escaped markup in every description", MARKUP_DESCRIPTIONS },
}) do
  local doc = makeDocument(variant[2])
  local megabytes = #doc / 1e6
  print(string.format("%s: %.2f MB", variant[1], megabytes))
  for _, pair in ipairs({
    { "xml.sax.parseStr, no-op callbacks", ourSax, expatSax },
    { "xml.dom.parseStr, building a tree", ourDom, expatTree },
  }) do
    local ours = megabytes / best(function() pair[2](doc) end)
    local peer = megabytes / best(function() pair[3](doc) end)
    print(string.format("  %-34s %6.1f   lua-expat %6.1f   ratio %.2f (target >= 0.5)",
                        pair[1], ours, peer, ours / peer))
  end
end
