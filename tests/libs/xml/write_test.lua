-- Writer: exact texts, options, errors, and parse -> write -> parse keeping the tree.
local xml, check = ...

local DECLARATION = '<?xml version="1.0" standalone="yes"?>\n'

local function rewrite(content, options)
  return xml.write(xml.dom.parseStr(content), options)
end

-- A node as plain data, keeping whether a child entry was a node or an array.
local function plain(node)
  local children = {}
  for name, entry in pairs(node.childElems) do
    local array = {}
    for i, child in ipairs(entry) do array[i] = plain(child) end
    children[name] = #entry > 0 and { array = array } or plain(entry)
  end
  return { name = node["#name"], type = node["#type"], text = node["#text"], attr = node["#attr"],
           children = children }
end

check.test("Write.EscapesIndentsAndCompletesTheOptions", function()
  local content = '<a x="&quot;&apos;&lt;&gt;&amp;">1 &lt; 2 &amp; 3 &gt; 0 "q"</a>'
  check.equal(rewrite(content), DECLARATION .. '<a x="&quot;&apos;&lt;&gt;&amp;">1 &lt; 2 &amp; 3 &gt; 0 "q"</a>')
  local unescaped = { escape = false }
  check.equal(rewrite(content, unescaped), DECLARATION .. '<a x=""\'<>&">1 < 2 & 3 > 0 "q"</a>')
  -- Siblings of different names come out in any order, so one name here.
  check.equal(rewrite("<a><c></c><c>t</c><c/></a>", { pretty = false }), DECLARATION .. "<a><c/><c>t</c><c/></a>")
  check.equal(rewrite("<a>t<b><c>x</c><c/></b></a>", { pretty = true }),
              DECLARATION .. "<a>t\n    <b>\n        <c>x</c>\n        <c/>\n    </b>\n</a>")
  local options = { pretty = true }
  xml.write(xml.dom.parseStr("<a/>"), options)
  check.equal(options, { pretty = true, escape = true })
  -- An element, or a table holding one, is wrapped in a document; escaping is the default still.
  local doc = xml.dom.parseStr("<a><b>x&amp;</b></a>")
  check.equal(xml.write(doc.a), xml.write(doc))
  check.equal(xml.write({ childElems = { r = doc.a.b } }), DECLARATION .. "<b>x&amp;</b>")
end)

check.test("Write.RaisesOnTreesItCannotWrite", function()
  local root = xml.dom.parseStr("<a/>").a
  check.raises("Invalid XML table format", xml.write, { childElems = { root } })
  local doc = xml.dom.parseStr("<a/>")
  xml.dom.addElement(doc, "b")
  check.raises("Multiple root elements encountered", xml.write, doc)
end)

check.test("Write.ParseWriteParseKeepsTheTree", function()
  local content = [=[
<?xml version="1.0"?>
<catalog xmlns:x="urn:x" version="2">
  <!-- dropped -->
  <book id="1" title="Tom &amp; Jerry &quot;&apos;&lt;">
    <x:author>A &lt;b&gt; &amp; C&#xE9;</x:author>
    <tag>one</tag><tag>two</tag><tag>three</tag>
    <empty/>
    <note><![CDATA[raw <markup> & stuff]]></note>
  </book>
  <book id="2"/>
</catalog>]=]
  local strip = { stripWhitespace = true }
  local stripped = xml.dom.parseStr(content, strip)
  for _, options in ipairs({ { pretty = true }, { pretty = false } }) do
    check.equal(plain(xml.dom.parseStr(xml.write(stripped, options), strip)), plain(stripped))
  end
  local kept = xml.dom.parseStr(content)
  check.equal(plain(xml.dom.parseStr(xml.write(kept))), plain(kept))
end)
